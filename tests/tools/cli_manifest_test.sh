#!/usr/bin/env bash
# Signs packages with `velk2 manifest sign` and checks them with `velk2
# verify`, `manifest show` and `compare`: reports, exit codes and refusals.
source "$(dirname "$0")/cli_common.sh" "$1"

mkdir -p store/acl pkg/bin pkg/share/doc
check "root key" 0 "$velk2" key new --type rsa --out root
check "signer key" 0 "$velk2" key new --type rsa --out signer
check "acl" 0 "$velk2" acl add --subject root.pub --tag '(pkg)' --propagate --out store/acl/root.acl
check "chain" 0 "$velk2" cert issue --issuer root.pem --subject signer.pub --tag '(pkg install)' --out chain.cert
check "other chain" 0 "$velk2" cert issue --issuer root.pem --subject root.pub --tag '(pkg install)' --out root.cert
echo app > pkg/bin/app
echo doc > pkg/share/doc/README
printf 'x\033[2J' > "$(printf 'pkg/bin/esc\033name')"
check "sign" 0 "$velk2" manifest sign pkg --key signer.pem --chain chain.cert --tag '(pkg install)' --out pkg/manifest
has "sign count" out.txt 'pkg/manifest: 6 entries'
verify() {  # expected exit, package, extra options...
  local want=$1 package=$2
  shift 2
  check "verify $package $*" "$want" "$velk2" verify "$package" --store store --tag '(pkg install)' "$@"
}
verify 0 pkg
has "verified" out.txt '^manifest: verified$'
has "counts" out.txt '^valid 3, changed 0, missing 0, extra 0$'
[ ! -s err.txt ] || fail "progress or messages on stderr when it is no terminal: $(cat err.txt)"
verify 0 pkg --progress
[ ! -s err.txt ] || fail "progress on stderr that is no terminal, though asked: $(cat err.txt)"

check "show" 0 "$velk2" manifest show pkg/manifest
has "show time" out.txt '^time of signing: [0-9]{4}-'
has "show entries" out.txt '^entries: 6$'
has "show escaped" out.txt 'esc\\x1bname'
if grep -q $'\033' out.txt; then fail "an escape byte reached the output"; fi

# Changed, missing, extra.
cp -r pkg copy
echo patched > copy/bin/app
rm copy/share/doc/README
echo new > copy/share/doc/NEW
mkdir copy/share/extra-dir
verify 1 copy
has "changed" out.txt '^changed bin/app: size 4 -> 8, content$'
has "missing" out.txt '^missing share/doc/README$'
has "extra" out.txt '^extra share/doc/NEW$'
has "extra dir" out.txt '^extra share/extra-dir/$'
has "summary" out.txt '^valid 1, changed 1, missing 1, extra 2$'
verify 1 copy --json
json "json counts" 'j["manifest_verified"] and j["counts"] == {"valid": 1, "changed": 1, "missing": 1, "extra": 2, "moved": 0, "unreadable": 0}'
verify 2 copy --jobs 0

# Moved files: a missing file found again as an extra one.
cp -r pkg moved
mv moved/share/doc/README moved/share/doc/README.old
verify 1 moved
has "moved" out.txt '^moved share/doc/README -> share/doc/README.old$'
has "moved counts" out.txt '^valid 2, changed 0, missing 1, extra 1 \(moved 1\)$'
verify 1 moved --json
json "json moves" 'len(j["moves"]) == 1 and j["counts"]["moved"] == 1'

# The signer and the manifest itself.
check "wrong tag" 1 "$velk2" verify pkg --store store --tag '(pkg remove)' --explain
has "not authorized" out.txt '^manifest: 31 '
has "explain" out.txt '^question: does the manifest'
check "no store" 2 "$velk2" verify pkg --store nowhere --tag '(pkg install)'
check "both progress" 2 "$velk2" verify pkg --store store --tag '(pkg install)' --progress --no-progress

# compare
check "sign copy" 0 "$velk2" manifest sign copy --key signer.pem --chain chain.cert --tag '(pkg install)' --out copy.manifest
check "compare" 1 "$velk2" compare pkg/manifest copy.manifest
has "compare changed" out.txt '^changed bin/app: size 4 -> 8, content$'
has "compare missing" out.txt '^missing share/doc/README$'
has "compare extra" out.txt '^extra share/doc/NEW$'
check "compare same" 0 "$velk2" compare pkg/manifest pkg/manifest
check "compare unreadable" 2 "$velk2" compare pkg/manifest none.manifest

# Refusals of the signer.
check "foreign chain" 2 "$velk2" manifest sign pkg --key signer.pem --chain root.cert --tag '(pkg install)' --out y.manifest
has "chain message" err.txt "the chain's first certificate must be the signing key's own"
printf '(8:sequence)' > empty.cert
check "empty chain" 2 "$velk2" manifest sign pkg --key signer.pem --chain empty.cert --tag '(pkg install)' --out y.manifest
[ ! -e y.manifest ] || fail "a refused signing wrote its output"

echo "cli manifest test: $failures failures"
[ "$failures" -eq 0 ]
