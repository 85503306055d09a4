#include "trust/verification.h"

#include <utility>

#include "trust/authorize.h"
#include "credentials/certificate.h"
#include "credentials/date.h"
#include "credentials/signature.h"
#include "frame/guard.h"

namespace velk2 {

namespace {

// Every entry has its three lists.
bool Complete(const CertificateSequence& sequence) {
  const size_t children = sequence.ChildCount();
  if (children < 1 || (children - 1) % 3 != 0) return false;
  for (size_t i = 0; i < sequence.entry_count(); ++i) {
    const CertificateEntry entry = sequence.entry(i);
    if (entry.certificate == nullptr || entry.signature == nullptr || entry.owner == nullptr) {
      return false;
    }
  }
  return true;
}

SequenceVerdict Verdict(Result result, VerifyStage stage, size_t certificate = 0) {
  return {result, stage, certificate};
}

SequenceVerdict Run(const SequenceQuery& query) {
  const CertificateSequence& sequence = *query.sequence;
  // Without a key of its own the question is about the first certificate's
  // subject, so there must be one.
  if (!Complete(sequence) || (query.key == nullptr && sequence.entry_count() == 0)) {
    return Verdict(VELK2_ERR_INVALID_SEQUENCE, VerifyStage::kSignatures);
  }

  // A chain with one bad link is no chain.
  for (size_t i = 0; i < sequence.entry_count(); ++i) {
    const CertificateEntry entry = sequence.entry(i);
    const Result result = VerifySignature(entry.signature, entry.certificate);
    if (result != VELK2_SUCCESS) return Verdict(result, VerifyStage::kSignatures, i);
  }

  Ref<SexpList> loaded;
  const SexpList* acl = query.acl;
  if (acl == nullptr) {
    if (query.load_acl(&loaded) != VELK2_SUCCESS || loaded == nullptr) {
      return Verdict(VELK2_ERR_ACL_ENTRY_NOT_FOUND, VerifyStage::kRevocation);
    }
    acl = loaded.get();
  }

  if (query.revocation) {
    size_t revoked = 0;
    const Result result = query.revocation(*acl, sequence, &revoked);
    if (result != VELK2_SUCCESS) return Verdict(result, VerifyStage::kRevocation, revoked);
  }

  Ref<SexpList> rebuilt;
  Result result = RebuildForAuthorization(sequence, &rebuilt);
  if (result != VELK2_SUCCESS) return Verdict(result, VerifyStage::kAuthorization);
  const SexpList* key = query.key != nullptr ? query.key : sequence.entry(0).certificate->subject();
  result = trust_internal::Authorize(query.context, acl, rebuilt.get(), key, query.tag,
                                   query.validity, query.trace, query.reduced_acl);
  return Verdict(result, VerifyStage::kAuthorization);
}

}  // namespace

Result MakeValidity(std::optional<int64_t> not_before, std::optional<int64_t> not_after,
                    Ref<SexpList>* out) {
  if (out == nullptr) return VELK2_ERR_PARAM_NULL;
  out->reset();
  if (!not_before && !not_after) return VELK2_SUCCESS;
  Ref<SexpList> valid;
  Result result = NewKeywordList(&valid, "valid", nullptr);
  const std::pair<const char*, std::optional<int64_t>> fields[] = {{"not-before", not_before},
                                                                   {"not-after", not_after}};
  for (const auto& [keyword, time] : fields) {
    if (result != VELK2_SUCCESS || !time) continue;
    const std::string text = DateText(*time);
    if (text.empty()) return VELK2_ERR_INVALID_PARAM;
    Ref<SexpList> field;
    result = NewKeywordListWithText(&field, keyword, text.c_str(), nullptr);
    if (result == VELK2_SUCCESS) result = valid->Append(std::move(field));
  }
  if (result == VELK2_SUCCESS) *out = std::move(valid);
  return result;
}

Result RebuildForAuthorization(const CertificateSequence& sequence, Ref<SexpList>* out) {
  if (out == nullptr) return VELK2_ERR_PARAM_NULL;
  Ref<SexpList> rebuilt;
  Result result = NewKeywordList(&rebuilt, "sequence", sequence.context());
  for (size_t i = 0; i < sequence.entry_count() && result == VELK2_SUCCESS; ++i) {
    const Certificate* certificate = sequence.entry(i).certificate;
    if (certificate == nullptr) return VELK2_ERR_INVALID_SEQUENCE;
    CertificateFields fields = certificate->fields();
    fields.revocation_spec = nullptr;
    Ref<Certificate> copy = Certificate::New(sequence.context());
    result = BuildCertificate(copy.get(), fields);
    if (result == VELK2_SUCCESS) result = rebuilt->Append(std::move(copy));
  }
  if (result == VELK2_SUCCESS) *out = std::move(rebuilt);
  return result;
}

SequenceVerdict VerifySequence(const SequenceQuery& query) {
  if ((query.acl == nullptr && !query.load_acl) || query.sequence == nullptr ||
      query.tag == nullptr) {
    return Verdict(VELK2_ERR_PARAM_NULL, VerifyStage::kSignatures);
  }
  SequenceVerdict verdict;
  verdict.result = Guard([&]() -> Result {
    verdict = Run(query);
    return verdict.result;
  });
  return verdict;
}

}  // namespace velk2
