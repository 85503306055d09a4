// The library's C++ face for the velk2 tool: every question the tool asks
// and every fact it prints, as plain data (strings, numbers, lists of them).
// The tool renders these as text or JSON; it computes none of them, so the
// tool and the C interface can never decide the same question apart.
//
// Structured values that come from files (paths, owners, dates, scopes)
// are handed over as they stand: the renderer escapes them. Sentences and
// names the library builds (grant texts, sources, reasons, principal names,
// the "why" of a verdict, readable tags and principal descriptions) are
// escaped for display already, since only the library knows which of their
// parts came from a file.
// Principals are named by fingerprint, the lowercase hex SHA-256 that the
// authorization engine gives them (what `velk2 key show` prints for a key).
//
// The chain, tag, ACL and credential questions are answered in trust/
// (tool_api.cc); the package questions in manifest/ (tool_api.cc there),
// the layer they belong to, which builds on this one.
#ifndef VELK2_TRUST_TOOL_API_H_
#define VELK2_TRUST_TOOL_API_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/progress.h"

namespace velk2::api {

using Result = uint32_t;  // a VELK2_RESULT, or an engine status passed through

// ---- Messages ------------------------------------------------------------------

// MessageOf: the message of a library result code, an engine status (a
// negative value read as 32 bits) or a crypto library status.
std::string MessageOf(long long value);
// Undecided: whether |value| means that a question could not be decided
// (an engine status or a crypto library status), as opposed to an answer.
bool Undecided(long long value);

// ---- Tags ------------------------------------------------------------------------

// A tag as the library read it.
struct Tag {
  std::string readable;   // "(pkg install)", the elements after the keyword
  std::string canonical;  // "(3:tag(3:pkg7:install))"
};
// ReadTag reads a tag text the one way the library and every export read
// one: each top-level element of the text is one element of (tag ...), every
// token an atom exactly as typed. The reader's codes (28, 29) when it does
// not read.
Result ReadTag(const std::string& text, Tag* out);

// CompareTags: how tag A relates to tag B, by the engine's tag algebra:
// "equal", "narrower", "broader", "disjoint" or "overlapping". The reader's
// codes, or the engine's status.
Result CompareTags(const std::string& a, const std::string& b, std::string* relation);
// IntersectTags: what both tags grant, readable (or canonical), each the
// body of (tag ...); *disjoint when nothing. The reader's codes, or the
// engine's status.
Result IntersectTags(const std::string& a, const std::string& b, bool canonical, bool* disjoint,
                     std::string* out);

// ---- Decisions and their explanations ---------------------------------------------

// One grant of a reduction: read from an ACL entry or a certificate, or made
// by chaining, resolving a name or combining a k-of-n group.
struct Grant {
  int id = 0;
  std::string kind;          // "acl entry", "certificate", "derived", "name", "threshold"
  std::string issuer;        // fingerprint; empty: the ACL
  std::string subject;       // fingerprint; empty: a k-of-n group
  std::string issuer_name;   // "the ACL", "subject of root.acl [ab12...]", "key [ab12...]"
  std::string subject_name;  // "build.pub [ab12...]", "a k-of-n group", ...
  bool propagate = false;
  std::string tag;         // readable; "everything" when it has none
  std::string not_before;  // date texts, empty when unlimited
  std::string not_after;
  std::vector<int> parents;
  // Where it came from: "ACL entry root.acl", "certificate chain.cert #2
  // (owner vendor)", "chained from [1] and [4]", ...
  std::string source;
  // The tag its entry or certificate states, when the reduction narrowed
  // it to the request; else empty.
  std::string stated_tag;
  // "X grants Y TAG, may delegate, PERIOD": the whole grant in words.
  std::string text;
};

// What a revocation check found about one certificate that it left out.
struct RevokedCertificate {
  size_t certificate = 0;  // 1-based
  std::string owner;
  std::string state;  // "revoked", "subject key revoked", "issuer key revoked", "no current list"
  std::string list;   // the stored list's file, or empty for a list shipped with a manifest
  std::string list_scope;  // the list's scope, readable
  std::string revoked_on;  // date text
  std::string why;         // in words
};

// Why a decision came out as it did.
struct Explanation {
  // The question.
  std::string key;                    // fingerprint of the key asked about
  std::string key_name;               // "build.pub", "the manifest", ...
  std::string tag;                    // readable
  std::string not_before, not_after;  // the period asked about
  bool at_now = false;                // no period given: the question is about now
  bool any_time = false;              // no period at all
  // What was loaded.
  std::string acl_source;  // the ACL directory
  size_t acl_entries = 0;
  std::string certificates_source;
  size_t certificates = 0;
  // The reduction.
  bool reduced = false;  // it ran to its end
  bool limit_reached = false;
  std::string limit;                  // which limit stopped it
  std::vector<Grant> result;          // the reduced ACL, in order (only the first decides)
  std::vector<Grant> chain;           // the grants that led to the result, parents first
  std::vector<Grant> considered;      // every grant that joined the reduction
  std::vector<std::string> reasons;   // why not, in words
  std::vector<std::string> left_out;  // entries and certificates outside the period or the tag
  std::vector<RevokedCertificate> left_out_by_revocation;
  // Whether the order check's code (36) was the revocation check's doing:
  // it left the signer's certificate out.
  bool revocation_explains_order = false;
  std::string revocation_cause;  // "certificate N of FILE was left out of the chain: WHY; ..."
};

enum class Stage { kSignatures, kRevocation, kAuthorization };
const char* StageName(Stage stage);  // "signatures", "revocation", "authorization"

struct SkippedFile {
  std::string file;  // as found in the directory
  Result code = 0;
};

// The answer to a chain question, with the explanation when it was asked for.
struct Verdict {
  Result result = 1;
  Stage stage = Stage::kSignatures;  // the stage that gave |result|
  // For a failure before the authorization: the certificate (1-based) and
  // what about it, in words; and the list that revoked it, when one did.
  size_t certificate = 0;
  std::string owner;
  std::string why;
  std::string revoked_by, revoked_on;
  std::vector<SkippedFile> skipped;  // ACL files that did not load
  bool explained = false;            // |explanation| holds the reasons
  Explanation explanation;
};

// The period of a question.
struct Period {
  std::optional<int64_t> not_before, not_after;  // seconds since 1970 UTC
  bool at_now = false;    // neither was given by a person: the question is about now
  bool any_time = false;  // no period at all
};

// ---- Chains ----------------------------------------------------------------------

// `velk2 authorize`: does |key| hold |tag| under the ACL of |acl_directory|
// through the certificates of |certificates_file|? Signatures first.
struct AuthorizeRequest {
  std::string acl_directory;
  std::string certificates_file;
  std::string key;       // the key's canonical form (its .pub file, or the public half of a .pem)
  std::string key_name;  // how to call it: its file
  std::string tag;       // tag text, read by ReadTag
  Period period;
  bool explain = false;  // keep the reduction's every step (costly with a big ACL)
  // Called with each ACL file that does not load, as it is met.
  std::function<void(const SkippedFile&)> on_skipped;
};
// What went wrong before any question could be put: which input, and why.
struct InputProblem {
  std::string what;  // "tag", "acl", "certificates", "key", "store", "period"
  Result code = 0;
};
// Authorize: 0 and |verdict| filled, or the input problem's code.
Result Authorize(const AuthorizeRequest& request, Verdict* verdict, InputProblem* problem);

// `velk2 cert verify`: the library's own chain question (Velk2CertVerifyFile)
// under the Global store set by Velk2GlobalDirectoryA: signatures, the
// revocation lists the ACL names, authorization of the first certificate's
// subject.
struct ChainRequest {
  std::string certificates_file;
  std::string tag;
  Period period;
  bool explain = false;
};
Result VerifyChain(const ChainRequest& request, Verdict* verdict, InputProblem* problem);

// ---- ACLs ------------------------------------------------------------------------

struct AclEntryInfo {
  std::string file;  // the entry's file, as found in the directory
  std::string
      subject;  // the principal described: "rsa key <fingerprint>", "hash sha256 <hex>", ...
  bool propagate = false;
  std::string tag;  // readable
  std::string not_before, not_after;
  uint32_t generation = 0;
  std::string comment;    // readable, empty for none
  bool too_deep = false;  // nested deeper than the engine goes: every question fails
};
struct AclListing {
  std::vector<AclEntryInfo> entries;
  std::vector<std::pair<std::string, Result>> skipped;  // file, why
  // The library keeps the result of the last file: without an extra
  // directory, a bad last file discards the whole ACL.
  bool last_file_failed = false;
  std::string last_file;
};
// ListAcl reads every "*.acl" file of |directory| in the library's order.
// VELK2_ERR_FIND_DIR (26) when it is no directory; VELK2_ERR_FILE_OPEN (7)
// when it holds no "*.acl" file.
Result ListAcl(const std::string& directory, AclListing* out);

// ---- Credentials shown ---------------------------------------------------------------

struct CertificateInfo {
  std::string subject, issuer;  // described principals
  std::string tag;              // readable; empty: none (grants everything the issuer holds)
  bool propagate = false;
  std::string owner;  // empty when the owner list has another shape
  std::string not_before, not_after;
  std::string revocation_scope;  // readable; empty when it asks for no lists
  std::string hash;              // "sha256:HEX", the digest its signature covers
};
// DescribeCertificateFile: each certificate of a file as a C caller reads it.
Result DescribeCertificateFile(const std::string& path, std::vector<CertificateInfo>* out);

struct RevokedItem {
  std::string hash;  // "sha256:HEX"
  std::string date;
};
struct RevocationListInfo {
  std::string issuer;  // described principal
  std::string scope;   // readable
  std::string not_before, not_after;
  std::vector<RevokedItem> certificates, keys;
};
Result DescribeRevocationList(const std::string& path, RevocationListInfo* out);

// `velk2 crl verify`: is the list good at |now| under the Global store's
// ACL (Velk2CrlVerify), and, with |tag|, of that scope?
struct ListVerdict {
  Result result = 1;
  std::string scope;  // readable, empty when the list has none
  int64_t not_before = 0, not_after = 0;
};
Result VerifyRevocationListFile(const std::string& path, const std::optional<std::string>& tag,
                                int64_t now, ListVerdict* out);

// `velk2 crl import`: what happened to each list file of |directory|.
struct ImportedList {
  std::string source, store_path;
  // "imported", "unreadable", "no store name", "not yet valid", "older than stored",
  // "same issue time", "already stored", "stored is newer", "lock failed", "unverified",
  // "write failed"
  std::string outcome;
  Result code = 0;
  std::string issued, stored_issued, ends, stored_ends;
};
// 54 when no ACL loads from the Global store (nothing is imported);
// VELK2_ERR_CRL_NOT_FOUND (73) when no list file reads; else 0.
Result ImportRevocationLists(const std::string& directory, std::vector<ImportedList>* out);

// ReadableFile: a canonical S-expression file in readable form, one
// element per line. On failure |*at| (when the file was read) is the byte
// where reading stopped.
Result ReadableFile(const std::string& path, std::string* text, std::optional<int64_t>* at);

// HashFile: the SHA-256 of a regular file as a manifest entry records it.
Result HashFile(const std::string& path, std::string* hex);

// ---- Packages (answered in manifest/) ------------------------------------------------

// What differs between what an entry records and what was found.
struct Change {
  std::string kind;             // "type", "content", "size", "mode", "owner", "link target"
  std::string expected, found;  // digests in hex, modes in octal, owners "uid:gid", ...
};

// One entry of a package report.
struct Entry {
  std::string path;  // relative to the package (or as the manifest names it), its bytes as on disk
  std::string status;           // "valid", "changed", "missing", "extra", "unreadable"
  std::vector<Change> changes;  // for a changed entry, what differs
  // Why it could not be read, for an entry that could not ("Permission
  // denied"): no success. It is "unreadable" unless what could be seen
  // (mode, owner, type) already shows it changed.
  std::string unreadable;
  bool directory = false;
  bool listed = false;          // a directory the manifest lists
  bool changed_during = false;  // rewritten while it was read
  // A directory the manifest lists is changed or has extra entries when
  // anything below it has: its files say what, and it is neither counted
  // nor printed.
  bool counted = true;
};
struct Move {
  std::string from, to;
};
struct Counts {
  // An unreadable entry counts as unreadable, in no other count.
  size_t valid = 0, changed = 0, missing = 0, extra = 0, moved = 0, unreadable = 0;
};
// The comparison of a manifest's tree with the disk or with another
// manifest: every entry in the order found, the moves (a missing file whose
// content turned up as an extra file), the counts.
struct TreeReport {
  std::vector<Entry> entries;
  std::vector<Move> moves;
  // Per entry, whether it is shown as part of a move rather than on its own.
  std::vector<bool> in_move;
  Counts counts;
};

struct PackageRequest {
  std::string package;
  std::string manifest;  // empty: PACKAGE/manifest
  std::string tag;
  int64_t not_before = 0, not_after = 0;  // 0 = not given
  bool allow_extra = false;
  bool allow_older = false;  // rollback protection admits an older manifest
  // Ignore patterns (see manifest/patterns.h) added to those the manifest
  // records; a pattern that does not read is an input problem.
  std::vector<std::string> ignore;
  // The package directory itself is scanned for extra entries (the manifest
  // file excepted), as the tool always does.
  bool scan_root = true;
  unsigned threads = 1;
  bool explain = false;
  // Valid entries are in the report's entries too; false: only counted.
  bool list_valid = true;
  // Incremental verification: files the store's cache vouches for are not
  // read, and the cache is written after success (manifest/cache.h).
  bool incremental = false;
  // The package's cache is forgotten first (with |incremental|, written anew).
  bool forget_cache = false;
  // Called before the disk is read with the number of files listed and the
  // sizes they record; |counters| (optional) count bytes and files as they
  // are read, for a caller that shows progress from another thread.
  std::function<void(size_t files, uint64_t bytes)> on_start;
  HashCounters* counters = nullptr;
};

struct RollbackInfo {
  bool checked = false;
  std::string package;  // the name, or the directory
  bool named = false;
  int64_t time_of_signing = 0;
  std::optional<int64_t> recorded;  // the newest time recorded before
  std::string refused;              // "", "older", "future", "malformed"
  bool allowed_older = false;
  bool advanced = false;  // the record now holds this time of signing
  bool written = false;   // the record is up to date
  bool read_only = false;
  Result write_result = 0;
  std::string record_path;
};

struct PackageVerdict {
  Result result = 1;  // VerifyManifest's code
  // What is wrong with the question rather than with the package: empty when
  // nothing is, else "no package directory", "not a directory", "not a
  // manifest", "not an ignore pattern: P".
  std::string input_problem;
  bool manifest_read = false;   // the manifest file could be read at all
  bool verified = false;        // every check of the manifest itself held
  std::string time_of_signing;  // date text
  size_t lists_from_store = 0, lists_embedded = 0;
  // The signer's story (its verdict is the authorization's own code).
  bool has_signer = false;
  Verdict signer;
  RollbackInfo rollback;
  TreeReport report;  // when the manifest verified and was not refused
  // Incremental verification: files taken for valid from the cache without
  // being read; whether the cache now holds this verification's entries;
  // why it was not read or not written ("" when nothing went wrong).
  size_t cache_trusted = 0;
  size_t cache_listings = 0;  // directories whose listing the cache vouched for
  bool cache_written = false;
  bool cache_forgotten = false;
  std::string cache_directory;
  std::string cache_problem;
};
// VerifyPackage asks what VerifyManifest asks (with rollback protection, as
// the tool always does) under the Global store set by Velk2GlobalDirectoryA,
// and reports it. Returns the verdict's result.
Result VerifyPackage(const PackageRequest& request, PackageVerdict* out);

// CompareManifests: how manifest B's tree differs from A's (their
// signatures and digests checked, not their signers). 22, 5, 74 or 0; the
// reader's codes when one does not read.
// |ignore|: patterns added to those manifest A records.
Result CompareManifests(const std::string& a, const std::string& b,
                        const std::vector<std::string>& ignore, TreeReport* out);

// One file or directory of a manifest's tree, depth first.
struct TreeLine {
  int depth = 0;
  std::string name;  // its bytes as recorded
  bool directory = false;
  bool link = false;
  std::string digest;  // hex, files and links
  std::string target;  // a link's target
  std::string mode;    // octal, when recorded
  std::string owner;   // "uid:gid", when recorded
};
struct ManifestInfo {
  std::string version, type;        // readable
  std::string name;                 // the package name its header records, or empty
  std::vector<std::string> ignore;  // the ignore patterns it records
  std::string time_of_signing;
  std::vector<CertificateInfo> chain;
  struct ShippedList {
    std::string scope, not_before, not_after;
  };
  std::vector<ShippedList> lists;
  size_t entries = 0;
  std::vector<TreeLine> tree;
};
// DescribeManifest reads a manifest (signatures and digest checked, not its
// signers): the reader's codes, 32 for an altered body.
Result DescribeManifest(const std::string& path, ManifestInfo* out);

}  // namespace velk2::api

#endif  // VELK2_TRUST_TOOL_API_H_
