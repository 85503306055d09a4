#include "credentials/certificate_sequence.h"

#include <utility>

#include "frame/guard.h"
#include "sexp/reader.h"

namespace velk2 {

const CertificateSequence* CertificateSequence::From(const SexpObject* object) {
  const SexpList* list = object ? object->AsList() : nullptr;
  return list && list->ClassFlag() == kClassCertificateSequence
             ? static_cast<const CertificateSequence*>(list)
             : nullptr;
}

Result CertificateSequence::Parse(SexpSource* source) {
  if (source == nullptr || ChildCount() != 0) return VELK2_ERR_INVALID_PARAM;
  Result result = source->Expect("(8:sequence");
  if (result != VELK2_SUCCESS) return result;
  result = AppendTextAtom("sequence");
  if (result != VELK2_SUCCESS) return result;
  while (MatchLiteral(source, "(", kExpectPeek)) {
    Ref<Certificate> certificate = Certificate::New(context());
    result = certificate->Parse(source);
    if (result != VELK2_SUCCESS) return result;
    result = Append(std::move(certificate));
    if (result != VELK2_SUCCESS) return result;

    Ref<Signature> signature = Signature::New(context());
    result = signature->Parse(source);
    if (result != VELK2_SUCCESS) return result;
    result = Append(std::move(signature));
    if (result != VELK2_SUCCESS) return result;

    Ref<SexpList> owner;
    result = ParseCanonicalList(&owner, source, context());
    if (result != VELK2_SUCCESS) return result;
    result = Append(std::move(owner));
    if (result != VELK2_SUCCESS) return result;
  }
  return source->Expect(")");
}

CertificateEntry CertificateSequence::entry(size_t index) const {
  CertificateEntry entry;
  if (index >= entry_count()) return entry;
  const size_t first = 1 + 3 * index;
  entry.certificate = Certificate::From(ChildAt(first));
  entry.signature = Signature::From(ChildAt(first + 1));
  entry.owner = ChildAt(first + 2)->AsList();
  return entry;
}

Result ReadCertificateFile(Ref<CertificateSequence>* out, const char16_t* path,
                           Velk2Context* context) {
  if (out == nullptr || *out != nullptr || path == nullptr || *path == 0) {
    return VELK2_ERR_INVALID_PARAM;
  }
  return Guard([&]() -> Result {
    SexpMemorySource source;
    if (source.LoadFile(path) != VELK2_SUCCESS) return VELK2_ERR_FILE_OPEN;
    Ref<CertificateSequence> sequence = CertificateSequence::New(context);
    sequence->SetLocation(kStoreVerbatim);
    Result result = sequence->Parse(&source);
    if (result != VELK2_SUCCESS) return result;
    if (source.position() != source.length()) return VELK2_ERR_PARSE_FILE;
    *out = std::move(sequence);
    return VELK2_SUCCESS;
  });
}

}  // namespace velk2
