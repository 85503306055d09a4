#!/usr/bin/env bash
# Writes ACL entries and asks authorization questions with the velk2 tool:
# acl add / acl list, authorize with its exit codes, --explain and --json.
source "$(dirname "$0")/cli_common.sh" "$1"

for k in root dev pkg other; do
  "$velk2" key new --type rsa --out $k >/dev/null || fail "key $k"
done
root_fp=$("$velk2" key show root.pub | sed -n 's/^sha256: //p')
pkg_fp=$("$velk2" key show pkg.pub | sed -n 's/^sha256: //p')
mkdir acl empty
any_tag='(pkg (* set install remove))'

# ---- acl add ----
check "add" 0 "$velk2" acl add --subject root.pub --tag "$any_tag" --propagate \
  --not-before 2026-01-01_00:00:00 --not-after 2036-01-01_00:00:00 --comment "release root" --out acl/root.acl
has "add prints the file" out.txt '^acl/root.acl$'
cp acl/root.acl root.before
check "no overwrite" 2 "$velk2" acl add --subject pkg.pub --tag '(x)' --out acl/root.acl
has "overwrite message" err.txt 'exists'
cmp -s acl/root.acl root.before || fail "a refused add changed the file"
check "force" 0 "$velk2" acl add --subject pkg.pub --tag '(x)' --out acl/root.acl --force
cmp -s acl/root.acl root.before && fail "--force did not replace the file"
cp root.before acl/root.acl
check "by hash" 0 "$velk2" acl add --subject-hash other.pub --tag '(ftp)' --out empty/other.acl
check "bad tag" 2 "$velk2" acl add --subject root.pub --tag '(pkg' --out acl/x.acl
check "empty tag" 2 "$velk2" acl add --subject root.pub --tag '' --out acl/x.acl
check "bad date" 2 "$velk2" acl add --subject root.pub --tag '(x)' --not-after 2026-02-30_00:00:00 --out acl/x.acl
check "dates reversed" 2 "$velk2" acl add --subject root.pub --tag '(x)' \
  --not-before 2027-01-01_00:00:00 --not-after 2026-01-01_00:00:00 --out acl/x.acl
check "two subjects" 2 "$velk2" acl add --subject root.pub --subject-hash root.pub --tag '(x)' --out acl/x.acl
check "no subject" 2 "$velk2" acl add --tag '(x)' --out acl/x.acl
check "no tag" 2 "$velk2" acl add --subject root.pub --out acl/x.acl
check "not a .acl name" 2 "$velk2" acl add --subject root.pub --tag '(x)' --out acl/x.txt
check "missing directory" 2 "$velk2" acl add --subject root.pub --tag '(x)' --out nowhere/x.acl
check "subject not a key" 2 "$velk2" acl add --subject acl/root.acl --tag '(x)' --out acl/x.acl
check "missing subject" 2 "$velk2" acl add --subject none.pub --tag '(x)' --out acl/x.acl
[ -e acl/x.acl ] && fail "a refused add wrote acl/x.acl"
rm -f empty/other.acl

# ---- acl list ----
check "list" 0 "$velk2" acl list acl
has "list subject" out.txt "subject: +rsa key $root_fp"
has "list tag" out.txt 'tag: +\(pkg \(\* set install remove\)\)'
has "list propagate" out.txt 'propagate: +yes'
has "list dates" out.txt 'not-after: +2036-01-01_00:00:00'
has "list comment" out.txt 'comment: +"release root"'
check "list empty directory" 2 "$velk2" acl list empty
check "list missing directory" 2 "$velk2" acl list nowhere
check "list without DIR" 2 "$velk2" acl list
mkdir mixed
cp acl/root.acl mixed/a.acl
printf '(5:entry(7:version1:2))' > mixed/b.acl
check "list skips" 1 "$velk2" acl list mixed
has "skip named" err.txt 'skipped mixed/b.acl: 7 '
has "last-file note" err.txt 'the last file, mixed/b.acl, does not load'
has "good entry still listed" out.txt "$root_fp"

