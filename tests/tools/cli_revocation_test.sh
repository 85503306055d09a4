#!/usr/bin/env bash
# Revocation lists and certificate chains through the velk2 tool: lists are
# issued, shown, verified and imported into a store, and chains are verified
# against it, with the reasons --explain and --json give.
source "$(dirname "$0")/cli_common.sh" "$1"

mkdir -p store/acl incoming
check "root key" 0 "$velk2" key new --type rsa --out root
check "dev key" 0 "$velk2" key new --type rsa --out dev
check "other key" 0 "$velk2" key new --type dsa --out other
check "acl grant" 0 "$velk2" acl add --subject root.pub --tag '(pkg install)' --propagate --out store/acl/root.acl
check "acl lists" 0 "$velk2" acl add --subject root.pub --tag '(revoke pkg)' --out store/acl/revoke.acl
check "chain" 0 "$velk2" cert issue --issuer root.pem --subject dev.pub --tag '(pkg install)' --propagate \
  --revocation-scope '(revoke pkg)' --not-before 2026-01-01_00:00:00 --not-after 2030-01-01_00:00:00 \
  --owner 'dev team' --out chain.cert
verify() {  # expected exit, extra options...
  local want=$1
  shift
  check "verify $*" "$want" "$velk2" cert verify chain.cert --store store --tag '(pkg install)' \
    --not-before 2026-06-01_00:00:00 --not-after 2026-06-01_00:00:00 "$@"
}

check "cert show" 0 "$velk2" cert show chain.cert
has "show block" out.txt '^certificate 1$'
has "show owner" out.txt '^  owner: dev team$'
has "show period" out.txt '^  period: 2026-01-01_00:00:00 to 2030-01-01_00:00:00$'
has "show scope" out.txt '^  revocation: .*\(revoke pkg\)'
has "show hash" out.txt '^  hash: sha256:[0-9a-f]{64}$'

# No list yet: a certificate that names a scope cannot be cleared.
verify 1 --explain
has "no list" out.txt '^result: 73 '
has "no list why" out.txt 'no verified revocation list speaks for it \(it asks for a list of \(revoke pkg\)\)'

check "issue empty list" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' \
  --not-before 2026-01-01_00:00:00 --not-after 2030-01-01_00:00:00 --out incoming/a.crl
check "show list" 0 "$velk2" crl show incoming/a.crl
has "list scope" out.txt '^scope: \(revoke pkg\)$'
has "list none revoked" out.txt '^revoked certificates: 0$'
check "verify list" 0 "$velk2" crl verify incoming/a.crl --store store --tag '(revoke   pkg)'
has "verified" out.txt '^verified: yes$'
check "list of another scope" 1 "$velk2" crl verify incoming/a.crl --store store --tag '(revoke x)'
check "import" 0 "$velk2" crl import incoming --store store
has "imported" out.txt '^imported incoming/a.crl -> store/cert/\(revoke pkg\).crl$'
verify 0
has "authorized" out.txt '^authorized: yes$'

# Revoke the certificate from March: before the period it counts, after its
# start it does not.
check "issue revoking list" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' \
  --revoke-cert 'chain.cert#1' --revoked-at 2026-03-01_00:00:00 \
  --not-before 2026-02-01_00:00:00 --not-after 2031-01-01_00:00:00 --out incoming/a.crl
check "show revoked" 0 "$velk2" crl show incoming/a.crl
has "revoked item" out.txt '^  certificate sha256:[0-9a-f]{64} revoked 2026-03-01_00:00:00$'
check "import newer" 0 "$velk2" crl import incoming --store store
verify 1 --explain
has "revoked" out.txt '^result: 66 '
has "revoked why" out.txt 'certificate 1 of chain.cert \(owner dev team\): revoked by store/cert/\(revoke pkg\).crl on 2026-03-01_00:00:00'
verify 1 --json
json "json stage" 'j["stage"] == "revocation" and j["revoked_on"] == "2026-03-01_00:00:00" and j["result"] == 66'
check "before the revocation" 0 "$velk2" cert verify chain.cert --store store --tag '(pkg install)' \
  --not-before 2026-02-01_00:00:00 --not-after 2026-06-01_00:00:00

# A list issued earlier never replaces the stored one, however long it lasts
# (a replayed list must not clear a revoked certificate again); one issued
# later but ending sooner is kept out too; a list from a stranger is refused.
cp store/cert/'(revoke pkg).crl' kept.crl
check "issue older" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' \
  --not-before 2026-01-01_00:00:00 --not-after 2040-01-01_00:00:00 --out incoming/a.crl
