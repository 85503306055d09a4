#include "credentials/credential.h"

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

}  // namespace velk2
