#!/usr/bin/env bash
# The Debian packages as a packager and a user meet them. Makes them with
# scripts/make-packages, then checks each: its files (tests/package/expected),
# its control data (dependencies, shlibs, the ldconfig trigger and no
# maintainer scripts) and the hardening of the programs it carries. All of
# them unpacked side by side into a scratch root: a C program built against
# them with pkg-config (the root as sysroot) and with CMake's find_package
# (the root as find root) verifies the bundled example package, and so does
# the tool run from there. lintian, when installed, reports no error and no
# warning. Last, the same checks run on copies of the packages broken on
# purpose, one fault each, and must find that fault.
#   tests/package/package_test.sh [BUILD_DIR]       (default build-pkg)
set -u
cd "$(dirname "$0")/../.."
source_dir=$PWD
build_dir=${1:-build-pkg}
expected_dir=$source_dir/tests/package/expected
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

version=$(sed -nE 's/^project\(velk2 VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
store=$source_dir/examples/authority
example=$source_dir/examples/package/hello-1.0
tag='(pkg install)'

bash scripts/make-packages "$build_dir" >"$work/make.log" 2>&1 || {
  cat "$work/make.log"
  echo "package test: scripts/make-packages failed"
  exit 1
}
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build_dir/CMakeCache.txt" | tr 'A-Z' 'a-z')
mkdir "$work/debs"
cp $(grep '\.deb$' "$work/make.log") "$work/debs/"

# check_packages DIR LINTIAN(yes|no): every check on the packages in DIR; one
# "FAIL: what" line per failed check, then "checks: N".
check_packages() {
  local debs=$1 lintian=$2 scratch
  scratch=$(mktemp -d "$work/check.XXXX")
  local checks=0
  fail() { echo "FAIL: $*"; }
  check() { checks=$((checks + 1)); }
  deb() { ls "$debs/$1_"*.deb 2>/dev/null | head -n 1; }
  field() { dpkg-deb -f "$(deb "$1")" "$2"; }

  # The packages made are those listed in tests/package/expected, no more.
  check
  local made wanted
  made=$(ls "$debs" | sed -E 's/_.*//' | sort)
  wanted=$(ls "$expected_dir" | sed 's/\.contents$//' | sort)
  [ "$made" = "$wanted" ] || fail "packages made: $(echo $made), expected: $(echo $wanted)"

  # What each package holds, and that no file is in two of them.
  local package
  for package in $wanted; do
    check
    [ -n "$(deb "$package")" ] || { fail "no package $package"; continue; }
    [ "$(field "$package" Version)" = "$version" ] || fail "$package: version $(field "$package" Version)"
    dpkg-deb -c "$(deb "$package")" |
      awk '$1 !~ /^d/ { $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +\.\//, ""); print }' | sort >"$scratch/$package.has"
    sed -e "s/@MULTIARCH@/$multiarch/g" -e "s/@VERSION@/$version/g" -e "s/@BUILD_TYPE@/$build_type/g" \
      "$expected_dir/$package.contents" | sort >"$scratch/$package.wants"
    diff "$scratch/$package.wants" "$scratch/$package.has" >"$scratch/diff" ||
      { fail "contents of $package (< expected, > packaged):"; cat "$scratch/diff"; }
  done
  check
  cat "$scratch"/*.has | sed 's/ -> .*//' | sort | uniq -d >"$scratch/shared"
  [ ! -s "$scratch/shared" ] || fail "files in two packages: $(cat "$scratch/shared")"
  check
  [ "$(for p in $wanted; do field "$p" Description | head -n 1; done | sort -u | wc -l)" -eq \
    "$(echo $wanted | wc -w)" ] || fail "packages share a synopsis"

  # The library package: named after the SONAME, dependencies computed, an
  # shlibs file for the programs linked against it, ldconfig by trigger only.
  local lib=libvelk2-1 libfile=usr/lib/$multiarch/libvelk2.so.$version
  mkdir -p "$scratch/control"
  dpkg-deb -e "$(deb $lib)" "$scratch/control" 2>/dev/null
  check
  local scripts
  scripts=$(cd "$scratch/control" && ls | grep -vxE 'control|md5sums|shlibs|triggers')
  [ -z "$scripts" ] || fail "$lib has maintainer scripts: $(echo $scripts)"
  check
  [ "$(cat "$scratch/control/triggers" 2>/dev/null)" = "activate-noawait ldconfig" ] ||
    fail "$lib: no ldconfig trigger"
  check
  [ "$(cat "$scratch/control/shlibs" 2>/dev/null)" = "libvelk2 1 $lib (>= $version)" ] ||
    fail "$lib: shlibs is '$(cat "$scratch/control/shlibs" 2>/dev/null)'"
  check
  field $lib Depends | grep -q 'libc6 (>= .*libssl3 (>= ' || fail "$lib: dependencies not computed: $(field $lib Depends)"
  check
  [ "$(field $lib Section)" = libs ] || fail "$lib: section $(field $lib Section)"
  check
  [ "$(field libvelk2-dev Section)" = libdevel ] || fail "libvelk2-dev: section $(field libvelk2-dev Section)"
  check
  field libvelk2-dev Depends | grep -qF "$lib (= $version)" ||
    fail "libvelk2-dev does not depend on $lib (= $version): $(field libvelk2-dev Depends)"
  check
  field velk2 Depends | grep -q 'libc6 (>= ' || fail "velk2: dependencies not computed: $(field velk2 Depends)"

  # All of them side by side in one root, as dpkg would install them.
  local root=$scratch/root
  for package in $wanted; do dpkg -x "$(deb "$package")" "$root" || fail "dpkg -x $package"; done
  check
  local soname
  soname=$(readelf -d "$root/$libfile" 2>/dev/null | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
  [ "$soname" = libvelk2.so.1 ] || fail "$libfile: SONAME '$soname'"

  # Hardening: stack protector, fortified functions, relro, bind now, PIE.
  local binary
  for binary in usr/bin/velk2 "$libfile"; do
    check
    [ -f "$root/$binary" ] || { fail "hardening of $binary: not packaged"; continue; }
    local dynamic symbols
    dynamic=$(readelf -dlW "$root/$binary")
    symbols=$(readelf --dyn-syms -W "$root/$binary")
    grep -q GNU_RELRO <<<"$dynamic" || fail "hardening of $binary: no relro"
    grep -qE 'BIND_NOW|Flags: NOW' <<<"$dynamic" || fail "hardening of $binary: no bind now"
    grep -q '__stack_chk_fail' <<<"$symbols" || fail "hardening of $binary: no stack protector"
    grep -qE '__[a-z]+_chk\b' <<<"$(grep -v __stack_chk_fail <<<"$symbols")" ||
      fail "hardening of $binary: no fortified function"
  done
  check
  readelf -d "$root/usr/bin/velk2" 2>/dev/null | grep -q 'Flags:.*PIE' || fail "hardening of usr/bin/velk2: not PIE"

  # The verifications below each use a copy of the store: verify records
  # the newest manifest it verified in the store.
  local changed=$scratch/changed
  cp -r "$example" "$changed"
  echo changed >>"$changed/bin/hello"
  run_consumer() {  # how it was built, program
    local how=$1 program=$2 out=$scratch/out
    check
    rm -rf "$scratch/store" && cp -r "$store" "$scratch/store"
    LD_LIBRARY_PATH=$root/usr/lib/$multiarch "$program" "$scratch/store" "$example" "$tag" >"$out" 2>&1 ||
      { fail "consumer ($how) on the example"; cat "$out"; }
    grep -q '^result 0: Success; [1-9][0-9]* valid, 0 not$' "$out" || { fail "consumer ($how): result"; cat "$out"; }
    check
    LD_LIBRARY_PATH=$root/usr/lib/$multiarch ldd "$program" | grep -qF "libvelk2.so.1 => $root/usr/lib/$multiarch/" ||
      fail "consumer ($how) does not use the unpacked library"
    check
    LD_LIBRARY_PATH=$root/usr/lib/$multiarch "$program" "$scratch/store" "$changed" "$tag" >"$out" 2>&1 &&
      fail "consumer ($how): a changed package verified"
    grep -q '^invalid .*/bin/hello$' "$out" || { fail "consumer ($how): changed file not reported"; cat "$out"; }
  }

  # pkg-config, the root as sysroot (as when cross-compiling): the paths in
  # velk2.pc are prefixed with the root exactly once.
  check
  local pc_flags
  pc_flags=$(PKG_CONFIG_SYSROOT_DIR=$root PKG_CONFIG_LIBDIR=$root/usr/lib/$multiarch/pkgconfig \
    pkg-config --cflags --libs velk2 2>&1)
  [ "$(echo $pc_flags)" = "-I$root/usr/include -L$root/usr/lib/$multiarch -lvelk2" ] ||
    fail "pkg-config --cflags --libs velk2 in the root: $pc_flags"
  check
  if cc "$source_dir/tests/package/consumer/consumer.c" -o "$scratch/consumer-pc" $pc_flags >"$scratch/out" 2>&1; then
    run_consumer pkg-config "$scratch/consumer-pc"
  else
    fail "build with pkg-config"; cat "$scratch/out"
  fi

  # CMake's find_package, the root as find root.
  check
  if cmake -S "$source_dir/tests/package/consumer" -B "$scratch/consumer" -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_FIND_ROOT_PATH="$root" -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=ONLY >"$scratch/out" 2>&1 &&
    cmake --build "$scratch/consumer" >>"$scratch/out" 2>&1; then
    grep -qxF "velk2_DIR:PATH=$root/usr/lib/$multiarch/cmake/velk2" "$scratch/consumer/CMakeCache.txt" ||
      fail "find_package found $(grep '^velk2_DIR' "$scratch/consumer/CMakeCache.txt")"
    run_consumer find_package "$scratch/consumer/consumer"
  else
    fail "build with find_package"; cat "$scratch/out"
  fi

  # The tool from the root: its version, its verdict on the example and on a
  # changed copy, its manual page and its completion.
  local tool=$root/usr/bin/velk2
  check
  "$tool" --version 2>&1 | head -n 1 | grep -qE "^velk2 $version( |$)" ||
    fail "velk2 --version: $("$tool" --version 2>&1 | head -n 1)"
  check
  rm -rf "$scratch/store" && cp -r "$store" "$scratch/store"
  "$tool" verify "$example" --store "$scratch/store" --tag "$tag" --no-progress >"$scratch/out" 2>&1 ||
    { fail "velk2 verify on the example"; cat "$scratch/out"; }
  check
  local status=0
  "$tool" verify "$changed" --store "$scratch/store" --tag "$tag" --no-progress >"$scratch/out" 2>&1 || status=$?
  [ "$status" -eq 1 ] || { fail "velk2 verify on a changed package: exit $status, expected 1"; cat "$scratch/out"; }
  check
  gzip -dc "$root/usr/share/man/man1/velk2.1.gz" 2>/dev/null | grep -q '^\.TH VELK2 1 ' || fail "no manual page"
  check
  bash -c "source '$root/usr/share/bash-completion/completions/velk2' && complete -p velk2" >/dev/null 2>&1 ||
    fail "no bash completion for velk2"

  # The Python binding from the root, over the library unpacked beside it:
  # its verdict on the example and on the changed copy.
  local dist=$root/usr/lib/python3/dist-packages
  check
  rm -rf "$scratch/store" && cp -r "$store" "$scratch/store"
  PYTHONPATH=$dist VELK2_LIBRARY=$root/usr/lib/$multiarch/libvelk2.so.1 PYTHONDONTWRITEBYTECODE=1 \
    python3 -c 'import sys, velk2
dist, example, store, tag, changed = sys.argv[1:]
assert velk2.__file__.startswith(dist + "/"), velk2.__file__
good = velk2.verify_package(example, store=store, tag=tag)
bad = velk2.verify_package(changed, store=store, tag=tag)
assert good.ok and good.valid and not bad.ok and bad.changed == ["bin/hello"], (good, bad)
print(velk2.version())' "$dist" "$example" "$scratch/store" "$tag" "$changed" >"$scratch/out" 2>&1 ||
    { fail "python3-velk2 on the example"; cat "$scratch/out"; }
  check
  [ "$(field python3-velk2 Architecture)" = all ] ||
    fail "python3-velk2: architecture $(field python3-velk2 Architecture)"
  field python3-velk2 Depends | grep -qF "$lib (= $version)" ||
    fail "python3-velk2 does not depend on $lib (= $version): $(field python3-velk2 Depends)"

  # lintian: no error and no warning.
  if [ "$lintian" = yes ] && command -v lintian >/dev/null 2>&1; then
    check
    lintian --fail-on error,warning "$debs"/*.deb >"$scratch/lintian" 2>&1 ||
      { fail "lintian"; grep -v 'running with root privileges' "$scratch/lintian"; }
  fi
  echo "checks: $checks"
  rm -rf "$scratch"
}

failures=0
checks=0
outcome() {  # description, then the command's status as $?
  local status=$? what=$1
  checks=$((checks + 1))
  if [ "$status" -eq 0 ]; then echo "ok: $what"; else echo "FAIL: $what"; failures=$((failures + 1)); fi
}

echo "== the build for the packages"
! ninja -C "$build_dir" -t targets all | grep -E '^(tests|bench|fuzz)/'
outcome "builds no test, benchmark or fuzz target"
cmake -S . -B "$work/plain" -G Ninja -DVELK2_TESTS=OFF -DVELK2_BENCH=OFF >/dev/null 2>&1 &&
  ! (cd "$work/plain" && cpack --config CPackConfig.cmake >"$work/out" 2>&1) &&
  grep -q 'not configured for Debian packages' "$work/out"
outcome "cpack refuses a build not configured for packages"
! cmake -S . -B "$work/local" -G Ninja -DVELK2_TESTS=OFF -DVELK2_BENCH=OFF -DVELK2_DEBIAN_PACKAGES=ON \
  -DCMAKE_INSTALL_PREFIX=/usr/local >"$work/out" 2>&1 && grep -q 'needs -DCMAKE_INSTALL_PREFIX=/usr' "$work/out"
outcome "a package build under /usr/local is refused"
rm -rf "$work/plain" "$work/local"

echo "== the packages: $(ls "$work/debs" | tr '\n' ' ')"
check_packages "$work/debs" yes >"$work/good.log" 2>&1
cat "$work/good.log"
failures=$((failures + $(grep -c '^FAIL' "$work/good.log")))
checks=$((checks + $(sed -n 's/^checks: //p' "$work/good.log")))

# broken NAME PACKAGE EXPECTED LINTIAN CHANGE...: the packages again, with
# PACKAGE rebuilt after the shell command CHANGE ran in its unpacked tree;
# the checks must fail with a line matching EXPECTED.
broken() {
  local name=$1 package=$2 expected=$3 lintian=$4 dir=$work/broken
  shift 4
  rm -rf "$dir" && mkdir -p "$dir/debs"
  cp "$work/debs"/*.deb "$dir/debs/"
  local deb
  deb=$(ls "$dir/debs/${package}_"*.deb)
  dpkg-deb -R "$deb" "$dir/tree"
  (cd "$dir/tree" && eval "$*" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' |
    xargs -0r md5sum >DEBIAN/md5sums) || { echo "FAIL: could not break $package ($name)"; return 1; }
  dpkg-deb --root-owner-group -b "$dir/tree" "$deb" >/dev/null
  checks=$((checks + 1))
  check_packages "$dir/debs" "$lintian" >"$dir/log" 2>&1
  if grep -qE "^FAIL: ($expected)" "$dir/log"; then
    echo "ok: $name is refused: $(grep -m 1 -E "^FAIL: ($expected)" "$dir/log")"
  else
    echo "FAIL: $name is not refused (expected: $expected)"
    cat "$dir/log"
    failures=$((failures + 1))
  fi
}

echo "== the same checks on packages broken on purpose"
libdir=usr/lib/$multiarch
broken "a pkg-config prefix relative to the file's directory" libvelk2-dev 'pkg-config --cflags' no \
  "sed -i 's|^prefix=.*|prefix=\${pcfiledir}/../../..|' $libdir/pkgconfig/velk2.pc"
broken "a pkg-config file with another prefix" libvelk2-dev 'pkg-config --cflags' no \
  "sed -i 's|^prefix=.*|prefix=/usr/local|' $libdir/pkgconfig/velk2.pc"
broken "the library outside the multiarch directory" libvelk2-1 "contents of libvelk2-1" no \
  "mv $libdir/libvelk2.so* usr/lib/ && rmdir $libdir"
broken "a development package without the header" libvelk2-dev "contents of libvelk2-dev" no \
  "rm usr/include/velk2.h"
broken "a CMake package in the wrong directory" libvelk2-dev "contents of libvelk2-dev" no \
  "mkdir -p usr/share/velk2 && mv $libdir/cmake usr/share/velk2/"
broken "a tool package without the manual page" velk2 "contents of velk2" no \
  "rm usr/share/man/man1/velk2.1.gz"
broken "the header in two packages" velk2 "files in two packages" no \
  "mkdir -p usr/include && printf '/* */\n' >usr/include/velk2.h"
broken "a postinst that runs ldconfig" libvelk2-1 "libvelk2-1 has maintainer scripts" no \
  "printf '#!/bin/sh\nset -e\nif [ \"\$1\" = configure ]; then ldconfig; fi\n' >DEBIAN/postinst && chmod 755 DEBIAN/postinst"
broken "no ldconfig trigger" libvelk2-1 "libvelk2-1: no ldconfig trigger" no "rm DEBIAN/triggers"
broken "shlibs naming another package" libvelk2-1 "libvelk2-1: shlibs" no \
  "sed -i 's/libvelk2-1/libvelk2/' DEBIAN/shlibs"
broken "a development package for any library version" libvelk2-dev "libvelk2-dev does not depend" no \
  "sed -i 's/^Depends: .*/Depends: libvelk2-1/' DEBIAN/control"
broken "a tool built without hardening" velk2 "hardening of usr/bin/velk2" no \
  "printf 'int main(void) { return 0; }\n' | cc -x c - -o usr/bin/velk2 -no-pie -fno-stack-protector -Wl,-z,norelro -Wl,-z,lazy"
broken "a library with another SONAME" libvelk2-1 "$libdir/libvelk2.so.$version: SONAME|consumer" no \
  "printf 'int Velk2VersionNumber(void) { return 0; }\n' | cc -x c - -shared -fPIC -Wl,-soname,libvelk2.so.2 -o $libdir/libvelk2.so.$version"
broken "a tool that fails to verify" velk2 "velk2 verify on the example" no \
  "printf '#!/bin/sh\necho velk2 $version\nexit 3\n' >usr/bin/velk2"
broken "a Python package missing a module" python3-velk2 "python3-velk2 on the example" no \
  "rm usr/lib/python3/dist-packages/velk2/_api.py"
if command -v lintian >/dev/null 2>&1; then
  broken "a package lintian warns about (a maintainer script calling ldconfig)" libvelk2-1 lintian yes \
    "printf '#!/bin/sh\nset -e\nldconfig\n' >DEBIAN/postinst && chmod 755 DEBIAN/postinst"
else
  echo "(lintian is not installed: the packages were not linted)"
fi

echo "package test: $checks checks, $failures failures"
[ "$failures" -eq 0 ]