# ---- certificates ----
# Chain files hold the leaf certificate first.
"$velk2" cert issue --issuer dev.pem --subject pkg.pub --tag '(pkg install)' \
  --not-before 2026-01-01_00:00:00 --not-after 2030-01-01_00:00:00 --out chain.cert >/dev/null || fail "issue 1"
"$velk2" cert issue --issuer root.pem --subject dev.pub --tag "$any_tag" --propagate --out chain.cert >/dev/null ||
  fail "issue 2"
"$velk2" cert issue --issuer dev.pem --subject pkg.pub --tag '(pkg install)' --out short.cert >/dev/null || fail "issue 3"
"$velk2" cert issue --issuer root.pem --subject dev.pub --tag "$any_tag" --out short.cert >/dev/null || fail "issue 4"
printf '(8:sequence)' > none.cert
ask=("$velk2" authorize --acl-dir acl --certs chain.cert --key pkg.pub)

# ---- authorize: the answers ----
check "authorized" 0 "${ask[@]}" --tag '(pkg install)' --any-time
has "result 0" out.txt '^result: 0 '
has "authorized yes" out.txt '^authorized: yes$'
check "in the period" 0 "${ask[@]}" --tag '(pkg install)' --not-before 2027-01-01_00:00:00 --not-after 2027-02-01_00:00:00
check "not authorized" 1 "${ask[@]}" --tag '(pkg remove)' --any-time
has "result 31" out.txt '^result: 31 '
has "authorized no" out.txt '^authorized: no$'
check "narrower grant" 1 "${ask[@]}" --tag "$any_tag" --any-time
has "result 67" out.txt '^result: 67 The specified package is not granted the specified authorization'
check "outside the period" 1 "${ask[@]}" --tag '(pkg install)' --not-before 2031-01-01_00:00:00
has "period 31" out.txt '^result: 31 '
check "another key" 1 "$velk2" authorize --acl-dir acl --certs chain.cert --key other.pub --tag '(pkg install)' --any-time
check "direct grant, no certificates" 0 "$velk2" authorize --acl-dir acl --certs none.cert --key root.pub --tag '(pkg install)' --any-time
check "chain without propagate" 1 "$velk2" authorize --acl-dir acl --certs short.cert --key pkg.pub --tag '(pkg install)' --any-time

# ---- one reading of tags: tag compare and authorize agree ----
# The chain grants (pkg install); a tag is authorized exactly when it is equal
# to it or narrower, whichever way it is written.
for t in '(pkg install)' '(pkg "install")' '(tag (pkg install))' '(3:pkg7:install)' \
  ' ( pkg  install ) ' '(pkg install now)' '(pkg)' "$any_tag" '(pkg #696e7374616c6c#)'; do
  "$velk2" tag compare "$t" '(pkg install)' >relation.txt 2>/dev/null
  relation=$(cat relation.txt)
  timeout 60 "${ask[@]}" --tag "$t" --any-time >/dev/null 2>&1
  got=$?
  case "$relation" in equal | narrower) want=0 ;; *) want=1 ;; esac
  [ "$got" -eq "$want" ] || fail "tag $t: compare says '$relation' but authorize exits $got"
done
[ "$("$velk2" tag compare '(pkg install)' '(pkg "install")')" = equal ] &&
  fail "a quoted token read as the bare one by tag compare only"

# ---- authorize: usage and unreadable input ----
check "no tag" 2 "${ask[@]}" --any-time
check "bad tag" 2 "${ask[@]}" --tag '(pkg' --any-time
check "bad date" 2 "${ask[@]}" --tag '(x)' --not-before yesterday
check "dates reversed" 2 "${ask[@]}" --tag '(x)' --not-before 2027-01-01_00:00:00 --not-after 2026-01-01_00:00:00
check "missing key" 2 "$velk2" authorize --acl-dir acl --certs chain.cert --key none.pub --tag '(x)' --any-time
check "missing certificates" 2 "$velk2" authorize --acl-dir acl --certs none-such.cert --key pkg.pub --tag '(x)' --any-time
printf '(8:sequence' > broken.cert
check "broken certificate file" 2 "$velk2" authorize --acl-dir acl --certs broken.cert --key pkg.pub --tag '(x)' --any-time
check "empty ACL directory" 2 "$velk2" authorize --acl-dir empty --certs chain.cert --key pkg.pub --tag '(x)' --any-time
check "missing ACL directory" 2 "$velk2" authorize --acl-dir nowhere --certs chain.cert --key pkg.pub --tag '(x)' --any-time
check "bad last ACL file" 2 "$velk2" authorize --acl-dir mixed --certs chain.cert --key pkg.pub --tag '(pkg install)' --any-time
has "bad last file named" err.txt 'skipped mixed/b.acl'
has "bad last file refuses the ACL" err.txt ': 5 '
check "unknown option" 2 "${ask[@]}" --tag '(x)' --frob --any-time

