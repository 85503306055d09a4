# Sourced by the CLI test scripts: `source cli_common.sh VELK2`. Sets velk2,
# moves into a temporary directory removed at exit, and defines the checks.
# Every command runs under a timeout, so a hang fails the test instead of
# stopping the suite.
set -u
velk2=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir" || exit 1
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
check() {  # description, expected exit, command...
  local what=$1 want=$2
  shift 2
  timeout 60 "$@" >out.txt 2>err.txt
  local got=$?
  if [ "$got" -ne "$want" ]; then
    fail "$what: exit $got, expected $want"; cat out.txt err.txt
  fi
}
has() {  # description, file, extended regex
  grep -qE -- "$3" "$2" || { fail "$1: no /$3/ in $2"; cat "$2"; }
}
json() {  # description, python expression over the JSON object j
  python3 -m json.tool out.txt >/dev/null || { fail "$1: not JSON"; cat out.txt; return; }
  python3 -c "import json,sys; j=json.load(open('out.txt')); sys.exit(0 if ($2) else 1)" ||
    { fail "$1: $2"; cat out.txt; }
}
