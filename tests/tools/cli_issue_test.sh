#!/usr/bin/env bash
# Issues keys and certificates with the velk2 tool and checks files, modes and refusals.
source "$(dirname "$0")/cli_common.sh" "$1"

check "rsa key" 0 "$velk2" key new --type rsa --out root
check "dsa key" 0 "$velk2" key new --type dsa --out dev
[ "$(stat -c %a root.pem)" = 600 ] || { echo "FAIL: root.pem mode $(stat -c %a root.pem)"; failures=$((failures + 1)); }
check "no overwrite" 2 "$velk2" key new --type rsa --out root
grep -q "exists" err.txt || { echo "FAIL: overwrite message"; failures=$((failures + 1)); }
check "bad type" 2 "$velk2" key new --type ec --out x
check "small rsa" 2 "$velk2" key new --type rsa --bits 1024 --out x
[ ! -e x.pem ] || { echo "FAIL: x.pem written"; failures=$((failures + 1)); }

check "show pub" 0 "$velk2" key show root.pub
pub_fp=$(grep sha256 out.txt)
grep -qx "type: rsa" out.txt && grep -qx "bits: 2048" out.txt || { echo "FAIL: show"; cat out.txt; failures=$((failures + 1)); }
check "show pem" 0 "$velk2" key show root.pem
[ "$(grep sha256 out.txt)" = "$pub_fp" ] || { echo "FAIL: pem and pub fingerprints differ"; failures=$((failures + 1)); }
check "show dsa" 0 "$velk2" key show dev.pub
grep -qx "bits: 2048" out.txt || { echo "FAIL: dsa bits"; failures=$((failures + 1)); }
printf '(3:foo)' > junk.pub
check "show junk" 2 "$velk2" key show junk.pub
check "show missing" 2 "$velk2" key show missing.pub

check "issue" 0 "$velk2" cert issue --issuer root.pem --subject dev.pub --tag '(pkg (* set install remove))' \
  --propagate --not-before 2026-01-01_00:00:00 --not-after 2027-01-01_00:00:00 --comment dev --out chain.cert
size1=$(stat -c %s chain.cert)
check "issue by hash" 0 "$velk2" cert issue --issuer dev.pem --subject-hash root.pub --tag '(pkg install)' \
  --alg dsa-sha1 --hash sha1 --owner me --out chain.cert --prepend
[ "$(stat -c %s chain.cert)" -gt "$size1" ] || { echo "FAIL: second entry not appended"; failures=$((failures + 1)); }
grep -q "(5:owner2:me)" chain.cert || { echo "FAIL: owner"; failures=$((failures + 1)); }
grep -q "(5:owner4:root)" chain.cert || { echo "FAIL: default owner"; failures=$((failures + 1)); }
for alg in rsa-pss rsa-1.5; do
  for hash in sha1 sha256; do
    check "issue $alg $hash" 0 "$velk2" cert issue --issuer root.pem --subject root.pub --tag '(x)' \
      --alg $alg --hash $hash --out algs.cert
    grep -q "$alg" algs.cert || { echo "FAIL: $alg missing"; failures=$((failures + 1)); }
  done
done
cp chain.cert before.cert
check "dsa with rsa-pss" 2 "$velk2" cert issue --issuer dev.pem --subject root.pub --tag '(x)' --alg rsa-pss --out chain.cert
check "dsa with sha256" 2 "$velk2" cert issue --issuer dev.pem --subject root.pub --tag '(x)' --hash sha256 --out chain.cert
check "bad tag" 2 "$velk2" cert issue --issuer root.pem --subject root.pub --tag '(x' --out chain.cert
check "bad date" 2 "$velk2" cert issue --issuer root.pem --subject root.pub --tag '(x)' --not-before 2026-13-01_00:00:00 --out chain.cert
check "dates reversed" 2 "$velk2" cert issue --issuer root.pem --subject root.pub --tag '(x)' \
  --not-before 2027-01-01_00:00:00 --not-after 2026-01-01_00:00:00 --out chain.cert
check "two subjects" 2 "$velk2" cert issue --issuer root.pem --subject root.pub --subject-hash root.pub --tag '(x)' --out chain.cert
check "no subject" 2 "$velk2" cert issue --issuer root.pem --tag '(x)' --out chain.cert
check "missing issuer" 2 "$velk2" cert issue --issuer none.pem --subject root.pub --tag '(x)' --out chain.cert
check "public key as issuer" 2 "$velk2" cert issue --issuer root.pub --subject root.pub --tag '(x)' --out chain.cert
check "unknown option" 2 "$velk2" cert issue --issuer root.pem --subject root.pub --tag '(x)' --frob --out chain.cert
cmp -s chain.cert before.cert || { echo "FAIL: a refused issue changed the file"; failures=$((failures + 1)); }
printf '(3:foo)' > other.cert
check "not a sequence" 2 "$velk2" cert issue --issuer root.pem --subject root.pub --tag '(x)' --out other.cert
[ "$(cat other.cert)" = "(3:foo)" ] || { echo "FAIL: other.cert changed"; failures=$((failures + 1)); }
[ -z "$(ls | grep tmp-)" ] || { echo "FAIL: temporary files left"; failures=$((failures + 1)); }

echo "cli issue test: $failures failures"
[ "$failures" -eq 0 ]
