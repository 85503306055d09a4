#!/usr/bin/env bash
# What a user of velk2 does with it: install it into a prefix and build a C
# program against it with CMake's find_package and with pkg-config; make the
# two Debian packages, unpack them into a scratch root and run the tool from
# there; lintian, when it is installed, finds no errors.
#   consumer_test.sh SOURCE_DIR BUILD_DIR
set -u
source_dir=$1
build_dir=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
run() {  # description, command...
  local what=$1
  shift
  timeout 300 "$@" >"$dir/out.txt" 2>&1 || { fail "$what"; cat "$dir/out.txt"; }
}
store=$source_dir/examples/authority
package=$source_dir/examples/package/hello-1.0

prefix=$dir/prefix
run "install" cmake --install "$build_dir" --prefix "$prefix"
libdir=$(dirname "$(find "$prefix" -name 'libvelk2.so.1' | head -n 1)")
[ -n "$libdir" ] || fail "no libvelk2.so.1 installed"

run "configure with find_package" cmake -S "$source_dir/tests/package/consumer" -B "$dir/consumer" \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release
run "build with find_package" cmake --build "$dir/consumer"
run "consumer (find_package)" env LD_LIBRARY_PATH="$libdir" "$dir/consumer/consumer" "$store" "$package" '(pkg install)'
grep -q '^result 0: Success; 10 valid, 0 not$' "$dir/out.txt" || { fail "consumer result"; cat "$dir/out.txt"; }

run "build with pkg-config" sh -c "cc '$source_dir/tests/package/consumer/consumer.c' -o '$dir/consumer-pc' \
  \$(PKG_CONFIG_PATH='$libdir/pkgconfig' pkg-config --cflags --libs velk2)"
run "consumer (pkg-config)" env LD_LIBRARY_PATH="$libdir" "$dir/consumer-pc" "$store" "$package" '(pkg install)'
cp -r "$package" "$dir/changed"
echo changed >>"$dir/changed/bin/hello"
LD_LIBRARY_PATH="$libdir" "$dir/consumer-pc" "$store" "$dir/changed" '(pkg install)' >"$dir/out.txt" 2>&1 &&
  fail "a changed package verified"
grep -q '^invalid .*/bin/hello$' "$dir/out.txt" || { fail "changed file not reported"; cat "$dir/out.txt"; }

run "packages" cpack --config "$build_dir/CPackConfig.cmake" -B "$dir/debs"
lib_deb=$(ls "$dir"/debs/libvelk2_*.deb 2>/dev/null | head -n 1)
tool_deb=$(ls "$dir"/debs/velk2_*.deb 2>/dev/null | head -n 1)
[ -n "$lib_deb" ] && [ -n "$tool_deb" ] || fail "two packages expected"
if [ -n "$lib_deb" ] && [ -n "$tool_deb" ]; then
  dpkg-deb -f "$tool_deb" Depends | grep -q 'libvelk2 (= ' || fail "velk2 does not depend on libvelk2"
  dpkg-deb -f "$lib_deb" Depends | grep -q 'libssl3' || fail "libvelk2's dependencies were not computed"
  root=$dir/root
  dpkg -x "$lib_deb" "$root" && dpkg -x "$tool_deb" "$root" || fail "dpkg -x"
  run "velk2 --version from the packages" env LD_LIBRARY_PATH="$root/usr/lib" "$root/usr/bin/velk2" --version
  grep -q '^velk2 [0-9]' "$dir/out.txt" || fail "version"
  [ -s "$root/usr/share/man/man1/velk2.1.gz" ] || fail "no manual page"
  zcat "$root/usr/share/man/man1/velk2.1.gz" | grep -q '^\.B velk2 manifest sign$' || fail "manual page lacks a command"
  [ -s "$root/usr/share/bash-completion/completions/velk2" ] || fail "no completion"
  [ -L "$root/usr/lib/libvelk2.so.1" ] || fail "no SONAME link"
  if command -v lintian >/dev/null 2>&1; then
    run "lintian" lintian --fail-on error "$lib_deb" "$tool_deb"
  fi
fi

echo "consumer test: $failures failures"
[ "$failures" -eq 0 ]
