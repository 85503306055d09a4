#include "credentials/credential.h"

#include "sexp/reader.h"

namespace velk2 {

Result Principal::VerifyObjectSignature(const SexpAtom* /*algorithm*/,
                                        const SexpAtom* /*signature_bytes*/,
                                        const HashValue* /*hash*/,
                                        const SexpObject* /*object*/) const {
  return VELK2_ERR_NOT_IMPLEMENTED;
}

Result Principal::VerifyBlobSignature(const SexpAtom* /*algorithm*/, const uint8_t* /*blob*/,
                                      uint32_t /*blob_length*/, const uint8_t* /*data*/,
                                      uint32_t /*data_length*/) const {
  return VELK2_ERR_NOT_IMPLEMENTED;
}

bool MatchLiteral(SexpSource* source, const char* literal, uint32_t mode) {
  return source != nullptr && literal != nullptr &&
         source->Expect(literal, kLiteralLength, mode) == VELK2_SUCCESS;
}

Result ReadFieldAtom(SexpSource* source, Ref<SexpAtom>* atom, Velk2Context* context) {
  Result result = ReadCanonicalAtom(atom, source, context);
  if (result != VELK2_SUCCESS) return result;
  return source->Expect(")");
}

Result ReadOptionalAtomField(SexpSource* source, SexpList* holder, const char* literal,
                             const char* keyword, Ref<SexpAtom>* atom) {
  atom->reset();
  if (!MatchLiteral(source, literal, kExpectOptional)) return VELK2_SUCCESS;
  Ref<SexpAtom> value;
  Result result = ReadFieldAtom(source, &value, holder->context());
  if (result != VELK2_SUCCESS) return result;
  *atom = value;
  return AppendField(holder, keyword, std::move(value));
}

Result ReadOptionalValidField(SexpSource* source, SexpList* holder, Ref<SexpAtom>* not_before,
                              Ref<SexpAtom>* not_after) {
  not_before->reset();
  not_after->reset();
  if (!MatchLiteral(source, "(5:valid", kExpectOptional)) return VELK2_SUCCESS;
  Ref<SexpList> valid;
  Result result = NewKeywordList(&valid, "valid", holder->context());
  if (result == VELK2_SUCCESS) {
    result = ReadOptionalAtomField(source, valid.get(), "(10:not-before", "not-before", not_before);
  }
  if (result == VELK2_SUCCESS) {
    result = ReadOptionalAtomField(source, valid.get(), "(9:not-after", "not-after", not_after);
  }
  if (result == VELK2_SUCCESS) result = source->Expect(")");
  if (result == VELK2_SUCCESS) result = holder->Append(std::move(valid));
  return result;
}

}  // namespace velk2
