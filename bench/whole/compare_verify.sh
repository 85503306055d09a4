#!/usr/bin/env bash
# Whole process against whole process on one package tree, paired in the same
# run (the order rotating from round to round), page cache warm:
#   velk2 verify --jobs 1 and --jobs 2 (a signed manifest, store and ACL as a
#     device has them)
#   openssl dgst -sha256 over the same files (through xargs)
#   sha256sum -c over a checksum list of the same files
#   hashdeep -a -j 2 against a list of known hashes, and mtree -f against a
#     sha256 specification, when they are installed (Debian hashdeep,
#     mtree-netbsd)
# Prints each one's median wall time with its spread (min..max), files/s and
# MB/s, and velk2's peak RSS; then, where the page cache can be dropped, one
# cold-cache run of each.
#
#   bash bench/whole/compare_verify.sh VELK2 FILES KIB_PER_FILE [ROUNDS (5)]
#   e.g. ... build-release/tools/velk2/velk2 10000 105   (1 GiB in 10,000 files)
#        ... build-release/tools/velk2/velk2 100000 4       (100,000 files of 4 KiB)
set -euo pipefail
velk2=${1:?usage: compare_verify.sh VELK2 FILES KIB_PER_FILE [ROUNDS]}
files=${2:?files}
kib=${3:?KiB per file}
rounds=${4:-5}
velk2=$(cd "$(dirname "$velk2")" && pwd)/$(basename "$velk2")
here=$(cd "$(dirname "$0")" && pwd)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

source "$here/authority.sh"
bash "$here/make_tree.sh" "$files" "$kib"
authority "$velk2"
"$velk2" manifest sign pkg --key signer.pem --chain chain.cert --tag '(pkg install)' --out manifest >/dev/null
(cd pkg && find . -type f -print0 | sort -z | xargs -0 sha256sum) >sums
find pkg -type f -print0 | sort -z >list
tools=(velk2_1 velk2_2 openssl sha256sum)
if command -v hashdeep >/dev/null; then
  (cd pkg && hashdeep -c sha256 -r -l . >../known)
  tools+=(hashdeep)
fi
if command -v mtree >/dev/null; then
  mtree -c -K sha256digest -p pkg >spec
  tools+=(mtree)
fi
cat list | xargs -0 cat >/dev/null  # warm the page cache

verify() {
  "$velk2" verify pkg --store store --tag '(pkg install)' --manifest manifest --no-progress "$@" >/dev/null
}
run_velk2_1() { verify --jobs 1; }
run_velk2_2() { verify --jobs 2; }
run_openssl() { xargs -0 openssl dgst -sha256 <list >/dev/null; }
run_sha256sum() { (cd pkg && sha256sum -c --quiet ../sums); }
run_hashdeep() { (cd pkg && hashdeep -c sha256 -j 2 -a -k ../known -r -l . >/dev/null); }
run_mtree() { mtree -f spec -p pkg >/dev/null; }
for who in "${tools[@]}"; do "run_$who" || { echo "compare_verify: $who failed" >&2; exit 1; }; done
rss=$( { /usr/bin/time -f %M "$velk2" verify pkg --store store --tag '(pkg install)' \
  --manifest manifest --no-progress --jobs 2 >/dev/null; } 2>&1 | tail -n 1)

declare -A times cold
n=${#tools[@]}
for ((r = 0; r < rounds; r++)); do
  for ((k = 0; k < n; k++)); do
    who=${tools[$(((r + k) % n))]}
    start=$(date +%s%N)
    "run_$who"
    times[$who]+="$(($(date +%s%N) - start)) "
  done
done
# Cold cache, once each, where the page cache can be dropped (not in every container).
if sync && echo 3 2>/dev/null >/proc/sys/vm/drop_caches; then
  for who in "${tools[@]}"; do
    sync && echo 3 >/proc/sys/vm/drop_caches
    start=$(date +%s%N)
    "run_$who"
    cold[$who]=$(($(date +%s%N) - start))
  done
fi

args=()
for who in "${tools[@]}"; do args+=("$who" "${times[$who]}" "${cold[$who]:-}"); done
python3 - "$files" "$kib" "$rss" "${args[@]}" <<'PY'
import statistics, sys
files, kib, rss = int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])
names = {"velk2_1": "velk2 verify --jobs 1", "velk2_2": "velk2 verify --jobs 2",
         "openssl": "openssl dgst -sha256", "sha256sum": "sha256sum -c",
         "hashdeep": "hashdeep -a -j 2", "mtree": "mtree -f"}
total = files * kib * 1024
print(f"{files} files of {kib} KiB ({total / 2**20:.0f} MiB); medians with page cache warm")
medians, colds = {}, {}
rest = sys.argv[4:]
for i in range(0, len(rest), 3):
    who, text, cold = rest[i], rest[i + 1], rest[i + 2]
    ns = sorted(int(t) for t in text.split())
    m = statistics.median(ns)
    medians[who] = m
    line = (f"{names[who]:22s} median {m / 1e6:9.1f} ms  (min {ns[0] / 1e6:.1f} .. max {ns[-1] / 1e6:.1f})"
            f"  {files / (m / 1e9):9.0f} files/s  {total / (m / 1e9) / 1e9:5.2f} GB/s  over {len(ns)} runs")
    if cold:
        line += f"; cold cache {int(cold) / 1e6:.1f} ms"
    print(line)
if not any(rest[i + 2] for i in range(0, len(rest), 3)):
    print("cold cache: the page cache cannot be dropped here; warm figures only")
one, two = medians["velk2_1"], medians["velk2_2"]
print(f"--jobs 2 against --jobs 1: {one / two:.2f} times faster; against openssl: "
      f"{medians['openssl'] / two:.2f}; sha256sum -c / velk2 --jobs 2: {medians['sha256sum'] / two:.2f}"
      + (f"; hashdeep / velk2 --jobs 2: {medians['hashdeep'] / two:.2f}" if "hashdeep" in medians else "")
      + (f"; mtree / velk2 --jobs 2: {medians['mtree'] / two:.2f}" if "mtree" in medians else ""))
print(f"velk2 --jobs 1 / openssl: {one / medians['openssl']:.2f}; sha256sum -c / velk2 --jobs 1: "
      f"{medians['sha256sum'] / one:.2f}; velk2 peak RSS (--jobs 2) {rss / 1024:.1f} MiB")
PY
