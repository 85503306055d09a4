#!/usr/bin/env bash
# Real package trees through `velk2 manifest sign` and `velk2 verify`:
# symlinks, modes, recorded ignore patterns, names that are not UTF-8, the
# package root, the report's words, and mistakes in the question.
source "$(dirname "$0")/cli_common.sh" "$1"

mkdir -p store/acl pkg/bin pkg/lib pkg/share/doc pkg/cache
check "root key" 0 "$velk2" key new --type rsa --out root
check "signer key" 0 "$velk2" key new --type rsa --out signer
check "acl" 0 "$velk2" acl add --subject root.pub --tag '(pkg)' --propagate --out store/acl/root.acl
check "chain" 0 "$velk2" cert issue --issuer root.pem --subject signer.pub --tag '(pkg install)' --out chain.cert
printf '#!/bin/sh\necho hello\n' > pkg/bin/hello
chmod 755 pkg/bin/hello
echo library > pkg/lib/libfoo.so.1
ln -s libfoo.so.1 pkg/lib/libfoo.so
ln -s /nonexistent/target pkg/lib/dangling
ln -s ../share/doc pkg/lib/docs
echo doc > pkg/share/doc/README
echo state > pkg/cache/state
mkfifo pkg/cache/fifo
echo compiled > pkg/lib/mod.pyc
echo first > "$(printf 'pkg/share/lib\377')"
sign() {  # expected exit, extra options...
  local want=$1
  shift
  check "sign $*" "$want" "$velk2" manifest sign pkg --key signer.pem --chain chain.cert \
    --tag '(pkg install)' --out pkg/manifest --name hello "$@"
}
verify() {  # expected exit, extra options...
  local want=$1
  shift
  check "verify $*" "$want" "$velk2" verify pkg --store store --tag '(pkg install)' --allow-older "$@"
}

# A FIFO is refused unless a pattern leaves it out; patterns come from files too.
sign 2
has "fifo named" err.txt 'cache/fifo'
[ ! -e pkg/manifest ] || fail "a refused signing wrote its output"
printf '# generated files\n\n**/*.pyc\n' > patterns
sign 0 --ignore 'cache/' --ignore-from patterns
check "show" 0 "$velk2" manifest show pkg/manifest
has "show patterns" out.txt '^ignore: cache/$'
has "show pyc pattern" out.txt '^ignore: \*\*/\*\.pyc$'
has "show link" out.txt ' libfoo\.so -> libfoo\.so\.1$'
has "show mode" out.txt ' hello mode 0755$'
has "show escaped name" out.txt 'lib\\xff'

# Verified as signed: links are not followed, recorded patterns need no repeating.
echo more > pkg/cache/new
echo more > pkg/lib/other.pyc
verify 0
has "counts" out.txt '^valid 7, changed 0, missing 0, extra 0$'

# Each kind of tampering, reported by kind.
chmod 4755 pkg/bin/hello
rm pkg/lib/libfoo.so && ln -s /tmp/evil.so pkg/lib/libfoo.so
rm pkg/lib/dangling && echo "not a link" > pkg/lib/dangling
echo DOC > pkg/share/doc/README
echo evil > pkg/evil.so
echo x > "pkg/x (changed during verification)"
echo second > "$(printf 'pkg/share/lib\376')"
verify 1
has "mode" out.txt '^changed bin/hello: mode 0755 -> 4755$'
has "link target" out.txt '^changed lib/libfoo\.so: link target libfoo\.so\.1 -> /tmp/evil\.so$'
has "type" out.txt '^changed lib/dangling: type symlink -> file$'
has "content" out.txt '^changed share/doc/README: content$'
has "root scanned" out.txt '^extra evil\.so$'
has "name quoted" out.txt '^extra "x \(changed during verification\)"$'
has "bytes kept" out.txt '^extra "share/lib\\xfe"$'
if grep -q 'manifest$' out.txt; then fail "the manifest itself was reported"; fi
verify 1 --json
json "json kinds" '[c["kind"] for e in j["entries"] for c in e.get("changes", [])] == ["mode", "type", "link target", "content"]'
json "json signed digest" 'any(c["expected"] == "'"$(printf 'doc\n' | sha256sum | cut -c1-64)"'" for e in j["entries"] for c in e.get("changes", []))'
json "json exact bytes" 'any(e.get("path_hex") == "73686172652f6c6962fe" for e in j["entries"])'
verify 0 --ignore 'evil.so' --ignore '/x *' --ignore 'lib?' --ignore 'share/doc/' --ignore bin/hello \
  --ignore 'lib/lib*' --ignore 'lib/dangling'
has "ignored" out.txt '^valid 1, changed 0, missing 0, extra 0$'

# Mistakes in the question are not verdicts on a package: exit 2, one message.
check "no package" 2 "$velk2" verify nowhere --manifest pkg/manifest --store store --tag '(pkg install)'
has "no package message" err.txt 'nowhere: no such directory'
check "package is a file" 2 "$velk2" verify patterns --manifest pkg/manifest --store store --tag '(pkg install)'
has "not a directory message" err.txt 'patterns: not a directory'
check "not a manifest" 2 "$velk2" verify pkg --manifest chain.cert --store store --tag '(pkg install)'
has "not a manifest message" err.txt 'chain.cert is not a manifest'
verify 2 --ignore '[oops'
has "bad pattern message" err.txt 'not an ignore pattern: \[oops'
mkfifo fifo
verify 2 --ignore-from fifo
has "fifo patterns" err.txt 'not a regular file'
verify 2 --ignore-from missing-file
has "missing patterns" err.txt 'missing-file: No such file'

echo "cli package tree test: $failures failures"
[ "$failures" -eq 0 ]
