#!/usr/bin/env bash
# Regenerates this example with fresh keys: a device whose ACL trusts the
# "root" key for everything under (pkg), root delegating installs and updates
# to a vendor, and the vendor granting one build key the right to install.
# The private keys are made in a temporary directory and thrown away.
set -euo pipefail
velk2=${1:?usage: make-example.sh PATH/TO/velk2}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
for name in root vendor build; do "$velk2" key new --type rsa --out "$name" >/dev/null; done
mkdir acl
"$velk2" acl add --subject root.pub --tag '(pkg)' --propagate --comment "device owner" --out acl/root.acl
"$velk2" cert issue --issuer root.pem --subject vendor.pub --tag '(pkg (* set install update))' \
  --propagate --not-before 2026-01-01_00:00:00 --not-after 2036-01-01_00:00:00 --owner root \
  --out chain.cert >/dev/null
"$velk2" cert issue --issuer vendor.pem --subject build.pub --tag '(pkg install)' --owner vendor \
  --out chain.cert >/dev/null
rm -rf "$here/acl"
cp -r acl chain.cert root.pub vendor.pub build.pub "$here"/
