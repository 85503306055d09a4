#!/usr/bin/env bash
# A FIFO named where velk2 reads a file must fail at once with exit 2, never
# wait for a writer: every command runs under a timeout that would catch a hang.
source "$(dirname "$0")/cli_common.sh" "$1"

"$velk2" key new --type rsa --out root >/dev/null || exit 1
"$velk2" key new --type rsa --out dev >/dev/null || exit 1
mkdir acl
"$velk2" acl add --subject root.pub --tag '(pkg)' --propagate --out acl/a.acl >/dev/null || exit 1
"$velk2" cert issue --issuer root.pem --subject dev.pub --tag '(pkg install)' --out chain.cert \
  >/dev/null || exit 1
mkfifo x.cert x.pub x.pem acl/b.acl

check "show" 2 "$velk2" show x.cert
check "key show pub" 2 "$velk2" key show x.pub
check "key show pem" 2 "$velk2" key show x.pem
# hash: the FIFO fails, the files around it are still hashed as sha256sum does.
printf 'abc' > abc.txt
check "hash" 2 "$velk2" hash abc.txt x.pub chain.cert
[ "$(cat out.txt)" = "$(sha256sum abc.txt chain.cert)" ] ||
  { echo "FAIL: hash differs from sha256sum"; cat out.txt; failures=$((failures + 1)); }
grep -q 'cannot read x.pub: not a regular file (7 ' err.txt || { echo "FAIL: hash names x.pub"; cat err.txt; failures=$((failures + 1)); }
check "authorize --certs" 2 "$velk2" authorize --acl-dir acl --certs x.cert --key dev.pub \
  --tag '(pkg install)'
check "authorize --key" 2 "$velk2" authorize --acl-dir acl --certs chain.cert --key x.pub \
  --tag '(pkg install)'
check "cert issue --out" 2 "$velk2" cert issue --issuer root.pem --subject dev.pub \
  --tag '(pkg install)' --out x.cert
check "cert issue --issuer" 2 "$velk2" cert issue --issuer x.pem --subject dev.pub \
  --tag '(pkg install)' --out new.cert
[ -p x.cert ] || { echo "FAIL: x.cert replaced"; failures=$((failures + 1)); }
# A FIFO among the ACL files is skipped like any unreadable file; being the last
# file, it fails the directory as a bad last file does.
check "acl list (refused as a whole)" 1 "$velk2" acl list acl
grep -q 'b.acl' out.txt err.txt || { echo "FAIL: acl list does not name b.acl"; failures=$((failures + 1)); }
check "authorize, FIFO last" 2 "$velk2" authorize --acl-dir acl --certs chain.cert --key dev.pub \
  --tag '(pkg install)'
mv acl/b.acl acl/0.acl
check "authorize, FIFO first" 0 "$velk2" authorize --acl-dir acl --certs chain.cert --key dev.pub \
  --tag '(pkg install)'

[ "$failures" -eq 0 ] || exit 1
echo "cli fifo: all passed"
