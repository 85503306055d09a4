#!/usr/bin/env bash
# What keeps revoked signers and old packages out of `velk2 verify`: the
# store's revocation lists and those shipped with a manifest, the reasons the
# tool gives when revocation shortened the chain, rollback protection, and
# imports that run at the same time.
source "$(dirname "$0")/cli_common.sh" "$1"

mkdir -p store/acl bare/acl incoming pkg/bin
for k in root vendor build; do check "$k key" 0 "$velk2" key new --type rsa --out $k; done
for s in store bare; do
  check "acl $s" 0 "$velk2" acl add --subject root.pub --tag '(pkg)' --propagate --out $s/acl/root.acl
  check "acl lists $s" 0 "$velk2" acl add --subject root.pub --tag '(revoke pkg)' --out $s/acl/revoke.acl
done
# The build key's certificate is good only while a list of (revoke pkg) clears it.
check "signer cert" 0 "$velk2" cert issue --issuer vendor.pem --subject build.pub --tag '(pkg install)' \
  --revocation-scope '(revoke pkg)' --owner vendor --out signer.cert
check "vendor cert" 0 "$velk2" cert issue --issuer root.pem --subject vendor.pub \
  --tag '(pkg (* set install update))' --propagate --owner root --out signer.cert
echo hi >pkg/bin/hi
verify() {  # expected exit, store, extra options...
  local want=$1 store=$2
  shift 2
  check "verify --store $store $*" "$want" "$velk2" verify pkg --store "$store" --tag '(pkg install)' "$@"
}
blames_nothing_else() {  # description: revocation, never the order, period or tag, is blamed
  if grep -qiE 'order|period or tag' out.txt err.txt; then fail "$1: blames something else"; cat out.txt err.txt; fi
}

# No list anywhere: the scoped certificate cannot be cleared.
check "sign bare" 0 "$velk2" manifest sign pkg --key build.pem --chain signer.cert --tag '(pkg install)' \
  --out pkg/manifest --store store
has "no list to ship" err.txt 'warning: certificate 1 asks for a revocation list of \(revoke pkg\) and none is stored'
verify 1 store
has "no list" out.txt '^manifest: not verified \(result 36\): certificate 2 of pkg/manifest was left out of the chain: no verified revocation list speaks for it \(it asks for a list of \(revoke pkg\)\)$'
blames_nothing_else "no list"

# A current list in the store clears it.
check "clearing list" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' \
  --not-before 2026-01-01_00:00:00 --not-after 2036-01-01_00:00:00 --out incoming/a.crl
check "import" 0 "$velk2" crl import incoming --store store
verify 0 store --explain
has "lists counted" out.txt '^revocation lists: 1 from the store, 0 from the manifest$'

# Shipped with the manifest (taken from the store, or named), it clears the
# certificate on a device whose store holds none.
check "sign with the store's lists" 0 "$velk2" manifest sign pkg --key build.pem --chain signer.cert \
  --tag '(pkg install)' --out pkg/manifest --store store --name hello
has "shipped" out.txt 'pkg/manifest: 2 entries, 1 revocation lists'
check "show" 0 "$velk2" manifest show pkg/manifest
has "show name" out.txt '^package name: hello$'
has "show list" out.txt '^  scope \(revoke pkg\), 2026-01-01_00:00:00 to 2036-01-01_00:00:00'
verify 0 bare --json
json "embedded counted" 'j["revocation_lists"] == {"store": 0, "embedded": 1} and j["manifest_verified"]'
check "sign with --crl" 0 "$velk2" manifest sign pkg --key build.pem --chain signer.cert \
  --tag '(pkg install)' --out pkg/manifest --crl incoming/a.crl --name hello
