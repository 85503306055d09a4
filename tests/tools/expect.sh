#!/usr/bin/env bash
# expect.sh EXIT_CODE REGEX COMMAND...: runs COMMAND and checks its exit status and
# that its combined output matches REGEX (extended grep syntax; "" matches anything).
want=$1 pattern=$2
shift 2
output=$("$@" 2>&1)
status=$?
if [ "$status" -ne "$want" ]; then
  printf 'exit %s, expected %s; output:\n%s\n' "$status" "$want" "$output"
  exit 1
fi
if [ -n "$pattern" ] && ! grep -qE -- "$pattern" <<<"$output"; then
  printf 'output does not match /%s/:\n%s\n' "$pattern" "$output"
  exit 1
fi
exit 0