check "refuse older" 1 "$velk2" crl import incoming --store store
has "refused older" out.txt '^refused incoming/a.crl: older than the stored list store/cert/\(revoke pkg\).crl \(issued 2026-01-01_00:00:00, the stored list 2026-02-01_00:00:00\)$'
check "issue same time" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' \
  --not-before 2026-02-01_00:00:00 --not-after 2040-01-01_00:00:00 --out incoming/a.crl
check "refuse same time" 1 "$velk2" crl import incoming --store store
has "refused same time" out.txt '^refused incoming/a.crl: issued at the same time as the stored list'
cp kept.crl incoming/a.crl
check "same list" 0 "$velk2" crl import incoming --store store
has "same list kept" out.txt '^kept store/cert/\(revoke pkg\).crl: it is the same list as incoming/a.crl$'
check "issue shorter" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' \
  --not-before 2026-03-01_00:00:00 --not-after 2027-01-01_00:00:00 --out incoming/a.crl
check "keep longer" 1 "$velk2" crl import incoming --store store
has "kept" out.txt '^refused incoming/a.crl: it ends 2027-01-01_00:00:00, and the stored list store/cert/\(revoke pkg\).crl ends 2031-01-01_00:00:00: a list replaces the stored one only when it lasts at least as long$'
check "issue by stranger" 0 "$velk2" crl issue --issuer other.pem --tag '(revoke pkg)' \
  --not-before 2026-04-01_00:00:00 --not-after 2040-01-01_00:00:00 --out incoming/a.crl
check "refuse stranger" 1 "$velk2" crl import incoming --store store
has "refused" out.txt '^refused incoming/a.crl: it does not verify against the ACL: 54 '
check "verify stranger" 1 "$velk2" crl verify incoming/a.crl --store store
cmp -s kept.crl store/cert/'(revoke pkg).crl' || fail "the stored list changed"

# The subject key revoked: the certificate is revoked whatever the date.
rm incoming/a.crl
check "issue key list" 0 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' --revoke-key dev.pub \
  --revoked-at 2027-01-01_00:00:00 --not-before 2026-04-01_00:00:00 --not-after 2032-01-01_00:00:00 \
  --out incoming/b.crl
check "import key list" 0 "$velk2" crl import incoming --store store
verify 1 --explain
has "key revoked" out.txt 'its subject key is revoked by store/cert/\(revoke pkg\).crl on 2027-01-01_00:00:00'

# Refusals: bad #N, missing files, bad dates, unreadable lists, no store.
check "no #N" 2 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' --revoke-cert chain.cert \
  --not-before 2026-01-01_00:00:00 --not-after 2027-01-01_00:00:00 --out x.crl
check "#0" 2 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' --revoke-cert 'chain.cert#0' \
  --not-before 2026-01-01_00:00:00 --not-after 2027-01-01_00:00:00 --out x.crl
check "#2 of 1" 2 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' --revoke-cert 'chain.cert#2' \
  --not-before 2026-01-01_00:00:00 --not-after 2027-01-01_00:00:00 --out x.crl
has "#2 message" err.txt 'holds 1 certificates, not 2'
check "missing key" 2 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' --revoke-key none.pub \
  --not-before 2026-01-01_00:00:00 --not-after 2027-01-01_00:00:00 --out x.crl
check "dates reversed" 2 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' \
  --not-before 2028-01-01_00:00:00 --not-after 2027-01-01_00:00:00 --out x.crl
check "no period" 2 "$velk2" crl issue --issuer root.pem --tag '(revoke pkg)' --out x.crl
[ ! -e x.crl ] || fail "a refused issue wrote x.crl"
printf '(8:sequence(3:crl(5:list1)(5:list2))' > bad.crl
check "show unversioned" 2 "$velk2" crl show bad.crl
check "verify unreadable" 2 "$velk2" crl verify bad.crl --store store
check "show missing" 2 "$velk2" crl show none.crl
check "cert show missing" 2 "$velk2" cert show none.cert
check "no store" 2 "$velk2" cert verify chain.cert --store nowhere --tag '(pkg install)'
mkdir empty
check "import nothing" 2 "$velk2" crl import empty --store store
check "empty store" 2 "$velk2" cert verify chain.cert --store empty --tag '(pkg install)'

# Hostile texts in a file are printed escaped, never as terminal controls.
check "hostile owner" 0 "$velk2" cert issue --issuer root.pem --subject dev.pub --tag '(pkg install)' \
  --owner "$(printf 'x\033[2J\n')" --out hostile.cert
check "show hostile" 0 "$velk2" cert show hostile.cert
if grep -q $'\033' out.txt; then fail "an escape byte reached the output"; fi
has "escaped owner" out.txt 'owner: x\\x1b\[2J'

echo "cli revocation test: $failures failures"
[ "$failures" -eq 0 ]
