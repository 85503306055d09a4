#!/usr/bin/env bash
# `velk2 verify --incremental`: the store's cache of verified files, what it
# lets a later verification leave unread, every change that makes it read a
# file again, a cache that is damaged or that others may write, --no-cache,
# and verifications at once.
source "$(dirname "$0")/cli_common.sh" "$1"

mkdir -p store/acl pkg/bin pkg/lib pkg/share
check "root key" 0 "$velk2" key new --type rsa --out root
check "signer key" 0 "$velk2" key new --type rsa --out signer
check "acl" 0 "$velk2" acl add --subject root.pub --tag '(pkg)' --propagate --out store/acl/root.acl
check "chain" 0 "$velk2" cert issue --issuer root.pem --subject signer.pub --tag '(pkg install)' --out chain.cert
printf '#!/bin/sh\necho app\n' > pkg/bin/app
chmod 755 pkg/bin/app
echo library > pkg/lib/libfoo.so.1
ln -s libfoo.so.1 pkg/lib/libfoo.so
echo doc > pkg/share/README
check "sign" 0 "$velk2" manifest sign pkg --key signer.pem --chain chain.cert \
  --tag '(pkg install)' --out pkg/manifest
verify() {  # expected exit, extra options...
  local want=$1
  shift
  check "verify $*" "$want" "$velk2" verify pkg --store store --tag '(pkg install)' "$@"
}

# Without --incremental there is no cache.
verify 0 --json
json "no cache" 'j["cache"]["incremental"] == False and j["cache"]["trusted"] == 0'
[ ! -e store/cache ] || fail "a verification without --incremental made a cache"

# The first run reads everything and makes the cache, for its owner only.
verify 0 --incremental --json
json "first run" 'j["cache"]["trusted"] == 0 and j["cache"]["written"] and j["cache"]["problem"] is None'
[ "$(stat -c %a store/cache)" = 700 ] || fail "the cache directory is not 0700"
cache=$(ls store/cache/*.cache)
[ "$(stat -c %a "$cache")" = 600 ] || fail "the cache file is not 0600"
# Files changed within two seconds of a run are read again (a change within
# the same timestamp would go unseen): once they are older, a run records
# them, and the next one trusts every regular file, never the link.
sleep 2.1
verify 0 --incremental
verify 0 --incremental --explain
has "explain" out.txt '^cache: 3 files trusted unread, 3 directory listings trusted \(.*store/cache\)$'
verify 0 --incremental --json
json "all trusted" 'j["cache"]["trusted"] == 3 and j["cache"]["listings_trusted"] == 3 and not j["cache"]["written"] and j["counts"]["changed"] == 0'

# The same size rewritten, its modification time put back: the change time moved.
touch -r pkg/share/README times
echo DOC > pkg/share/README
touch -r times pkg/share/README
verify 1 --incremental
has "rewrite caught" out.txt '^changed share/README: content$'
echo doc > pkg/share/README
verify 0 --incremental --json
json "rewrite read again" 'j["cache"]["trusted"] == 2'
# A mode, a link's target, a file swapped for another inode.
chmod 700 pkg/bin/app
verify 1 --incremental
has "mode caught" out.txt '^changed bin/app: mode 0755 -> 0700$'
chmod 755 pkg/bin/app
ln -sfn /elsewhere/libfoo.so.1 pkg/lib/libfoo.so
verify 1 --incremental
has "link caught" out.txt '^changed lib/libfoo\.so: link target libfoo\.so\.1 -> /elsewhere/libfoo\.so\.1$'
ln -sfn libfoo.so.1 pkg/lib/libfoo.so
echo LIBRARY > swapped
touch -r pkg/lib/libfoo.so.1 swapped
mv swapped pkg/lib/libfoo.so.1
verify 1 --incremental --json
json "inode caught" '[e["path"] for e in j["entries"] if e["status"] == "changed" and not e["directory"]] == ["lib/libfoo.so.1"] and j["cache"]["trusted"] == 0'
echo library > pkg/lib/libfoo.so.1

# A cache edited by hand is not trusted at all, and is made again.
sleep 2.1
verify 0 --incremental
verify 0 --incremental --json
json "trusted again" 'j["cache"]["trusted"] == 3'
printf 'X' | dd of="$cache" bs=1 seek=100 conv=notrunc 2>/dev/null
verify 0 --incremental --json
json "edited cache ignored" 'j["cache"]["trusted"] == 0 and "damaged" in j["cache"]["problem"] and j["cache"]["written"]'
verify 0 --incremental --json
json "rebuilt" 'j["cache"]["trusted"] == 3 and j["cache"]["problem"] is None'
head -c 50 "$cache" > cut && cat cut > "$cache"
verify 0 --incremental --json
json "truncated cache ignored" 'j["cache"]["trusted"] == 0 and "damaged" in j["cache"]["problem"]'

# A directory others may write is refused, read or written.
chmod 777 store/cache
verify 0 --incremental --json
json "refused" 'j["cache"]["trusted"] == 0 and "refused" in j["cache"]["problem"] and not j["cache"]["written"]'
chmod 700 store/cache

# A writer that died before its rename left a temporary file: the cache
# beside it is used, and the next write takes it away.
echo junk > "$cache.tmp-abcdef"
verify 0 --incremental --json
json "leftover passed over" 'j["cache"]["trusted"] == 3'
verify 0 --incremental --no-cache --json
json "forgotten, written anew" 'j["cache"]["trusted"] == 0 and j["cache"]["forgotten"] and j["cache"]["written"]'
[ ! -e "$cache.tmp-abcdef" ] || fail "the leftover temporary file stayed"
verify 0 --incremental --no-cache --explain
has "explain forgotten" out.txt '^cache: 0 files trusted unread, 0 directory listings trusted \(.*\); written; forgotten first$'
verify 0 --no-cache
[ ! -e "$cache" ] || fail "--no-cache kept the package's cache"

# Verifications at once: each right, the cache whole afterwards.
verify 0 --incremental
for round in 1 2 3; do
  pids=()
  for i in 1 2 3; do
    timeout 60 "$velk2" verify pkg --store store --tag '(pkg install)' --incremental \
      $([ "$i" = 3 ] && echo --no-cache) >"at-once-$round-$i.txt" 2>&1 &
    pids+=($!)
  done
  for pid in "${pids[@]}"; do wait "$pid" || fail "a verification at once failed (round $round)"; done
done
grep -h '^valid' at-once-*.txt | sort -u > at-once-counts.txt
[ "$(wc -l < at-once-counts.txt)" = 1 ] || { fail "verifications at once disagree"; cat at-once-counts.txt; }
verify 0 --incremental --json
json "cache after" 'j["cache"]["problem"] is None and j["cache"]["trusted"] == 3'
if ls store/cache | grep -q '\.tmp-'; then fail "a temporary file was left"; fi

echo "cli incremental test: $failures failures"
[ "$failures" -eq 0 ]