verify 0 bare
# An ACL file that does not load is named on every verification, not passed over in silence.
echo garbage >bare/acl/a-broken.acl
verify 0 bare --explain
has "skipped named" err.txt '^velk2 verify: skipped bare/acl/a-broken.acl: 6 VELK2_ERR_INVALID_DATA$'
has "skipped counted" out.txt '^ACL: 2 entries from .*bare/acl \(1 file\(s\) skipped\)$'
verify 0 bare --json
json "skipped listed" '[s["file"] for s in j["signer"]["skipped_files"]] == ["bare/acl/a-broken.acl"]'
rm bare/acl/a-broken.acl
check "sign with a bad --crl" 2 "$velk2" manifest sign pkg --key build.pem --chain signer.cert \
  --tag '(pkg install)' --out pkg/manifest --crl signer.cert --name hello
has "bad crl" err.txt 'cannot read the revocation list signer.cert'

# The store learns that the certificate was revoked before the package was
# signed: the stale list shipped with the package cannot outvote it.
check "revoking list" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' \
  --revoke-cert 'signer.cert#1' --revoked-at 2026-01-01_00:00:00 \
  --not-before 2026-02-01_00:00:00 --not-after 2036-01-01_00:00:00 --out incoming/a.crl
check "import revoking" 0 "$velk2" crl import incoming --store store
verify 1 store --explain
has "revoked" out.txt '^manifest: not verified \(result 36\): certificate 2 of pkg/manifest was left out of the chain: revoked by store/cert/\(revoke pkg\)\.crl on 2026-01-01_00:00:00$'
has "explained" out.txt '^  - certificate 2 of pkg/manifest: revoked by store/cert/\(revoke pkg\)\.crl on 2026-01-01_00:00:00$'
blames_nothing_else "revoked"
verify 1 store --json
json "json revoked" 'j["result"] == 36 and "revoked by" in j["message"] and j["signer"]["left_out_by_revocation"][0]["state"] == "revoked" and j["signer"]["left_out_by_revocation"][0]["revoked_on"] == "2026-01-01_00:00:00"'
blames_nothing_else "json revoked"

# The build key itself revoked: every package it signs fails, whatever time
# of signing it claims.
check "key list" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' --revoke-key build.pub \
  --revoked-at 2030-01-01_00:00:00 --not-before 2026-03-01_00:00:00 --not-after 2036-01-01_00:00:00 \
  --out incoming/a.crl
check "import key list" 0 "$velk2" crl import incoming --store store
check "sign early" 0 "$velk2" manifest sign pkg --key build.pem --chain signer.cert --tag '(pkg install)' \
  --out pkg/manifest --crl incoming/a.crl --time-of-signing 2026-03-02_00:00:00
verify 1 store --allow-older
has "key revoked" out.txt 'its subject key is revoked by store/cert/\(revoke pkg\)\.crl on 2030-01-01_00:00:00$'
blames_nothing_else "key revoked"
# Revoking a certificate that names no scope reaches nothing: the tool says so.
check "unscoped revocation" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' \
  --revoke-cert 'signer.cert#2' --not-before 2026-03-01_00:00:00 --not-after 2036-01-01_00:00:00 \
  --out unscoped.crl
has "unscoped warning" err.txt 'signer.cert#2 carries no revocation scope.*--revoke-key'