# A certificate changed after signing: the signatures are checked first.
python3 - <<'EOF'
data = open('chain.cert', 'rb').read()
at = data.index(b'(3:pkg7:install)')
open('tampered.cert', 'wb').write(data[:at] + b'(3:pkg7:instalX)' + data[at + 16:])
EOF
check "tampered certificate" 1 "$velk2" authorize --acl-dir acl --certs tampered.cert --key pkg.pub --tag '(pkg install)' --any-time
has "tampered entry named" err.txt 'certificate 1 of tampered.cert \(owner dev\): its signature does not verify: 22 '

# ---- --explain ----
check "explain yes" 0 "${ask[@]}" --tag '(pkg install)' --explain --any-time
has "explain question" out.txt "^question: does pkg.pub \[${pkg_fp:0:16}\] hold \(pkg install\) at any time\?"
has "explain reduced entry" out.txt '1\. \[[0-9]+\] the ACL grants pkg.pub .* \(pkg install\), from 2026-01-01_00:00:00 until 2030-01-01_00:00:00'
has "explain ACL entry" out.txt 'ACL entry root.acl, which states \(pkg \(\* set install remove\)\)'
has "explain certificate" out.txt 'certificate chain.cert #1 \(owner dev\)'
has "explain derivation" out.txt 'chained from \[[0-9]+\] and \[[0-9]+\]'
has "explain issuer named" out.txt "owner \"root\" \[${root_fp:0:16}\] grants owner \"dev\""
check "explain no propagate" 1 "$velk2" authorize --acl-dir acl --certs short.cert --key pkg.pub --tag '(pkg install)' --explain --any-time
has "explain empty" out.txt 'reduced ACL: empty'
has "explain why" out.txt 'owner "dev" \[[0-9a-f]+\] grants towards the key .* lack propagate, so it cannot pass authority on'
check "explain period" 1 "${ask[@]}" --tag '(pkg install)' --not-before 2031-01-01_00:00:00 --explain
has "explain left out" out.txt 'certificate chain.cert #1 \(owner dev\) names the key but was left out'
check "explain narrower" 1 "${ask[@]}" --tag "$any_tag" --explain --any-time
has "explain 67" out.txt 'grants \(pkg install\), which does not cover the requested \(pkg \(\* set install remove\)\)'

# ---- --json ----
check "json yes" 0 "${ask[@]}" --tag '(pkg install)' --json --any-time
json "json yes" "j['result'] == 0 and j['authorized'] is True and len(j['entries']) == 1 and len(j['chain']) == 5"
json "json entry" "j['entries'][0]['subject'] == '$pkg_fp' and j['entries'][0]['issuer'] is None and j['entries'][0]['tag'] == '(pkg install)'"
json "json chain" "[t['kind'] for t in j['chain']].count('derived') == 2 and j['chain'][-1]['parents'] != []"
json "json question" "j['question']['key'] == '$pkg_fp' and j['question']['not_before'] is None"
check "json no" 1 "$velk2" authorize --acl-dir acl --certs short.cert --key pkg.pub --tag '(pkg install)' --json --any-time
json "json no" "j['result'] == 31 and j['authorized'] is False and j['entries'] == [] and len(j['reasons']) == 1 and len(j['considered']) == 3"
check "json 67" 1 "${ask[@]}" --tag "$any_tag" --json --any-time
json "json 67" "j['result'] == 67 and j['message'].startswith('The specified package') and len(j['entries']) == 1"
check "json tampered" 1 "$velk2" authorize --acl-dir acl --certs tampered.cert --key pkg.pub --tag '(pkg install)' --json --any-time
json "json tampered" "j['result'] == 22 and j['stage'] == 'signatures' and j['certificate'] == 1 and j['owner'] == 'dev'"
mkdir first-bad
printf 'not an entry' > first-bad/a.acl
cp acl/root.acl first-bad/b.acl
check "json with a skipped first file" 0 "$velk2" authorize --acl-dir first-bad --certs chain.cert --key pkg.pub --tag '(pkg install)' --json --any-time
json "json skipped" "j['authorized'] is True and [s['file'] for s in j['skipped_files']] == ['first-bad/a.acl'] and j['skipped_files'][0]['result'] == 6"
[ -z "$(ls acl | grep -v '\.acl$')" ] || fail "stray files in acl/"

