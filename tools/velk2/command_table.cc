// The velk2 command table: every command, its operands, what it does and
// each of its options, in the order --help prints them. A constant table,
// so what the tool offers never depends on how it was linked.
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/velk2/commands.h"

namespace velk2::cli {
namespace {

// Options several commands share. The store and tag of a question fall back
// to the configuration (see the manual's ENVIRONMENT and FILES).
constexpr OptionSpec kStore{"store",
                            's',
                            "DIR",
                            false,
                            false,
                            "the store: DIR/acl holds the ACL, DIR/cert the certificates and "
                            "revocation lists (default: $VELK2_STORE, else the configuration's "
                            "store, else /etc/velk2)"};
constexpr OptionSpec kTagAsked{"tag",
                               't',
                               "TEXT",
                               false,
                               false,
                               "the authorization asked about, such as '(pkg install)' "
                               "(default: the configuration's tag)"};
constexpr OptionSpec kTagGranted{"tag", 't',  "TEXT",
                                 false, true, "the authorization granted, such as '(pkg install)'"};
constexpr OptionSpec kNotBefore{"not-before",
                                0,
                                "DATE",
                                false,
                                false,
                                "the start of the period asked about or granted (DATE: "
                                "YYYY-MM-DD_hh:mm:ss, YYYY-MM-DD or ISO 8601 such as "
                                "2026-01-01T12:00:00Z or 2026-01-01T14:00:00+02:00; UTC "
                                "unless an offset is given)"};
constexpr OptionSpec kNotAfter{"not-after", 0,     "DATE",
                               false,       false, "the end of the period asked about or granted"};
constexpr OptionSpec kExplain{"explain",
                              0,
                              nullptr,
                              false,
                              false,
                              "say why: the question, the ACL and certificates read, how the "
                              "decision came about"};
constexpr OptionSpec kJson{"json", 0, nullptr, false, false, "print the answer as one JSON object"};
constexpr OptionSpec kQuiet{"quiet", 'q',   nullptr,
                            false,   false, "print nothing but errors: the exit status answers"};
constexpr OptionSpec kIgnore{"ignore",
                             0,
                             "PATTERN",
                             true,
                             false,
                             "pass over the paths the shell pattern matches (*, ?, [...], ** "
                             "across directories; without / a name at any depth, a leading / "
                             "anchors at the package, a trailing / matches directories only)"};
constexpr OptionSpec kIgnoreFrom{
    "ignore-from", 0,     "FILE",
    true,          false, "read ignore patterns from FILE, one a line (# starts a comment)"};
constexpr OptionSpec kForce{"force", 0, nullptr, false, false, "replace an existing file"};
constexpr OptionSpec kSubject{"subject", 0,     "FILE.pub",
                              false,     false, "the subject's public key (or --subject-hash)"};
constexpr OptionSpec kSubjectHash{
    "subject-hash", 0, "FILE", false, false, "a file whose SHA-256 is the subject (or --subject)"};
constexpr OptionSpec kPropagate{"propagate", 0,     nullptr,
                                false,       false, "the subject may delegate what it is granted"};
constexpr OptionSpec kComment{"comment", 0, "TEXT", false, false, "a comment kept with the entry"};
constexpr OptionSpec kPassphraseFile{"passphrase-file",
                                     0,
                                     "FILE",
                                     false,
                                     false,
                                     "open an encrypted private key with the passphrase on the "
                                     "first line of FILE (a regular file of at most 4 KiB; a "
                                     "warning when group or others may read it)"};

constexpr OptionSpec kAclAdd[] = {
    kSubject,    kSubjectHash,
    kTagGranted, kPropagate,
    kNotBefore,  kNotAfter,
    kComment,    {"out", 0, "DIR/NAME.acl", false, true, "the entry file to write"},
    kForce};
constexpr OptionSpec kAuthorize[] = {
    {"acl-dir", 0, "DIR", false, true, "the directory of *.acl files"},
    {"certs", 0, "FILE.cert", false, true, "the certificates that may carry the grant"},
    {"key", 0, "FILE.pub", false, true, "the key asked about"},
    kTagGranted,
    kNotBefore,
    kNotAfter,
    {"any-time", 0, nullptr, false, false, "ask without a period (without dates: about now)"},
    kExplain,
    kJson,
    kQuiet};
constexpr OptionSpec kCertIssue[] = {
    {"issuer", 0, "KEY.pem", false, true, "the issuer's private key"},
    kSubject,
    kSubjectHash,
    kTagGranted,
    kPropagate,
    kNotBefore,
    kNotAfter,
    kComment,
    {"owner", 0, "TEXT", false, false, "a name for the issuer, kept outside the signature"},
    {"alg", 0, "rsa-pss|rsa-1.5|dsa-sha1", false, false,
     "the signature algorithm (default: rsa-pss for RSA keys)"},
    {"hash", 0, "sha1|sha256", false, false, "the hash the signature covers (default: sha256)"},
    {"revocation-scope", 0, "TEXT", false, false,
     "good only while a revocation list of this scope tag clears it"},
    {"out", 0, "FILE.cert", false, true, "the certificate file to append to (made when missing)"},
    {"prepend", 0, nullptr, false, false,
     "put the certificate first in FILE.cert: a chain file holds its leaf certificate first"},
    kPassphraseFile};
constexpr OptionSpec kCertVerify[] = {kStore,   kTagAsked, kNotBefore, kNotAfter,
                                      kExplain, kJson,     kQuiet};
constexpr OptionSpec kCompare[] = {kIgnore, kIgnoreFrom, kJson, kQuiet};
constexpr OptionSpec kCrlImport[] = {kStore};
constexpr OptionSpec kCrlIssue[] = {
    {"issuer", 0, "KEY.pem", false, true, "the list issuer's private key"},
    {"tag", 't', "TEXT", false, true, "the list's scope, such as '(revoke pkg)'"},
    {"revoke-cert", 0, "FILE.cert#N", true, false,
     "revoke certificate N (counted from 1) of FILE.cert"},
    {"revoke-key", 0, "FILE.pub", true, false, "revoke the key, in every certificate for it"},
    {"revoked-at", 0, "DATE", false, false, "when the revocations take effect (default: now)"},
    {"not-before", 0, "DATE", false, true,
     "the list's issue time: a store takes a new list only when it was issued later"},
    {"not-after", 0, "DATE", false, true, "the end of the list's period"},
    {"out", 0, "FILE.crl", false, true, "the list file, replaced whole"},
    kPassphraseFile};
constexpr OptionSpec kCrlVerify[] = {
    kStore, {"tag", 't', "TEXT", false, false, "the scope the list must have"}};
constexpr OptionSpec kKeyNew[] = {
    {"type", 0, "rsa|dsa", false, true, "the key type"},
    {"bits", 0, "N", false, false,
     "the key size: RSA 2048 to 16384, DSA 2048 or (weak) 1024 (default: 2048)"},
    {"out", 0, "NAME", false, true, "write NAME.pem (private, mode 0600) and NAME.pub"},
    {"passphrase-file", 0, "FILE", false, false,
     "encrypt NAME.pem (PKCS#8, AES-256-CBC) under the passphrase on the first line of FILE (a "
     "regular file of at most 4 KiB)"},
    {"encrypt", 0, nullptr, false, false,
     "encrypt NAME.pem under a passphrase asked twice on the terminal (without "
     "--passphrase-file)"},
    kForce};
constexpr OptionSpec kKeyShow[] = {kPassphraseFile};
constexpr OptionSpec kProgress = {
    "progress", 0,
    nullptr,    false,
    false,      "show progress on stderr when it is a terminal (the default; never elsewhere)"};
constexpr OptionSpec kNoProgress = {"no-progress", 0, nullptr, false, false, "show no progress"};
constexpr OptionSpec kManifestSign[] = {
    {"key", 0, "KEY.pem", false, true, "the signer's private key"},
    {"chain", 0, "FILE.cert", false, true, "the signer's chain, its own certificate first"},
    {"tag", 't', "TEXT", false, true, "the authorization the manifest claims"},
    {"out", 0, "FILE", false, true, "the manifest to write (left out of PKGDIR when inside it)"},
    {"name", 0, "NAME", false, false,
     "the package's name, recorded in the signed header (rollback protection knows it by it)"},
    {"time-of-signing", 0, "DATE", false, false, "the time of signing (default: now)"},
    {"crl", 0, "FILE.crl", true, false, "ship a revocation list in the manifest"},
    {"store", 's', "DIR", false, false,
     "ship the store's current list of every scope the chain's certificates name"},
    {"owners", 0, nullptr, false, false, "record each entry's owner and group"},
    kIgnore,
    kIgnoreFrom,
    kProgress,
    kNoProgress,
    kPassphraseFile};
constexpr OptionSpec kTagIntersect[] = {
    {"canonical", 0, nullptr, false, false, "print the intersection in canonical form"}};
constexpr OptionSpec kVerify[] = {
    kStore,
    kTagAsked,
    {"manifest", 0, "FILE", false, false, "the manifest (default: PKGDIR/manifest)"},
    kNotBefore,
    kNotAfter,
    {"allow-extra", 0, nullptr, false, false, "succeed though unlisted entries are found"},
    {"allow-older", 0, nullptr, false, false,
     "admit a manifest older than the newest verified for the package"},
    kIgnore,
    kIgnoreFrom,
    {"jobs", 'j', "N", false, false,
     "hash files on N threads (default: the configuration's jobs, else one per core); the "
     "report is the same for every N"},
    {"incremental", 0, nullptr, false, false,
     "take a file for valid unread while the store's cache (written after each verification "
     "that succeeds) shows its inode, size, times, mode and manifest entry unchanged, and a "
     "directory's listing while its times and listed names are"},
    {"no-cache", 0, nullptr, false, false,
     "forget the package's cache first: every file is read (and, with --incremental, the cache "
     "written anew)"},
    kExplain,
    kJson,
    kQuiet,
    kProgress,
    kNoProgress};

}  // namespace

const std::span<const Command> Commands() {
  static constexpr Command kCommands[] = {
      {"acl add", "",
       "write an ACL entry granting the subject TEXT; an existing file is kept unless --force",
       RunAclAdd, kAclAdd},
      {"acl list",
       "DIR",
       "print every entry of the *.acl files of DIR and say which files are skipped and "
       "why (exit 1 when any is)",
       RunAclList,
       {}},
      {"authorize", "",
       "ask whether the key holds TEXT under the ACL of DIR through the certificates of "
       "FILE.cert (signatures checked first); without dates the question is about now. Exit 0 "
       "authorized, 1 not, 2 usage, unreadable input or undecided (an engine limit or error)",
       RunAuthorize, kAuthorize},
      {"cert issue", "",
       "sign a certificate and append it to FILE.cert (or put it first with --prepend); with "
       "--revocation-scope the certificate is good only while a revocation list of that scope "
       "clears it. A chain file holds its leaf certificate first, each next one granting the "
       "issuer of the one before: a certificate put behind one it grants to, or before one "
       "that grants to it, is refused and the file kept (certificates of unrelated keys may "
       "stand anywhere)",
       RunCertIssue, kCertIssue},
      {"cert show",
       "FILE",
       "print each certificate of FILE as a C caller reads it: subject, issuer, tag, owner, "
       "period, revocation scope and the hash its signature covers",
       RunCertShow,
       {}},
      {"cert verify", "FILE",
       "verify the chain of FILE under the store: every signature, the revocation lists that "
       "the ACL names, then whether the ACL grants the first certificate's subject TEXT; "
       "without dates the question is about now. Exit 0 verified, 1 not (revoked, "
       "unauthorized, bad signature), 2 usage or unreadable input",
       RunCertVerify, kCertVerify},
      {"compare", "A B",
       "compare two manifests (their signatures and digests checked, not their signers): "
       "one line per changed, missing (in A only), extra (in B only) or moved entry and the "
       "counts, a changed entry with what differs; exit 0 when they list the same, 1 when "
       "not, 2 when one cannot be read",
       RunCompare, kCompare},
      {"crl import", "DIR",
       "import the *.crl files of DIR into the store: a list that verifies against the ACL "
       "replaces the stored list of its scope only when it was issued later (its not-before "
       "is later: an old list can never be replayed over a newer one) and lasts at least as "
       "long, or the stored one has not begun; a list whose period has not begun waits. The "
       "comparison and replacement run under the lock DIR/cert/store.lock. Says what was "
       "imported, kept or refused and why; exit 0, 1 when any list was refused, 2 when none "
       "reads",
       RunCrlImport, kCrlImport},
      {"crl issue", "",
       "sign a revocation list of a scope (such as '(revoke pkg)') covering the period; "
       "FILE.crl is replaced whole. Only certificates issued with --revocation-scope are "
       "looked up by certificate (a warning says so); --revoke-key reaches any certificate "
       "for the key",
       RunCrlIssue, kCrlIssue},
      {"crl show",
       "FILE",
       "print a revocation list: issuer, scope tag, period and every revoked certificate "
       "and key with its date",
       RunCrlShow,
       {}},
      {"crl verify", "FILE",
       "verify a revocation list against the ACL of the store, now: its issuer, its "
       "contents, its signature and its period. Exit 0 verified, 1 not, 2 unreadable",
       RunCrlVerify, kCrlVerify},
      {"key new", "",
       "make a key pair: NAME.pem (private, mode 0600; encrypted with --passphrase-file or "
       "--encrypt) and NAME.pub (canonical public key)",
       RunKeyNew, kKeyNew},
      {"key show", "FILE",
       "print a key's type, size and the SHA-256 fingerprint of its canonical form "
       "(FILE is a .pub or a .pem)",
       RunKeyShow, kKeyShow},
      {"manifest show",
       "FILE",
       "print a manifest: header, time of signing, the chain, the ignore patterns, the entry "
       "count and the tree with modes, owners and link targets (its signatures and digest "
       "checked first)",
       RunManifestShow,
       {}},
      {"manifest sign", "PKGDIR",
       "sign a manifest of every file, symlink and directory of PKGDIR: each entry records "
       "its mode (permission bits with setuid, setgid and sticky), a file its size and "
       "SHA-256, a symlink its target (never followed). FIFOs, sockets and devices are "
       "refused unless ignored; the ignore patterns are recorded in the signed manifest and "
       "honoured by every verification",
       RunManifestSign, kManifestSign},
      {"message",
       "CODE...",
       "print the message of result codes (negative: engine statuses)",
       RunMessage,
       {}},
      {"hash",
       "FILE...",
       "print the SHA-256 of each file as a manifest entry records it, in the form "
       "sha256sum prints (and sha256sum -c reads back); only regular files are read",
       RunHash,
       {}},
      {"show",
       "FILE",
       "print a canonical S-expression file in readable form (binary atoms as #hex# or "
       "|base64|, display hints as [hint])",
       RunShow,
       {}},
      {"tag compare",
       "A B",
       "print how tag A relates to tag B: equal, narrower (A implies B), broader, "
       "disjoint or overlapping. Tags are read as every command and export reads them, "
       "like '(ftp (* set read write))' or 'read': the body of (tag ...). Exit 0, 2 when a "
       "tag cannot be read",
       RunTagCompare,
       {}},
      {"tag intersect", "A B",
       "print the intersection of tags A and B (the authorization both grant). Exit 0, 1 "
       "when the tags are disjoint, 2 when a tag cannot be read",
       RunTagIntersect, kTagIntersect},
      {"verify", "PKGDIR",
       "is PKGDIR exactly what an authorized signer shipped? Verifies the manifest "
       "(signatures; every certificate of its chain against the revocation lists of the "
       "store that the ACL names and those shipped with the manifest; its signer's "
       "authorization for TEXT at the time of signing unless dates are given; its digest; "
       "rollback protection), then every entry of PKGDIR, its top level included (the "
       "manifest file excepted), never following a symlink: one line per changed, missing, "
       "extra or unreadable entry and the counts. A changed line says what differs: content, "
       "size, mode, owner, link target or type. Rollback protection refuses a manifest older "
       "than the newest verified for the same package (its recorded name, else its "
       "directory) or dated more than five minutes ahead; after a verification that succeeds "
       "in full, DIR/rollback records its time of signing (when DIR is writable). Exit 0 when "
       "it verifies and every entry is valid, 1 otherwise, 2 usage or unreadable input (a "
       "package directory that does not exist, a manifest that does not read as one)",
       RunVerify, kVerify},
  };
  return kCommands;
}

const Command* FindCommandNamed(const std::string& name) {
  for (const Command& command : Commands()) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

std::string Usage(const Command& command) {
  std::string usage = command.operands;
  for (const OptionSpec& option : command.options) {
    std::string word = option.short_name != 0 ? std::string("-") + option.short_name
                                              : std::string("--") + option.name;
    if (option.value != nullptr) word += std::string(" ") + option.value;
    if (!option.required) word = "[" + word + "]";
    if (option.repeated) word += "...";
    if (!usage.empty()) usage += ' ';
    usage += word;
  }
  return usage;
}

int UsageError(const char* name, const std::string& message) {
  std::fprintf(stderr, "velk2 %s: %s\n", name, message.c_str());
  for (const Command& c : Commands()) {
    if (std::strcmp(c.name, name) == 0)
      std::fprintf(stderr, "usage: velk2 %s %s\n", c.name, Usage(c).c_str());
  }
  return kExitUsage;
}

}  // namespace velk2::cli