# Rollback protection: the newest manifest verified for a package sets the
# floor; older ones are refused unless --allow-older; the future is refused.
mkdir -p roll/acl
check "roll acl" 0 "$velk2" acl add --subject root.pub --tag '(pkg)' --propagate --out roll/acl/root.acl
check "plain chain" 0 "$velk2" cert issue --issuer root.pem --subject build.pub --tag '(pkg install)' --out plain.cert
sign_at() {  # out, date
  check "sign at $2" 0 "$velk2" manifest sign pkg --key build.pem --chain plain.cert --tag '(pkg install)' \
    --out "$1" --name hello --time-of-signing "$2"
}
# Version 1 of the package, then version 2; version 1's files and manifest
# put back are refused.
echo 'hi v1' >pkg/bin/hi
sign_at v1.manifest 2026-05-01_00:00:00
cp -r pkg pkg-v1
echo hi >pkg/bin/hi
sign_at v2.manifest 2026-06-01_00:00:00
sign_at v3.manifest 2026-07-01_00:00:00
verify 0 roll --manifest v2.manifest
check "version 1 put back" 1 "$velk2" verify pkg-v1 --store roll --tag '(pkg install)' --manifest v1.manifest
if grep -q '^valid' out.txt; then fail "a refused manifest's entries were reported"; fi
has "rollback" out.txt '^manifest: refused: rollback: its time of signing 2026-05-01_00:00:00 is older than 2026-06-01_00:00:00, the newest verified for package hello \(--allow-older accepts it\)$'
verify 1 roll --manifest v1.manifest --json
json "json rollback" 'j["rollback"]["refused"] == "older" and j["rollback"]["recorded"] == "2026-06-01_00:00:00" and not j["manifest_verified"] and "entries" not in j'
check "older allowed" 0 "$velk2" verify pkg-v1 --store roll --tag '(pkg install)' --manifest v1.manifest \
  --allow-older --explain
has "older allowed" out.txt '^rollback: package hello, the newest time of signing verified before: 2026-06-01_00:00:00$'
check "sign ahead" 0 "$velk2" manifest sign pkg --key build.pem --chain plain.cert --tag '(pkg install)' \
  --out ahead.manifest --time-of-signing "$(date -u -d '+1 hour' +%Y-%m-%d_%H:%M:%S)"
verify 1 roll --manifest ahead.manifest
has "future" out.txt '^manifest: refused: its time of signing .* lies ahead of the clock'
for record in roll/rollback/*; do printf 'garbage' >"$record"; done
verify 2 roll --manifest v2.manifest
has "bad record" err.txt 'the rollback record .* cannot be read'
rm roll/rollback/*

# A store that cannot be written is checked, not written: as root, whom
# permissions do not bind, this runs as nobody.
verify 0 roll --manifest v2.manifest
chmod 755 "$dir"
cp "$velk2" reader-velk2  # where nobody may run it, whatever the build directory allows
chmod -R a+rX,a-w roll v1.manifest v3.manifest reader-velk2  # pkg keeps its signed modes
record=$(cat roll/rollback/*)
reader=()
[ "$(id -u)" -ne 0 ] || reader=(setpriv --reuid=65534 --regid=65534 --clear-groups)
check "read-only refuses older" 1 "${reader[@]}" ./reader-velk2 verify pkg --store roll --tag '(pkg install)' --manifest v1.manifest
check "read-only verifies newer" 0 "${reader[@]}" ./reader-velk2 verify pkg --store roll --tag '(pkg install)' \
  --manifest v3.manifest --explain
has "read-only said" out.txt 'the store is read-only: not recorded'
[ ! -s err.txt ] || fail "a read-only store is no error: $(cat err.txt)"
[ "$(cat roll/rollback/*)" = "$record" ] || fail "a read-only store was written"
chmod -R u+w roll pkg

# Two imports at once, as separate processes, in either order, always end
# with the newest list.
mkdir -p old new
check "old list" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' \
  --not-before 2026-04-01_00:00:00 --not-after 2036-06-01_00:00:00 --out old/a.crl
check "new list" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' --revoke-key vendor.pub \
  --not-before 2026-05-01_00:00:00 --not-after 2036-06-01_00:00:00 --out new/a.crl
for round in 1 2 3 4 5 6 7 8; do
  rm -f store/cert/'(revoke pkg).crl'
  if [ $((round % 2)) -eq 0 ]; then first=old second=new; else first=new second=old; fi
  "$velk2" crl import $first --store store >/dev/null 2>&1 &
  "$velk2" crl import $second --store store >/dev/null 2>&1 &
  wait
  cmp -s new/a.crl store/cert/'(revoke pkg).crl' || fail "round $round did not end with the newest list"
done

echo "cli package trust test: $failures failures"
[ "$failures" -eq 0 ]
