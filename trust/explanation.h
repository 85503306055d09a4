// The explanation of a decision: from the reduction's own trace, whose
// tuples name the ACL entry or certificate they were read from and whose
// inputs carry every principal as the engine identifies it, the grants in
// words, where each came from, why the answer is no, and what was left out
// and why. Nothing is matched after the fact.
#ifndef VELK2_TRUST_EXPLANATION_H_
#define VELK2_TRUST_EXPLANATION_H_

#include <string>
#include <vector>

#include "credentials/certificate_sequence.h"
#include "engine/reduce.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "trust/revocation.h"
#include "trust/tool_api.h"

namespace velk2 {

// What was asked and what the reduction was given.
struct ExplanationSources {
  const SexpList* acl = nullptr;  // the (acl ...) put to the engine, entries in order
  // The certificates as read (numbered from 1 for people) and, for each
  // certificate put to the engine, its position in |sequence| (a manifest's
  // check leaves some out); empty: the same positions.
  const CertificateSequence* sequence = nullptr;
  std::vector<size_t> engine_certificates;
  std::string certificates_source;  // the certificates' file, as shown
  std::string acl_source;           // the ACL's directory, as shown
  std::string key_name;             // how to call the key asked about
  // The question.
  std::string tag;  // readable
  std::string not_before, not_after;
  bool at_now = false, any_time = false;
  // A manifest's revocation check: one finding per certificate of
  // |sequence|; a certificate with any state but kNotRevoked was left out.
  const std::vector<RevocationFinding>* revocation = nullptr;
};

// CertificateLabel: "certificate N of FILE (owner X)", N counted from 1,
// escaped for display.
std::string CertificateLabel(const ExplanationSources& sources, size_t index);
// RevocationFindingText: what a revocation check found about certificate
// |index| of |sources.sequence|, in words ("revoked by LIST on DATE", ...);
// empty when it was not revoked.
std::string RevocationFindingText(const ExplanationSources& sources,
                                  const RevocationFinding& finding, size_t index);

// Explain: the explanation of |result| from |trace| (recorded with its
// tuples) and the sources. |reduced|: the reduction ran to its end.
api::Explanation Explain(const ExplanationSources& sources, const engine::ReductionTrace& trace,
                         Result result, bool reduced);

// The part of an explanation that needs no trace: what the revocation
// check left out, and whether that is why the order check failed. Explain
// fills it too.
void ExplainRevocation(const ExplanationSources& sources, Result result, api::Explanation* out);

}  // namespace velk2

#endif  // VELK2_TRUST_EXPLANATION_H_
