#!/usr/bin/env bash
# Whole process against whole process: `velk2 hash FILE` and
# `openssl dgst -sha256 FILE` on one file, paired in the same run (the order
# alternates from round to round), page cache warm. Prints each one's median
# wall time with its spread (min..max), its throughput, and the ratio of the
# medians (above 1: velk2 is faster).
#
#   bash bench/whole/compare_hash.sh build-release/tools/velk2/velk2 [MIB (1024)] [ROUNDS (9)]
set -euo pipefail
velk2=${1:?usage: compare_hash.sh VELK2 [MIB] [ROUNDS]}
mib=${2:-1024}
rounds=${3:-9}
command -v openssl >/dev/null || { echo "compare_hash: openssl is not installed" >&2; exit 2; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
file=$dir/data
head -c $((mib * 1024 * 1024)) /dev/urandom >"$file"

ours=$("$velk2" hash "$file" | cut -d' ' -f1)
theirs=$(openssl dgst -sha256 -r "$file" | cut -d' ' -f1)
[ "$ours" = "$theirs" ] || { echo "compare_hash: digests differ" >&2; exit 1; }
cat "$file" >/dev/null  # warm the page cache

nanos() { date +%s%N; }
run_velk2() { "$velk2" hash "$file" >/dev/null; }
run_openssl() { openssl dgst -sha256 "$file" >/dev/null; }
times_velk2=()
times_openssl=()
for ((r = 0; r < rounds; r++)); do
  for who in $([ $((r % 2)) -eq 0 ] && echo "velk2 openssl" || echo "openssl velk2"); do
    start=$(nanos)
    "run_$who"
    elapsed=$(($(nanos) - start))
    if [ "$who" = velk2 ]; then times_velk2+=("$elapsed"); else times_openssl+=("$elapsed"); fi
  done
done

python3 - "$mib" "${times_velk2[*]}" "${times_openssl[*]}" <<'PY'
import statistics, sys
mib = int(sys.argv[1])
def report(name, text):
    ns = sorted(int(t) for t in text.split())
    median = statistics.median(ns)
    print(f"{name:22s} median {median / 1e6:8.1f} ms  (min {ns[0] / 1e6:.1f} .. max {ns[-1] / 1e6:.1f} ms)"
          f"  {mib * 1048576 / (median / 1e9) / 1e6:7.0f} MB/s  over {len(ns)} runs")
    return median
ours = report("velk2 hash", sys.argv[2])
theirs = report("openssl dgst -sha256", sys.argv[3])
print(f"ratio of medians (openssl / velk2): {theirs / ours:.2f}")
PY
