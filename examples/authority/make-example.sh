#!/usr/bin/env bash
# Regenerates the bundled example with fresh keys: a device whose ACL trusts
# the "root" key for everything under (pkg), root delegating installs and
# updates to a vendor, and the vendor granting one build key the right to
# install; and a package, examples/package/hello-1.0, whose manifest the build
# key signed. The private keys are made in a temporary directory and thrown
# away.
set -euo pipefail
velk2=${1:?usage: make-example.sh PATH/TO/velk2}
here=$(cd "$(dirname "$0")" && pwd)
package=$here/../package/hello-1.0
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
  --out chain.cert --prepend >/dev/null
# The signer's chain for manifests: its own certificate first.
"$velk2" cert issue --issuer vendor.pem --subject build.pub --tag '(pkg install)' --owner vendor \
  --out signer.cert >/dev/null
"$velk2" cert issue --issuer root.pem --subject vendor.pub --tag '(pkg (* set install update))' \
  --propagate --not-before 2026-01-01_00:00:00 --not-after 2036-01-01_00:00:00 --owner root \
  --out signer.cert >/dev/null
rm -rf "$here/acl"
cp -r acl chain.cert signer.cert root.pub vendor.pub build.pub "$here"/
rm -rf "$package"
mkdir -p "$package/bin" "$package/share/doc/hello" "$package/share/locale/de"
printf '#!/bin/sh\necho "Hello, world!"\n' > "$package/bin/hello"
chmod 755 "$package/bin/hello"
printf 'hello 1.0: prints a greeting.\n' > "$package/share/doc/hello/README"
printf 'Copyright: public domain.\n' > "$package/share/doc/hello/copyright"
printf 'msgid "Hello, world!"\nmsgstr "Hallo, Welt!"\n' > "$package/share/locale/de/hello.po"
"$velk2" manifest sign "$package" --key build.pem --chain signer.cert --tag '(pkg install)' \
  --out "$package/manifest"
