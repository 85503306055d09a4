#!/usr/bin/env bash
# velk2 authorize against a big ACL, as a whole process: N entry files, each
# granting (pkg) with propagate to its own 2048-bit RSA key (random odd
# moduli: the ACL is read and reduced, only the chain's signatures are
# checked), plus the bundled example's root entry, with the bundled chain.
# Prints the median wall time with its spread and the peak RSS, for
# `authorize` alone and with `--explain`; `acl list` for comparison.
#
#   bash bench/whole/big_acl.sh VELK2 [ENTRIES (20000)] [ROUNDS (5)]
set -euo pipefail
velk2=${1:?usage: big_acl.sh VELK2 [ENTRIES] [ROUNDS]}
entries=${2:-20000}
rounds=${3:-5}
velk2=$(cd "$(dirname "$velk2")" && pwd)/$(basename "$velk2")
example=$(cd "$(dirname "$0")/../../examples/authority" && pwd)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
mkdir "$dir/acl"
cp "$example/acl/root.acl" "$dir/acl/"
python3 - "$dir/acl" "$entries" <<'PY'
import os, sys
out, entries = sys.argv[1], int(sys.argv[2])
for i in range(entries):
    n = bytearray(os.urandom(256))
    n[0] |= 0x80
    n[-1] |= 1
    comment = f"entry {i}".encode()
    body = (b"(5:entry(7:version1:1)(7:subject(10:public-key(3:rsa(1:e3:\x01\x00\x01)(1:n257:\x00"
            + bytes(n) + b"))))(9:propagate)(3:tag(3:pkg))(7:comment"
            + str(len(comment)).encode() + b":" + comment + b"))")
    with open(os.path.join(out, f"k{i:06d}.acl"), "wb") as f:
        f.write(body)
PY
cd "$dir"
authorize=("$velk2" authorize --acl-dir acl --certs "$example/chain.cert" --key "$example/build.pub"
  --tag '(pkg install)')
"${authorize[@]}" >/dev/null  # fails loudly when the key is not authorized

measure() {  # label, command...
  local label=$1; shift
  local times=() rss=0
  for ((r = 0; r < rounds; r++)); do
    local start end peak
    start=$(date +%s%N)
    peak=$( { /usr/bin/time -f %M "$@" >/dev/null; } 2>&1 | tail -n 1)
    end=$(date +%s%N)
    times+=($((end - start)))
    rss=$peak
  done
  python3 - "$label" "$rss" "${times[@]}" <<'PY'
import statistics, sys
label, rss, ns = sys.argv[1], int(sys.argv[2]), sorted(int(t) for t in sys.argv[3:])
print(f"{label:28s} median {statistics.median(ns) / 1e6:8.1f} ms (min {ns[0] / 1e6:.1f} .. "
      f"max {ns[-1] / 1e6:.1f}) over {len(ns)} runs; peak RSS {rss / 1024:.1f} MiB")
PY
}
echo "$((entries + 1)) ACL entry files ($(du -sh --apparent-size acl | cut -f1) of text), page cache warm"
measure "velk2 acl list" "$velk2" acl list acl
measure "velk2 authorize" "${authorize[@]}"
measure "velk2 authorize --explain" "${authorize[@]}" --explain