# ---- the period: now unless told otherwise ----
# Dates relative to the clock, so that the answers never depend on the day the test runs.
past=$(date -u -d '-2 days' +%Y-%m-%d_%H:%M:%S)
yesterday=$(date -u -d '-1 day' +%Y-%m-%d_%H:%M:%S)
tomorrow=$(date -u -d '+1 day' +%Y-%m-%d_%H:%M:%S)
mkdir expired current
"$velk2" acl add --subject pkg.pub --tag '(pkg install)' --not-before "$past" --not-after "$yesterday" \
  --out expired/pkg.acl >/dev/null || fail "expired entry"
"$velk2" acl add --subject pkg.pub --tag '(pkg install)' --not-before "$yesterday" --not-after "$tomorrow" \
  --out current/pkg.acl >/dev/null || fail "current entry"
check "expired entry, no dates: asked about now" 1 "$velk2" authorize --acl-dir expired --certs none.cert --key pkg.pub --tag '(pkg install)'
has "expired: not authorized" out.txt '^authorized: no$'
check "expired entry, --any-time" 0 "$velk2" authorize --acl-dir expired --certs none.cert --key pkg.pub --tag '(pkg install)' --any-time
check "expired entry, in its period" 0 "$velk2" authorize --acl-dir expired --certs none.cert --key pkg.pub --tag '(pkg install)' --not-after "$yesterday"
check "current entry, no dates" 0 "$velk2" authorize --acl-dir current --certs none.cert --key pkg.pub --tag '(pkg install)' --explain
has "explain now" out.txt '^question: does .* hold \(pkg install\) now \([0-9]{4}-[0-9]{2}-[0-9]{2}_[0-9:]{8}\)\?'
check "now, json" 0 "$velk2" authorize --acl-dir current --certs none.cert --key pkg.pub --tag '(pkg install)' --json
json "json now" "j['question']['not_before'] is not None and j['question']['not_before'] == j['question']['not_after'] and j['decided'] is True"
check "--any-time with a date" 2 "$velk2" authorize --acl-dir current --certs none.cert --key pkg.pub --tag '(x)' --any-time --not-after "$tomorrow"

# ---- text from files is printed escaped: one entry, one line ----
mkdir hostile
evil=$(printf 'evil\nresult: 0 Success\nauthorized: yes\033[2J')
"$velk2" acl add --subject root.pub --tag '(pkg)' --propagate --comment "$evil" \
  --out "hostile/$(printf 'a\nauthorized: yes\033[31m').acl" >/dev/null || fail "hostile entry"
"$velk2" cert issue --issuer root.pem --subject pkg.pub --tag '(pkg remove)' --owner "$evil" \
  --not-before "2026-01-01_00:00:00" --out hostile.cert >/dev/null || fail "hostile certificate"
