// The velk2 command table: every command, its synopsis and its one-line
// summary, in the order --help prints them. A constant table, so what the
// tool offers never depends on how it was linked.
#include "tools/velk2/commands.h"

namespace velk2::cli {

const std::span<const Command> Commands() {
  static constexpr Command kCommands[] = {
      {"acl add",
       "--subject FILE.pub|--subject-hash FILE --tag TEXT [--propagate] "
       "[--not-before DATE] [--not-after DATE] [--comment TEXT] --out DIR/NAME.acl [--force]",
       "write an ACL entry granting the subject TEXT (a tag such as '(pkg install)'); DATE "
       "is YYYY-MM-DD_hh:mm:ss in UTC; an existing file is kept unless --force",
       RunAclAdd},
      {"acl list", "DIR",
       "print every entry of the *.acl files of DIR and say which files are skipped and "
       "why (exit 1 when any is)",
       RunAclList},
      {"authorize",
       "--acl-dir DIR --certs FILE.cert --key FILE.pub --tag TEXT [--not-before DATE] "
       "[--not-after DATE | --any-time] [--explain] [--json]",
       "ask whether the key holds TEXT under the ACL of DIR through the certificates of "
       "FILE.cert (signatures checked first); without dates the question is about now, "
       "--any-time asks without a period; exit 0 authorized, 1 not, 2 usage, unreadable "
       "input or undecided (an engine limit or error); --explain tells why, --json prints "
       "the same as one JSON object",
       RunAuthorize},
      {"cert issue",
       "--issuer NAME.pem --subject FILE.pub|--subject-hash FILE --tag TEXT [--propagate] "
       "[--not-before DATE] [--not-after DATE] [--comment TEXT] [--owner TEXT] "
       "[--alg rsa-pss|rsa-1.5|dsa-sha1] [--hash sha1|sha256] [--revocation-scope TEXT] "
       "--out FILE.cert",
       "sign a certificate and append it to FILE.cert (created when missing); TEXT is a tag "
       "such as '(pkg install)', DATE is YYYY-MM-DD_hh:mm:ss in UTC; with --revocation-scope "
       "the certificate is good only while a revocation list of that scope clears it",
       RunCertIssue},
      {"cert show", "FILE",
       "print each certificate of FILE as a C caller reads it: subject, issuer, tag, owner, "
       "period, revocation scope and the hash its signature covers",
       RunCertShow},
      {"cert verify",
       "FILE --store DIR --tag TEXT [--not-before DATE] [--not-after DATE] [--explain] [--json]",
       "verify the chain of FILE under the store DIR (its acl/ and cert/): every signature, "
       "the revocation lists that the ACL names, then whether the ACL grants the first "
       "certificate's subject TEXT; without dates the question is about now. Exit 0 "
       "verified, 1 not (revoked, unauthorized, bad signature), 2 usage or unreadable input; "
       "--explain says which stage failed and why, --json prints the verdict as JSON",
       RunCertVerify},
      {"compare", "A B [--ignore PATTERN ...] [--ignore-from FILE ...] [--json]",
       "compare two manifests (their signatures and digests checked, not their signers): "
       "one line per changed, missing (in A only), extra (in B only) or moved entry and the "
       "counts, a changed entry with what differs; paths matching a PATTERN are passed over; "
       "exit 0 when they list the same, 1 when not, 2 when one cannot be read",
       RunCompare},
      {"crl import", "DIR --store DIR",
       "import the *.crl files of DIR into the store: a list that verifies against the ACL "
       "replaces the stored list of its scope only when it was issued later (its not-before "
       "is later: an old list can never be replayed over a newer one) and lasts at least as "
       "long, or the stored one has not begun; a list whose period has not begun waits. The "
       "comparison and replacement run under the lock DIR/cert/store.lock. Says what was "
       "imported, kept or refused and why; exit 0, 1 when any list was refused, 2 when none "
       "reads",
       RunCrlImport},
      {"crl issue",
       "--issuer KEY.pem --tag TEXT [--revoke-cert FILE.cert#N ...] [--revoke-key FILE.pub ...] "
       "[--revoked-at DATE] --not-before DATE --not-after DATE --out FILE.crl",
       "sign a revocation list of scope TEXT (such as '(revoke pkg)') covering the period, "
       "revoking certificate N (counted from 1) of each FILE.cert and each key, all as of "
       "--revoked-at (default: now); FILE.crl is replaced whole. --not-before is the list's "
       "issue time: a store takes a new list of a scope only when it was issued later than "
       "the stored one. Only certificates issued with --revocation-scope are looked up by "
       "certificate (a warning says so); --revoke-key reaches any certificate for the key",
       RunCrlIssue},
      {"crl show", "FILE",
       "print a revocation list: issuer, scope tag, period and every revoked certificate "
       "and key with its date",
       RunCrlShow},
      {"crl verify", "FILE --store DIR [--tag TEXT]",
       "verify a revocation list against the ACL of the store DIR, now: its issuer, its "
       "contents, its signature and its period (and its scope tag, with --tag). Exit 0 "
       "verified, 1 not, 2 unreadable",
       RunCrlVerify},
      {"key new", "--type rsa|dsa [--bits N] --out NAME [--force]",
       "make a key pair: NAME.pem (private, mode 0600) and NAME.pub (canonical public key)",
       RunKeyNew},
      {"key show", "FILE",
       "print a key's type, size and the SHA-256 fingerprint of its canonical form "
       "(FILE is a .pub or a .pem)",
       RunKeyShow},
      {"manifest show", "FILE",
       "print a manifest: header, time of signing, the chain, the entry count and the tree "
       "(its signatures and digest checked first)",
       RunManifestShow},
      {"manifest sign",
       "PKGDIR --key KEY.pem --chain FILE.cert --tag TEXT --out FILE [--name NAME] "
       "[--time-of-signing DATE] [--crl FILE.crl ...] [--store DIR] [--owners] "
       "[--ignore PATTERN ...] [--ignore-from FILE ...]",
       "sign a manifest of every file, symlink and directory of PKGDIR, its object "
       "certificate by KEY granting TEXT, its chain FILE.cert (the key's own certificate "
       "first). Each entry records its mode (permission bits with setuid, setgid and sticky), "
       "a file its size and SHA-256, a symlink its target (never followed); --owners records "
       "owner and group too. FIFOs, sockets and devices are refused unless ignored. A PATTERN "
       "is a shell pattern (*, ?, [...], ** for any depth; one without / matches a name at any "
       "depth, a leading / anchors it at PKGDIR, a trailing / matches directories only); "
       "--ignore-from reads one a line. The patterns are recorded in the signed manifest and "
       "honoured by every verification; an --out inside PKGDIR is left out. --name records the "
       "package's name in the signed header (rollback "
       "protection then knows the package by it); --time-of-signing sets the time (default: "
       "now); --crl ships a revocation list with the manifest, and --store DIR ships the "
       "store's current list of every scope that the chain's certificates name (a scope with "
       "none is warned about)",
       RunManifestSign},
      {"message", "CODE...", "print the message of result codes (negative: engine statuses)",
       RunMessage},
      {"hash", "FILE...",
       "print the SHA-256 of each file as a manifest entry records it, one 'HEX  FILE' line "
       "each (the form sha256sum prints); only regular files are read",
       RunHash},
      {"show", "FILE",
       "print a canonical S-expression file in readable form (binary atoms as #hex# or "
       "|base64|, display hints as [hint])",
       RunShow},
      {"tag compare", "A B",
       "print how tag A relates to tag B: equal, narrower (A implies B), broader, "
       "disjoint or overlapping. Tags are read as every command and export reads them, "
       "like '(ftp (* set read write))' or 'read': the body of (tag ...). Exit 0, 2 when a "
       "tag cannot be read",
       RunTagCompare},
      {"tag intersect", "[--canonical] A B",
       "print the intersection of tags A and B (the authorization both grant), readable "
       "or with --canonical in canonical form. Exit 0, 1 when the tags are disjoint, 2 "
       "when a tag cannot be read",
       RunTagIntersect},
      {"verify",
       "PKGDIR --store DIR --tag TEXT [--manifest FILE] [--not-before DATE] [--not-after DATE] "
       "[--allow-extra] [--allow-older] [--ignore PATTERN ...] [--ignore-from FILE ...] "
       "[--jobs N] [--explain] [--json] [--progress | --no-progress]",
       "is PKGDIR exactly what an authorized signer shipped? Verifies the manifest (default "
       "PKGDIR/manifest: signatures; every certificate of its chain against the revocation "
       "lists of the store that the ACL names and those shipped with the manifest, a revoked "
       "or uncleared certificate leaving the chain; its signer's authorization for TEXT under "
       "the store DIR, at the time of signing unless dates are given; its digest), then every "
       "entry of PKGDIR, its top level included (the manifest file excepted), never following "
       "a symlink: one line per changed, missing, extra or unreadable entry and the counts. A "
       "changed line says what differs: content, size, mode, owner, link target or type "
       "(--json gives the expected and found values). Paths matching the patterns recorded in "
       "the manifest, or an --ignore PATTERN, are passed over. A package directory that does "
       "not exist, or a manifest that does not read as one, exits 2. Rollback "
       "protection: a manifest older than the newest verified for the same package (its "
       "recorded name, else its directory) is refused unless --allow-older, as is one dated "
       "more than five minutes ahead; after a verification that succeeds in full, DIR/rollback "
       "records its time of signing (when DIR is writable). Exit 0 "
       "when it verifies and every entry is valid (extra entries only with --allow-extra), 1 "
       "otherwise, 2 usage or unreadable input; --explain says why the signer is or is not "
       "authorized and which certificates revocation left out; --progress (the default when "
       "stderr is a terminal) shows files and bytes "
       "hashed, the rate and the time left. N threads hash files (default: one per core), "
       "with the same report as one; a file that changes while it is read is changed "
       "(\"changed during verification\"), and a missing file found again as an extra "
       "one is shown as moved",
       RunVerify},
  };
  return kCommands;
}

}  // namespace velk2::cli
