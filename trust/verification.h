// Verification of a certificate sequence, the one pipeline that every chain
// verdict goes through: `velk2 authorize`, `velk2 cert verify` and the
// certificate exports. (A manifest checks its pairs as it reads them and
// leaves revoked certificates out instead of failing, so it runs the same
// steps, CheckCertificate and the authorization query, in its own order.)
// Three stages, each stopping at its first failure:
//   1. signatures: every certificate/signature pair of the sequence, in order;
//   2. revocation: the caller's check of every certificate (none when no
//      check is given);
//   3. authorization: the certificates rebuilt without their revocation
//      specifications, put to AuthorizeKey with the caller's ACL, key, tag and
//      period.
#ifndef VELK2_TRUST_VERIFICATION_H_
#define VELK2_TRUST_VERIFICATION_H_

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "credentials/certificate_sequence.h"
#include "engine/reduce.h"
#include "frame/context.h"
#include "frame/result.h"
#include "sexp/object.h"

namespace velk2 {

enum class VerifyStage {
  kSignatures,
  kRevocation,
  kAuthorization,
};

// The revocation stage's question about one sequence: 0 when no certificate
// is revoked, else the code that ends the verification, with
// *certificate the 0-based index of the certificate that ended it.
using RevocationCheck = std::function<Result(
    const SexpList& acl, const CertificateSequence& sequence, size_t* certificate)>;

// Loads the ACL for a verification.
using AclLoader = std::function<Result(Ref<SexpList>* acl)>;

struct SequenceQuery {
  Velk2Context* context = nullptr;  // only its crypto word is used; may be null
  const SexpList* acl = nullptr;    // a list "acl" of entries
  // Without |acl|: loads it once the signatures hold (a failure ends the
  // verification in the revocation stage with VELK2_ERR_ACL_ENTRY_NOT_FOUND).
  AclLoader load_acl;
  const CertificateSequence* sequence = nullptr;
  // The key asked about; null: the subject of the first certificate.
  const SexpList* key = nullptr;
  const SexpList* tag = nullptr;            // (tag ...)
  const SexpList* validity = nullptr;       // (valid ...), or null for no period
  RevocationCheck revocation;               // empty: the stage passes
  engine::ReductionTrace* trace = nullptr;  // optional: the reduction's story
  std::string* reduced_acl = nullptr;       // optional: the printed reduced ACL
};

struct SequenceVerdict {
  Result result = VELK2_FAILURE;
  VerifyStage stage = VerifyStage::kSignatures;  // the stage that gave |result|
  // The 0-based index of the certificate whose signature or revocation ended
  // the verification; meaningless in the authorization stage.
  size_t certificate = 0;
};

// VerifySequence runs the three stages. VELK2_ERR_PARAM_NULL (38) for a null
// sequence or tag, or neither an ACL nor its loader; VELK2_ERR_INVALID_SEQUENCE (64) for an entry
// lacking its signature or owner list, and for a sequence with no entry when the key is to come
// from it (with a key of its own, an empty chain asks the ACL alone); VerifySignature's codes; the
// revocation check's code; AuthorizeKey's codes (31, 67, the engine's statuses, ...). 3 for memory.
SequenceVerdict VerifySequence(const SequenceQuery& query);

// MakeValidity builds the period a verification asks about: (valid
// [(not-before DATE)] [(not-after DATE)]) with each time that is given, as
// WriteDate writes it; *out stays null when neither is. 2 for a time with no
// date, 3 for memory.
Result MakeValidity(std::optional<int64_t> not_before, std::optional<int64_t> not_after,
                    Ref<SexpList>* out);

// RebuildForAuthorization makes a new (sequence ...) of the certificates of
// |sequence|, each rebuilt with its parts shared and its revocation
// specification left out: the engine reads only what grants.
Result RebuildForAuthorization(const CertificateSequence& sequence, Ref<SexpList>* out);

}  // namespace velk2

#endif  // VELK2_TRUST_VERIFICATION_H_