check "hostile texts" 1 "$velk2" authorize --acl-dir hostile --certs hostile.cert --key pkg.pub --tag '(pkg install)' --explain --any-time
[ "$(grep -c '^authorized: yes' out.txt)" = 0 ] || fail "a file's text printed a verdict line"
[ "$(grep -c '^authorized: no$' out.txt)" = 1 ] || fail "the verdict line"
if grep -q $'\033' out.txt err.txt; then fail "an escape byte reached the terminal"; fi
has "owner escaped" out.txt 'owner "evil\\x0aresult: 0 Success\\x0aauthorized: yes\\x1b\[2J"'
has "file name escaped" out.txt 'ACL entry a\\x0aauthorized: yes\\x1b\[31m\.acl'
check "hostile acl list" 0 "$velk2" acl list hostile
if grep -q $'\033' out.txt err.txt; then fail "acl list printed an escape byte"; fi
[ "$(grep -c . out.txt)" = 6 ] || fail "acl list: one line per field"

# ---- a question that cannot be decided is no answer ----
# A hand-written entry whose tag nests deeper than the engine goes: the engine
# refuses the whole question (-130), which must not read as "not authorized".
mkdir deep
python3 - <<'EOF2'
key = open('root.pub', 'rb').read()
tag = b'(3:tag' + b'(1:a' * 70 + b')' * 70 + b')'
open('deep/a.acl', 'wb').write(b'(5:entry(7:subject' + key + b')' + tag + b')')
EOF2
check "engine error" 2 "$velk2" authorize --acl-dir deep --certs none.cert --key root.pub --tag '(pkg install)' --any-time
has "engine error undecided" out.txt '^authorized: undecided$'
has "engine error text" err.txt 'could not be decided: -130 '
# The toolkit never writes what the engine refuses, and acl list marks what a
# hand-made file holds: an entry at the engine's depth works, one deeper is refused.
deep_tag() { python3 -c "import sys; k=int(sys.argv[1]); print('(a ' * k + 'b' + ')' * k)" "$1"; }
mkdir deepest
check "acl add at the engine's depth" 0 "$velk2" acl add --subject root.pub --tag "$(deep_tag 61)" --out deepest/a.acl
check "that entry is usable" 1 "$velk2" authorize --acl-dir deepest --certs none.cert --key root.pub --tag '(pkg install)' --any-time
check "acl add past the engine's depth" 2 "$velk2" acl add --subject root.pub --tag "$(deep_tag 62)" --out deepest/b.acl
has "deep entry refused" err.txt 'nests deeper than the authorization engine goes'
[ ! -e deepest/b.acl ] || fail "a refused entry was written"
check "cert issue past the engine's depth" 2 "$velk2" cert issue --issuer root.pem --subject pkg.pub --tag "$(deep_tag 62)" --out deep.cert
[ ! -e deep.cert ] || fail "a refused certificate was written"
check "acl list marks an entry the engine refuses" 1 "$velk2" acl list deep
has "deep entry marked" out.txt '^  refused: +nested deeper than the authorization engine goes'
check "acl list of usable entries" 0 "$velk2" acl list deepest
# A certificate file never grows past what the readers load.
python3 -c "
body = b'(1:x8000:' + b'y' * 8000 + b')'
text = b'(8:sequence' + body * 130
rest = 1048576 - 500 - len(text) - len(b'(1:x5000:)')
text += b'(1:x%d:' % rest + b'y' * rest + b'))'
assert len(text) == 1048576 - 500 + 1
open('full.cert', 'wb').write(text)"
before=$(sha256sum full.cert)
check "cert issue past 1 MiB" 2 "$velk2" cert issue --issuer root.pem --subject pkg.pub --tag '(pkg)' --out full.cert
has "past 1 MiB said" err.txt 'would grow past 1 MiB'
[ "$(sha256sum full.cert)" = "$before" ] || fail "full.cert changed"
check "engine error, json" 2 "$velk2" authorize --acl-dir deep --certs none.cert --key root.pub --tag '(pkg install)' --any-time --json
json "json undecided" "j['result'] == -130 and j['decided'] is False and j['authorized'] is False"
check "message of a crypto status" 0 "$velk2" message 1009 -200
has "crypto status text" out.txt '^1009: the crypto library refused the key \(status 1009\)$'
has "engine status text" out.txt '^-200: '

echo "cli authorize test: $failures failures"
[ "$failures" -eq 0 ]
