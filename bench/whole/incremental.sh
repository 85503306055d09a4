#!/usr/bin/env bash
# What `velk2 verify --incremental` costs once the cache holds a package:
#   1. FILES small files (default 20,000 of 4 KiB), page cache warm: the best
#      of ROUNDS runs of `verify --incremental` against the best of ROUNDS
#      runs of a bare `find` that looks at every file's size and times, the
#      least any check of the package's metadata does;
#   2. BIG_FILES files holding BIG_MIB MiB in all (default 1 GiB in 10,000
#      files), page cache dropped before every run when this user may drop it
#      (else the figures are warm, and say so): `verify --incremental`
#      against a full `verify` that reads every byte.
# Every incremental run follows a warm-up run that wrote the cache, and the
# files are older than the cache's racy margin, so each run trusts them all;
# the script checks that it does. JOBS is verify's --jobs; without it verify
# runs as a user runs it, one thread per core.
#
#   bash bench/whole/incremental.sh VELK2 [FILES (20000)] [BIG_FILES (10000)] [BIG_MIB (1024)] [ROUNDS (3)] [JOBS]
#   e.g. bash bench/whole/incremental.sh build-cache-rel/tools/velk2/velk2
set -euo pipefail
usage="usage: incremental.sh VELK2 [FILES] [BIG_FILES] [BIG_MIB] [ROUNDS] [JOBS]"
velk2=${1:?$usage}
files=${2:-20000}
big_files=${3:-10000}
big_mib=${4:-1024}
rounds=${5:-3}
jobs=${6:-}
velk2=$(cd "$(dirname "$velk2")" && pwd)/$(basename "$velk2")
here=$(cd "$(dirname "$0")" && pwd)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

source "$here/authority.sh"
authority "$velk2"

# A tree in ./NAME, signed: FILES files of KIB KiB (make_tree.sh writes ./pkg).
make_package() {  # name files kib
  mkdir -p "$1.d"
  (cd "$1.d" && bash "$here/make_tree.sh" "$2" "$3")
  mv "$1.d/pkg" "$1"
  rmdir "$1.d"
  "$velk2" manifest sign "$1" --key signer.pem --chain chain.cert --tag '(pkg install)' \
    --out "$1.manifest" >/dev/null
}

# Wall time of a command in ms.
millis() {
  local start end
  start=$(date +%s%N)
  "$@" >/dev/null
  end=$(date +%s%N)
  echo $(((end - start) / 1000000))
}
verify() {  # package, extra options...
  local package=$1
  shift
  "$velk2" verify "$package" --manifest "$package.manifest" --store store --tag '(pkg install)' \
    --allow-older --no-progress ${jobs:+--jobs "$jobs"} "$@"
}
trusted() {  # package: how many files the cache vouched for
  verify "$1" --incremental --json | python3 -c 'import json,sys; print(json.load(sys.stdin)["cache"]["trusted"])'
}
best() { sort -n | head -n 1; }
# Whether the page cache can be dropped here (root, and a /proc/sys that
# takes writes): tried once.
droppable=no
if sync && (echo 3 >/proc/sys/vm/drop_caches) 2>/dev/null; then droppable=yes; fi
can_drop() { [ "$droppable" = yes ]; }
drop() { if can_drop; then sync && echo 3 >/proc/sys/vm/drop_caches; fi; }
find_files() { find "$1" -printf '%s %T@ %C@\n'; }

make_package small "$files" 4
make_package big "$big_files" $(((big_mib * 1024 + big_files - 1) / big_files))
# Older than the racy margin (two seconds), so the warm-up run records them.
sleep 3
verify small --incremental >/dev/null
verify big --incremental >/dev/null
for package in small big; do
  listed=$(find "$package" -type f | wc -l)
  got=$(trusted "$package")
  [ "$got" = "$listed" ] || { echo "$package: $got of $listed files trusted" >&2; exit 1; }
done

find small -type f -print0 | xargs -0 cat >/dev/null
: >inc.times
: >find.times
for ((i = 0; i < rounds; i++)); do
  millis verify small --incremental >>inc.times
  millis find_files small >>find.times
done
inc=$(best <inc.times)
fnd=$(best <find.times)

: >cold-inc.times
: >cold-full.times
for ((i = 0; i < rounds; i++)); do
  drop
  millis verify big --incremental >>cold-inc.times
  drop
  millis verify big >>cold-full.times
done
cold_inc=$(best <cold-inc.times)
cold_full=$(best <cold-full.times)
state=$(can_drop && echo "cold (page cache dropped before each run)" ||
  echo "WARM: this user cannot drop the page cache")

python3 - "$files" "$inc" "$fnd" "$big_files" "$big_mib" "$cold_inc" "$cold_full" "$state" \
  "$rounds" "${jobs:-one per core, $(nproc)}" <<'PY'
import sys
files, inc, fnd, big_files, big_mib, cold_inc, cold_full, state, rounds, jobs = sys.argv[1:]
inc, fnd, cold_inc, cold_full = (max(int(x), 1) for x in (inc, fnd, cold_inc, cold_full))
print(f"{files} files of 4 KiB, warm, best of {rounds}, threads: {jobs}:")
print(f"  verify --incremental {inc} ms, find -printf {fnd} ms: {inc / fnd:.2f} x find")
print(f"{big_files} files, {big_mib} MiB, {state}, best of {rounds}, threads: {jobs}:")
print(f"  verify --incremental {cold_inc} ms, full verify {cold_full} ms: "
      f"{cold_full / cold_inc:.1f} x faster")
PY
