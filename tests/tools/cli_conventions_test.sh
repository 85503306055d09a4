#!/usr/bin/env bash
# What a Debian user expects of the tool beside sha256sum and friends: the
# store and tag from the environment and the configuration, GNU option
# forms, ISO dates, the system's reasons, a hint for a tag without
# parentheses, sha256sum's own line format, the manual's sections, and a
# progress line that fits the terminal and never reaches anything else.
source "$(dirname "$0")/cli_common.sh" "$1"

mkdir -p store/acl pkg/bin pkg/share
check "root key" 0 "$velk2" key new --type rsa --out root
check "signer key" 0 "$velk2" key new --type rsa --out signer
check "acl" 0 "$velk2" acl add --subject root.pub --tag '(pkg)' --propagate --out store/acl/root.acl
check "chain" 0 "$velk2" cert issue --issuer root.pem --subject signer.pub --tag '(pkg install)' --out chain.cert
echo hello > pkg/bin/hello
head -c 3000000 /dev/zero > pkg/share/big
check "sign" 0 "$velk2" manifest sign pkg --key signer.pem --chain chain.cert --tag '(pkg install)' \
  --out pkg/manifest --no-progress

# Where the store and the tag come from: --store, VELK2_STORE, the named
# configuration file, the user's file; --explain says which.
printf '# test\nstore = %s/store\ntag = (pkg install)\n' "$dir" > velk2.conf
export VELK2_CONFIG=$dir/velk2.conf
check "store and tag from the configuration" 0 "$velk2" verify pkg --explain --allow-older
has "store named with its source" out.txt "^store: $dir/store \(from $dir/velk2.conf\)$"
unset VELK2_CONFIG
mkdir -p home/.config/velk2 && cp velk2.conf home/.config/velk2/velk2.conf
check "the user's configuration" 0 env HOME="$dir/home" "$velk2" verify pkg --explain --allow-older
has "user's file named" out.txt "from $dir/home/.config/velk2/velk2.conf\)$"
cp -r store store2
check "VELK2_STORE wins over the configuration" 0 env HOME="$dir/home" VELK2_STORE="$dir/store2" \
  "$velk2" verify pkg --json --allow-older
json "store from the environment" "j['store'] == {'path': '$dir/store2', 'from': 'VELK2_STORE'}"
check "--store wins over VELK2_STORE" 0 env VELK2_STORE=/nonexistent VELK2_CONFIG="$dir/velk2.conf" \
  "$velk2" verify pkg --store store --json --allow-older
json "store from the option" "j['store']['from'] == '--store'"
check "a missing store, named with its source" 2 env VELK2_STORE="$dir/absent" VELK2_CONFIG= \
  "$velk2" verify pkg --tag '(pkg install)'
has "source of the missing store" err.txt "absent \(from VELK2_STORE\).*No such file or directory"
check "no tag anywhere" 2 env VELK2_CONFIG= "$velk2" verify pkg --store store
has "tag asked for" err.txt "--tag"
printf 'store = %s/store\ncolour = blue\n' "$dir" > bad.conf
check "an unknown setting" 2 env VELK2_CONFIG="$dir/bad.conf" "$velk2" verify pkg
has "setting and line named" err.txt "bad.conf:2: unknown setting 'colour'"
export VELK2_CONFIG=

# GNU option forms; short options; --quiet leaves only the exit status.
check "inline values and yes/no switches" 0 "$velk2" verify pkg --store=store '--tag=(pkg install)' \
  --allow-extra=yes --allow-older=yes --no-progress
check "short options grouped" 0 "$velk2" verify -qs store -t '(pkg install)' pkg --allow-older
[ ! -s out.txt ] || fail "--quiet printed: $(cat out.txt)"
check "a switch given a value it does not take" 2 "$velk2" verify pkg --store store --allow-extra=perhaps
has "yes or no asked" err.txt "yes or no"
check "an option twice" 2 "$velk2" verify pkg -s store --store store
has "twice named" err.txt "twice"
check "per-option help" 0 "$velk2" verify --help
has "short and long form with help" out.txt "-s, --store DIR"
has "jobs explained" out.txt "--jobs N"
check "manual page" 0 "$velk2" --manpage
for section in OPTIONS ENVIRONMENT FILES "SEE ALSO"; do has "manual section $section" out.txt "^\.SH \"?$section"; done
has "manual dated" out.txt '^\.TH VELK2 1 "[0-9]{4}-[0-9]{2}-[0-9]{2}"'

# Dates as people write them; impossible dates are refused, not wrapped.
check "ISO dates" 0 "$velk2" verify pkg -s store -t '(pkg install)' --not-before 2020-01-01 \
  --not-after 2099-12-31T23:59:59Z --allow-older
check "an ISO date with an offset" 0 "$velk2" verify pkg -s store -t '(pkg install)' \
  --not-before '2020-01-01T02:00:00+02:00' --allow-older
check "an impossible date" 2 "$velk2" verify pkg -s store -t '(pkg install)' --not-before 2023-02-29
has "the date named" err.txt "2023-02-29"

check "the first second, which the library reads as no date" 2 "$velk2" verify pkg -s store \
  -t '(pkg install)' --not-before 1970-01-01 --not-after 1970-01-01
