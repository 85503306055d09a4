// Revocation lists against the ACL: verifying a list, loading the lists that
// the ACL's revocation entries name, matching a key or a certificate against
// them, the revocation check of a certificate sequence, finding a stored list
// and importing lists into the store.
//
// A list is trusted when an ACL entry with the same tag names its issuer: the
// last entry with the list certificate's tag decides. The ACL entries whose
// tag starts with a list headed "revoke" name the lists that checks load:
// the file "<tag text>.crl" in the Global directory's "cert" subdirectory.
#ifndef VELK2_TRUST_REVOCATION_H_
#define VELK2_TRUST_REVOCATION_H_

#include <string>
#include <vector>

#include "trust/verification.h"
#include "credentials/certificate.h"
#include "credentials/certificate_sequence.h"
#include "credentials/revocation_list.h"
#include "frame/context.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"

namespace velk2 {

// VerifyRevocationList checks |list| against |acl| and marks it verified.
// VELK2_ERR_INVALID_PARAM (2) for a null list or an ACL that is null or empty;
// VELK2_ERR_ACL_ENTRY_NOT_FOUND (54) when the ACL holds no entry, no entry has
// the list certificate's tag, or the last one that has it names another
// subject than the list's issuer; VELK2_ERR_HASH_ID (16) when the list
// certificate's subject is not a hash value; VELK2_ERR_SIGNATURE (21) when it
// is not the hash of the list-body; VerifySignature's codes.
Result VerifyRevocationList(const SexpList* acl, RevocationList* list);

// RevocationStoreName: the name a list with |tag| is stored under, the tag's
// readable text without its keyword: (tag (revoke pkg)) is "(revoke pkg)".
// False when the tag has no such text or the text cannot be a file name here
// (empty, "." or "..", a "/" or "\", a control byte, ill-formed UTF-8), so a
// signed tag never names a file outside the store.
bool RevocationStoreName(const SexpList* tag, std::u16string* name);

// The lists a check consults, in ACL order.
using RevocationLists = std::vector<Ref<RevocationList>>;

// LoadRevocationLists reads, for every ACL entry whose tag begins with a list
// headed "revoke", the stored list of that tag; missing or unreadable lists
// are passed over. 2 for a null or empty ACL; 3 for memory.
Result LoadRevocationLists(const SexpList* acl, Velk2Context* context, RevocationLists* out);

// What a match found: the list and the item that revoked the thing.
struct RevocationHit {
  const RevocationList* list = nullptr;
  RevokedItem item;
};

// The question of one match.
struct RevocationQuery {
  const SexpList* acl = nullptr;           // verifies the lists that are used
  const RevocationLists* lists = nullptr;  // consulted in order
  const SexpList* scope = nullptr;         // (tag ...): only lists with this tag; null: all
  const SexpAtom* start = nullptr;         // the period asked about; either may be null
  const SexpAtom* end = nullptr;
  // CheckCertificate looks each certificate's issuer key up too (a manifest's
  // check: its object certificate's issuer is the signing key).
  bool issuers = false;
};

// MatchRevoked looks |thing| up: a key in the lists' key items (a hit is
// VELK2_ERR_KEY_REVOKED (68)), a certificate body in their certificate items
// (VELK2_ERR_CERT_REVOKED (66)). A hit counts only in a list that verifies.
// With both dates, a certificate revoked after the start of the period was
// still good then and does not count, and certificate mode also asks that a
// verified list speaks for the period: VELK2_ERR_CRL_NOT_FOUND (73) when no
// verified list has a not-after date, VELK2_ERR_NOT_AFTER (52) when none
// covers the period and the latest not-after lies before its start. *hit
// (optional) says what revoked it. Crypto codes as they come.
Result MatchRevoked(RevokedKind kind, const RevocationQuery& query, const SexpObject& thing,
                    RevocationHit* hit);

// RevocationScopeOf: the scope a certificate's revocation element names,
// (tag e1 e2 ...) of the elements after its keyword. 3 for memory.
Result RevocationScopeOf(const SexpList& revocation, Ref<SexpList>* out);

// CheckCertificate sets |certificate|'s revocation state: its subject key is
// looked up first (68: kSubjectKeyRevoked), then, when the query asks for
// issuers, its issuer's key (68: kIssuerKeyRevoked); then, when it carries a
// revocation specification, the certificate itself in the lists of the scope
// that it names (66: kCertificateRevoked). Any other failure
// leaves kRevocationUnchecked. The match's code.
Result CheckCertificate(const RevocationQuery& query, const Certificate& certificate,
                        RevocationHit* hit);

// What the revocation check found about one certificate of a sequence.
struct RevocationFinding {
  RevocationState state = kNotRevoked;
  Result code = VELK2_SUCCESS;  // the check's code
  // The list that revoked it: its file, empty for a list that came with a
  // manifest, and its scope (the readable text of its tag).
  std::u16string list_path;
  std::string list_scope;
  std::string revoked_on;  // the revocation date of its item
};

// CheckSequence checks every certificate of |sequence| (CheckCertificate),
// which sets each one's revocation state; |findings| (optional) receives one
// finding per certificate. VELK2_ERR_MEM_ALLOC (3) for memory, else 0: what
// a check found is in the states.
Result CheckSequence(const RevocationQuery& query, const CertificateSequence& sequence,
                     std::vector<RevocationFinding>* findings);

// MakeRevocationCheck: the pipeline's revocation stage. It loads the lists
// that the ACL names, checks every certificate for the period [start, end]
// (either may be null), then walks them in order: a revoked one ends it with
// 66, one whose check could not be completed with 73. |findings| (optional)
// receives one finding per certificate.
RevocationCheck MakeRevocationCheck(Velk2Context* context, Ref<SexpAtom> start, Ref<SexpAtom> end,
                                    std::vector<RevocationFinding>* findings);

// FindStoredRevocationList: the first list, in name order, of the Global
// directory's "cert" subdirectory whose certificate has |tag|. Unreadable
// files and lists of other tags are passed over. 38 for a null tag;
// VELK2_ERR_FIND_DIR (26) when the directory path cannot be built; the
// enumeration's code when it cannot start; VELK2_ERR_ACL_ENTRY_NOT_FOUND (54)
// when no list has the tag.
Result FindStoredRevocationList(const SexpList* tag, Velk2Context* context,
                                Ref<RevocationList>* out);

// What an import did with one list file.
enum class ImportOutcome {
  kImported,
  kUnreadable,       // the file does not read as a list
  kNoStoreName,      // its tag gives no usable file name
  kNotYetValid,      // its period has not begun
  kOlderThanStored,  // the stored list was issued later (its not-before is later)
  kSameIssueTime,    // the stored list was issued at the same time and differs
  kAlreadyStored,    // the stored list is the same list
  kStoredIsNewer,    // the stored list lasts longer
  kLockFailed,       // the store's lock could not be taken
  kUnverified,       // it does not verify against the ACL
  kWriteFailed,
};
struct ImportRecord {
  std::u16string source;      // the file imported from
  std::u16string store_path;  // where it is (or would be) stored; may be empty
  ImportOutcome outcome = ImportOutcome::kUnreadable;
  Result code = VELK2_SUCCESS;  // the reader's, verifier's or writer's code
  // When a stored list was compared: the issue times (not-before dates) and
  // the ends (not-after dates) of both, as date texts (empty when a list
  // names none).
  std::string issued, stored_issued, ends, stored_ends;
};

// ImportRevocationLists imports the "*.crl" files of |directory| into the
// store. A list replaces the stored list of its tag when there is none. It
// never replaces a list issued later or at the same time (not-before dates
// compared), so an old list cannot be replayed over a newer one; issued
// later, and its period begun, it replaces a stored list whose period has
// not begun or that ends no later than it does. A list whose period has not
// begun is never imported. Each list must verify against the ACL; it is
// written whole through a temporary file, so a reader sees the old list or
// the new one, and the comparison and replacement happen under the store's
// lock (LockGlobalStore), so concurrent imports end with the newest list.
// 0, doing nothing, when the ACL does not load; VELK2_ERR_CRL_NOT_FOUND (73)
// when no list file reads; else 0 whatever happened to each list.
// |records| (optional) receives one record per "*.crl" file, in name order.
Result ImportRevocationLists(const char16_t* directory, Velk2Context* context,
                             std::vector<ImportRecord>* records);

}  // namespace velk2

#endif  // VELK2_TRUST_REVOCATION_H_
