#include "trust/certificate_store.h"

#include <optional>
#include <utility>

#include "acl/acl_entry.h"
#include "credentials/date.h"
#include "frame/guard.h"
#include "sexp/reader.h"

namespace velk2 {

namespace {

// A date atom for a time that is given; null for 0.
Result DateAtom(int64_t time, Velk2Context* context, Ref<SexpAtom>* out) {
  if (time == 0) return VELK2_SUCCESS;
  Ref<SexpAtom> atom = SexpAtom::New(context);
  const Result result = WriteDate(atom.get(), time);
  if (result == kDateUnrepresentable) return VELK2_ERR_INVALID_PARAM;
  if (result == VELK2_SUCCESS) *out = std::move(atom);
  return result;
}

std::optional<int64_t> Given(int64_t time) {
  return time != 0 ? std::optional<int64_t>(time) : std::nullopt;
}

}  // namespace

SequenceVerdict VerifyChain(const ChainQuestion& question) {
  SequenceVerdict verdict{VELK2_ERR_PARAM_NULL, VerifyStage::kSignatures, 0};
  if (question.sequence == nullptr || question.tag == nullptr) return verdict;
  Velk2Context* context = question.sequence->context();
  verdict.result = Guard([&]() -> Result {
    Ref<SexpAtom> start, end;
    Ref<SexpList> validity;
    Result result = DateAtom(question.not_before, context, &start);
    if (result == VELK2_SUCCESS) result = DateAtom(question.not_after, context, &end);
    if (result == VELK2_SUCCESS) {
      result = MakeValidity(Given(question.not_before), Given(question.not_after), &validity);
    }
    if (result != VELK2_SUCCESS) return result;

    SequenceQuery query;
    query.context = context;
    query.load_acl = [context](Ref<SexpList>* acl) { return LoadAcl(acl, context, nullptr); };
    query.sequence = question.sequence;
    query.tag = question.tag;
    query.validity = validity.get();
    query.revocation = MakeRevocationCheck(context, start, end, question.findings);
    query.trace = question.trace;
    query.reduced_acl = question.reduced_acl;
    verdict = VerifySequence(query);
    return verdict.result;
  });
  return verdict;
}

}  // namespace velk2
