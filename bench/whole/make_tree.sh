#!/usr/bin/env bash
# Writes the benchmark's package tree into ./pkg: FILES files of KIB KiB, 100
# a directory, content from one random block, each file starting with its
# own number so that no two are alike.
#
#   bash bench/whole/make_tree.sh FILES KIB_PER_FILE
set -euo pipefail
files=${1:?usage: make_tree.sh FILES KIB_PER_FILE}
kib=${2:?usage: make_tree.sh FILES KIB_PER_FILE}
mkdir -p pkg
head -c $((kib * 1024)) /dev/urandom >block
python3 - "$files" <<'PY'
import os, sys
files = int(sys.argv[1])
block = open("block", "rb").read()
for i in range(files):
    d = f"pkg/d{i // 100:04d}"
    if i % 100 == 0:
        os.makedirs(d, exist_ok=True)
    with open(f"{d}/f{i:06d}", "wb") as f:
        f.write(f"{i:012d}".encode() + block[12:])
PY
rm block
