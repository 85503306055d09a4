// The question a certificate file answers: does the chain it holds, checked
// against the revocation lists and the ACL of the store, grant its first
// certificate's subject a tag in a period? Asked by the certificate exports
// and by `velk2 cert verify`, through the one verification pipeline.
#ifndef VELK2_TRUST_CERTIFICATE_STORE_H_
#define VELK2_TRUST_CERTIFICATE_STORE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "credentials/certificate_sequence.h"
#include "engine/reduce.h"
#include "trust/revocation.h"
#include "trust/verification.h"

namespace velk2 {

struct ChainQuestion {
  const CertificateSequence* sequence = nullptr;
  const SexpList* tag = nullptr;  // (tag ...)
  // The period, in seconds since 1970 UTC; 0 = not given. The revocation
  // lists are asked about the same period.
  int64_t not_before = 0;
  int64_t not_after = 0;
  // Optional: what each stage found, for a caller that explains the verdict.
  std::vector<RevocationFinding>* findings = nullptr;
  engine::ReductionTrace* trace = nullptr;
  std::string* reduced_acl = nullptr;
};

// VerifyChain: the signatures of every entry; the revocation state of every
// certificate under the lists that the Global ACL names (66 revoked, 73 when
// no verified list speaks for a certificate that asks for one); then
// AuthorizeKey with the Global ACL (54 when it does not load), the chain
// rebuilt without its revocation specifications, the first certificate's
// subject, the tag and the period. 38 for a null sequence or tag; 2 for a
// time that has no date text.
SequenceVerdict VerifyChain(const ChainQuestion& question);

}  // namespace velk2

#endif  // VELK2_TRUST_CERTIFICATE_STORE_H_
