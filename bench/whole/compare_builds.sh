#!/usr/bin/env bash
# Two builds of velk2 against each other, whole process against whole
# process, on one package tree: each signs its own manifest of the tree, then
# `velk2 verify` of each runs in pairs, the order alternating from round to
# round, page cache warm. Prints each build's median wall time with its
# spread (min..max) and the ratio of the medians.
#
#   bash bench/whole/compare_builds.sh OLD_VELK2 NEW_VELK2 FILES KIB_PER_FILE [ROUNDS (9)] [JOBS (1)]
#   e.g. ... /tmp/old/build/tools/velk2/velk2 build-release/tools/velk2/velk2 20000 4
#        ... /tmp/old/build/tools/velk2/velk2 build-release/tools/velk2/velk2 10000 105   (1 GiB in 10,000 files)
set -euo pipefail
usage="usage: compare_builds.sh OLD_VELK2 NEW_VELK2 FILES KIB_PER_FILE [ROUNDS] [JOBS]"
old=${1:?$usage}
new=${2:?$usage}
files=${3:?$usage}
kib=${4:?$usage}
rounds=${5:-9}
jobs=${6:-1}
old=$(cd "$(dirname "$old")" && pwd)/$(basename "$old")
new=$(cd "$(dirname "$new")" && pwd)/$(basename "$new")
here=$(cd "$(dirname "$0")" && pwd)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

source "$here/authority.sh"
bash "$here/make_tree.sh" "$files" "$kib"
authority "$new"
for build in old new; do
  "${!build}" manifest sign pkg --key signer.pem --chain chain.cert --tag '(pkg install)' \
    --out "$build.manifest" >/dev/null
done
find pkg -type f -print0 | xargs -0 cat >/dev/null  # warm the page cache

run() {  # BUILD: one verification, its wall time in ms on stdout
  local start end
  start=$(date +%s%N)
  "${!1}" verify pkg --manifest "$1.manifest" --store store --tag '(pkg install)' \
    --allow-older --no-progress --jobs "$jobs" >/dev/null
  end=$(date +%s%N)
  echo $(((end - start) / 1000000))
}
: >old.times
: >new.times
for ((i = 0; i < rounds; i++)); do
  if ((i % 2 == 0)); then order="old new"; else order="new old"; fi
  for build in $order; do run "$build" >>"$build.times"; done
done
python3 - "$files" "$kib" "$jobs" <<'PY'
import statistics, sys
files, kib, jobs = sys.argv[1:]
medians = {}
for build in ("old", "new"):
    times = [int(line) for line in open(f"{build}.times")]
    medians[build] = statistics.median(times)
    print(f"{build}: median {medians[build]:.0f} ms ({min(times)}..{max(times)}), "
          f"{files} files of {kib} KiB, --jobs {jobs}")
print(f"new/old: {medians['new'] / medians['old']:.3f}")
PY