check "an inverted period" 2 "$velk2" verify pkg -s store -t '(pkg install)' --not-before 2026-06-02 \
  --not-after 2026-06-01
check "one date that ends the period before the time of signing" 2 "$velk2" verify pkg -s store \
  -t '(pkg install)' --not-after 2020-01-01
has "the time of signing named" err.txt "ends before it starts: the manifest was signed"
check "an empty tag" 2 "$velk2" verify pkg -s store --tag=
printf 'store = %s/store\0/../elsewhere\n' "$dir" > nul.conf
check "a NUL in the configuration" 2 env VELK2_CONFIG="$dir/nul.conf" "$velk2" verify pkg -t '(pkg install)'
has "NUL named" err.txt "nul.conf:1: holds a NUL byte"
cp -r store "$(printf 'store\377')"
check "a store path that is not UTF-8" 2 "$velk2" verify pkg -s "$(printf 'store\377')" -t '(pkg install)'
has "not UTF-8 said" err.txt 'store\\xff.*not UTF-8'
check "an unknown option with control characters" 2 "$velk2" verify pkg "$(printf -- '--\e]0;x\a')"
grep -q $'\e' err.txt && fail "a control character reached the terminal: $(cat -A err.txt)"
check "an unknown command with control characters" 2 "$velk2" "$(printf '\e[31mcmd')"
grep -q $'\e' err.txt && fail "a control character reached the terminal: $(cat -A err.txt)"

# The system's reason, and a hint for the tag written without parentheses.
check "a missing chain" 2 "$velk2" cert verify absent.cert -s store -t '(pkg install)'
has "strerror reason" err.txt "absent.cert: No such file or directory"
check "a tag without parentheses" 1 "$velk2" verify pkg -s store -t 'pkg install' --allow-older
has "hint" err.txt "hint: the tag 'pkg install' is not a list; write it in parentheses: '\(pkg install\)'"
check "a list tag gets no hint" 1 "$velk2" verify pkg -s store -t '(pkg remove)' --allow-older
! grep -q hint err.txt || fail "hint for a tag in parentheses"

# A key pair that cannot be written whole is not begun: the old one stays.
check "a key pair" 0 "$velk2" key new --type rsa --out pair
cp pair.pem pair.before && rm pair.pub && mkdir pair.pub
check "a pair whose public half cannot be written" 2 "$velk2" key new --type rsa --out pair --force
cmp -s pair.pem pair.before || fail "a refused key new replaced the private key"

# velk2 hash writes what sha256sum writes, and sha256sum -c reads it back.
mkdir names && cd names
printf a > 'back\slash'
printf b > "$(printf 'new\nline')"
printf c > "$(printf 'carriage\rreturn')"
printf d > "$(printf 'byte\377')"
printf e > 'plain name'
printf f > -dash
"$velk2" hash -- * > ../ours.sum || fail "hash"
sha256sum -- * > ../theirs.sum
cmp -s ../ours.sum ../theirs.sum || { fail "hash lines differ from sha256sum's"; diff ../ours.sum ../theirs.sum; }
sha256sum --quiet -c ../ours.sum || fail "sha256sum -c cannot read velk2 hash"
cd ..

# Progress: only on a terminal, cut to its width, with the share done.
in_terminal() {  # columns, command...
  local columns=$1
  shift
  local quoted
  printf -v quoted '%q ' "$@"
  script -qec "stty cols $columns rows 24; $quoted" /dev/null > terminal.txt 2>&1
}
in_terminal 40 "$velk2" verify pkg -s store -t '(pkg install)' --allow-older
has "progress drawn" terminal.txt "hashed"
tr '\r' '\n' < terminal.txt | sed 's/\x1b\[K//g' | grep hashed > lines.txt
awk 'length($0) > 39 { bad = 1 } END { exit bad }' lines.txt ||
  { fail "a progress line wider than 40 columns"; cat -A lines.txt; }
grep -q $'\x1b\\[K' terminal.txt || fail "progress lines are not erased to their end"
in_terminal 200 "$velk2" verify pkg -s store -t '(pkg install)' --allow-older
has "share and sizes on a wide terminal" terminal.txt "hashed 2/2 files, 2\.9/2\.9 MiB \(100%\)"
in_terminal 200 "$velk2" verify pkg -s store -t '(pkg install)' --allow-older --no-progress
! grep -q hashed terminal.txt || fail "--no-progress drew progress"
in_terminal 200 "$velk2" manifest sign pkg --key signer.pem --chain chain.cert -t '(pkg install)' \
  --out signed-again
has "signing shows progress" terminal.txt "hashed [0-9]+ files, [0-9.]+ MiB"
in_terminal 200 "$velk2" verify pkg -s store -t '(pkg install)' --allow-older -q
! grep -q hashed terminal.txt || fail "--quiet drew progress"
in_terminal 200 env TERM=dumb "$velk2" verify pkg -s store -t '(pkg install)' --allow-older
! grep -q hashed terminal.txt || fail "progress drawn on a dumb terminal"
check "not on a pipe, even when asked" 0 "$velk2" verify pkg -s store -t '(pkg install)' --allow-older --progress
! grep -q hashed err.txt || fail "progress written to a file"

echo "cli conventions test: $failures failures"
[ "$failures" -eq 0 ]
