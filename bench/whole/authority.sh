# Sourced by the whole-command benchmarks: `authority VELK2` makes, in the
# current directory, a root key that store/acl trusts for (pkg) and a signer
# key (signer.pem) that chain.cert lets install packages.
authority() {
  local velk2=$1
  mkdir -p store/acl
  "$velk2" key new --type rsa --out root >/dev/null
  "$velk2" key new --type rsa --out signer >/dev/null
  "$velk2" acl add --subject root.pub --tag '(pkg)' --propagate --out store/acl/root.acl >/dev/null
  "$velk2" cert issue --issuer root.pem --subject signer.pub --tag '(pkg install)' \
    --out chain.cert >/dev/null
}
