#!/usr/bin/env bash
# Whole process against whole process on one package tree, paired in the same
# run (the order rotating from round to round), page cache warm:
#   velk2 verify (one thread; a signed manifest, store and ACL as a device has)
#   openssl dgst -sha256 over the same files (through xargs)
#   sha256sum -c over a checksum list of the same files
# Prints each one's median wall time with its spread (min..max), files/s and
# MB/s, and velk2's peak RSS.
#
#   bash bench/whole/compare_verify.sh VELK2 FILES KIB_PER_FILE [ROUNDS (5)]
#   e.g. ... build-release/tools/velk2/velk2 10000 104857   (1 GiB in 10,000 files)
#        ... build-release/tools/velk2/velk2 100000 4       (100,000 files of 4 KiB)
set -euo pipefail
velk2=${1:?usage: compare_verify.sh VELK2 FILES KIB_PER_FILE [ROUNDS]}
files=${2:?files}
kib=${3:?KiB per file}
rounds=${4:-5}
velk2=$(cd "$(dirname "$velk2")" && pwd)/$(basename "$velk2")
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

# The tree: 100 files a directory; content from one random block, each file
# starting with its own number so that no two are alike.
mkdir -p pkg store/acl
head -c $((kib * 1024)) /dev/urandom >block
python3 - "$files" "$kib" <<'PY'
import os, sys
files, kib = int(sys.argv[1]), int(sys.argv[2])
block = open("block", "rb").read()
for i in range(files):
    d = f"pkg/d{i // 100:04d}"
    if i % 100 == 0:
        os.makedirs(d, exist_ok=True)
    with open(f"{d}/f{i:06d}", "wb") as f:
        f.write(f"{i:012d}".encode() + block[12:])
PY
"$velk2" key new --type rsa --out root >/dev/null
"$velk2" key new --type rsa --out signer >/dev/null
"$velk2" acl add --subject root.pub --tag '(pkg)' --propagate --out store/acl/root.acl >/dev/null
"$velk2" cert issue --issuer root.pem --subject signer.pub --tag '(pkg install)' --out chain.cert >/dev/null
"$velk2" manifest sign pkg --key signer.pem --chain chain.cert --tag '(pkg install)' --out manifest >/dev/null
(cd pkg && find . -type f -print0 | sort -z | xargs -0 sha256sum) >sums
find pkg -type f -print0 | sort -z >list
cat list | xargs -0 cat >/dev/null  # warm the page cache

run_velk2() {
  "$velk2" verify pkg --store store --tag '(pkg install)' --manifest manifest --no-progress >/dev/null
}
run_openssl() { xargs -0 openssl dgst -sha256 <list >/dev/null; }
run_sha256sum() { (cd pkg && sha256sum -c --quiet ../sums); }
run_velk2  # fails loudly when the package does not verify
rss=$( { /usr/bin/time -f %M "$velk2" verify pkg --store store --tag '(pkg install)' \
  --manifest manifest --no-progress >/dev/null; } 2>&1 | tail -n 1)

tools=(velk2 openssl sha256sum)
declare -A times
for ((r = 0; r < rounds; r++)); do
  for ((k = 0; k < 3; k++)); do
    who=${tools[$(((r + k) % 3))]}
    start=$(date +%s%N)
    "run_$who"
    times[$who]+="$(($(date +%s%N) - start)) "
  done
done

python3 - "$files" "$kib" "$rss" "${times[velk2]}" "${times[openssl]}" "${times[sha256sum]}" <<'PY'
import statistics, sys
files, kib, rss = int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])
total = files * kib * 1024
print(f"{files} files of {kib} KiB ({total / 2**20:.0f} MiB), page cache warm")
medians = {}
for name, text in zip(["velk2 verify", "openssl dgst -sha256", "sha256sum -c"], sys.argv[4:7]):
    ns = sorted(int(t) for t in text.split())
    m = statistics.median(ns)
    medians[name] = m
    print(f"{name:22s} median {m / 1e6:9.1f} ms  (min {ns[0] / 1e6:.1f} .. max {ns[-1] / 1e6:.1f})"
          f"  {files / (m / 1e9):9.0f} files/s  {total / (m / 1e9) / 1e6:7.0f} MB/s  over {len(ns)} runs")
v = medians["velk2 verify"]
print(f"velk2 / openssl: {v / medians['openssl dgst -sha256']:.2f}   "
      f"sha256sum / velk2: {medians['sha256sum -c'] / v:.2f}   velk2 peak RSS {rss / 1024:.1f} MiB")
PY
