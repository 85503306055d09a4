#include "credentials/public_key.h"

#include <cstdlib>

#include "credentials/signature.h"
#include "frame/guard.h"
#include "sexp/reader.h"

namespace velk2 {

namespace {

// The crypto module's record sizes of a DSS key record, written into the
// record by the caller before it is initialised.
constexpr uint32_t kDssSizeA = 48;
constexpr uint32_t kDssSizeB = 60;

// Key records are wiped whenever they go out of scope, on success and on
// failure alike: they hold copies of the key's numbers.
struct RsaRecord {
  RsaRecord() { status = zcry_RSAKeyStructInit(ZCRY_RECORD_RSA_KEY, &record); }
  ~RsaRecord() {
    if (status == ZCRY_OK) zcry_RSAKeyStructZeroize(&record);
  }
  RsaRecord(const RsaRecord&) = delete;
  RsaRecord& operator=(const RsaRecord&) = delete;
  zcry_RSAKeyStruct record{};
  Result status;
};

struct DssRecord {
  DssRecord() {
    record.size_a = kDssSizeA;
    record.size_b = kDssSizeB;
    status = zcry_DSSKeyStructInit(ZCRY_RECORD_DSS_KEY, &record, kDssSizeA, kDssSizeB);
  }
  ~DssRecord() {
    if (status == ZCRY_OK) zcry_DSSKeyStructZeroize(&record);
  }
  DssRecord(const DssRecord&) = delete;
  DssRecord& operator=(const DssRecord&) = delete;
  zcry_DSSKeyStruct record{};
  Result status;
};

Result SetNumber(zcry_BigInt* number, const SexpAtom* atom) {
  return zcry_BigIntFromBuffer(number, atom->length(), atom->data(), 0, 0, 0);
}

// Appends (name value) to |algorithm|, sharing the read atom |value|.
Result AppendParameter(SexpList* algorithm, const char* name, const Ref<SexpAtom>& value) {
  Ref<SexpList> parameter;
  Result result =
      NewKeywordListWithChild(&parameter, name, Ref<SexpAtom>(value), algorithm->context());
  if (result != VELK2_SUCCESS) return result;
  return algorithm->Append(std::move(parameter));
}

// Reads |literal| then one atom into |atom|.
Result ReadParameter(SexpSource* source, const char* literal, Ref<SexpAtom>* atom,
                     Velk2Context* context) {
  Result result = source->Expect(literal);
  if (result != VELK2_SUCCESS) return result;
  return ReadCanonicalAtom(atom, source, context);
}

}  // namespace

const PublicKey* PublicKey::From(const SexpObject* object) {
  const SexpList* list = object ? object->AsList() : nullptr;
  return list && list->ClassFlag() == kClassPublicKey ? static_cast<const PublicKey*>(list)
                                                      : nullptr;
}

PublicKey::~PublicKey() {
  if (handle_ != nullptr) zcry_PublicKeyFree(handle_, context_word());
}

Result PublicKey::Parse(SexpSource* source) {
  // A key is read once: a second read would replace the crypto handle.
  if (source == nullptr || ChildCount() != 0 || handle_ != nullptr) return VELK2_ERR_INVALID_PARAM;
  Result result = source->Expect("(10:public-key(3:");
  if (result != VELK2_SUCCESS) return result;

  // The first letter of the algorithm name decides the form; its literal
  // then checks the whole name.
  Ref<SexpAtom> numbers[4];
  size_t count = 0;
  const int letter = source->GetByte(false);
  if (letter == 'r') {
    type_ = kKeyRsa;
    algorithm_name_ = "rsa";
    static const char* const kLiterals[] = {"rsa(1:e", ")(1:n"};
    for (const char* literal : kLiterals) {
      result = ReadParameter(source, literal, &numbers[count++], context());
      if (result != VELK2_SUCCESS) return result;
    }
  } else if (letter == 'd') {
    type_ = kKeyDsa;
    algorithm_name_ = "dsa";
    // g before q: the order is part of the format.
    static const char* const kLiterals[] = {"dsa(1:p", ")(1:g", ")(1:q", ")(1:y"};
    for (const char* literal : kLiterals) {
      result = ReadParameter(source, literal, &numbers[count++], context());
      if (result != VELK2_SUCCESS) return result;
    }
  } else {
    return VELK2_ERR_PARSE_FILE;
  }
  result = source->Expect(")");
  if (result != VELK2_SUCCESS) return result;

  result = AppendTextAtom("public-key");
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpList> algorithm = SexpList::New(context());
  result = algorithm->AppendTextAtom(algorithm_name_);
  if (result != VELK2_SUCCESS) return result;
  static const char* const kRsaNames[] = {"e", "n"};
  static const char* const kDsaNames[] = {"p", "g", "q", "y"};
  const char* const* names = type_ == kKeyRsa ? kRsaNames : kDsaNames;
  for (size_t i = 0; i < count; ++i) {
    result = AppendParameter(algorithm.get(), names[i], numbers[i]);
    if (result != VELK2_SUCCESS) return result;
  }
  result = Append(std::move(algorithm));
  if (result != VELK2_SUCCESS) return result;

  result = type_ == kKeyRsa
               ? DefineRsa(numbers[0].get(), numbers[1].get())
               : DefineDsa(numbers[0].get(), numbers[1].get(), numbers[2].get(), numbers[3].get());
  if (result != VELK2_SUCCESS) return result;
  return source->Expect("))");
}

Result PublicKey::DefineRsa(const SexpAtom* e, const SexpAtom* n) {
  RsaRecord key;
  if (key.status != VELK2_SUCCESS) return key.status;
  Result result = SetNumber(&key.record.e, e);
  if (result == VELK2_SUCCESS) result = SetNumber(&key.record.n, n);
  if (result == VELK2_SUCCESS) {
    result = zcry_PublicKeyDefine(&handle_, ZCRY_KEY_RSA, ZCRY_RECORD_RSA_KEY, &key.record, 0,
                                  context_word());
  }
  if (result != VELK2_SUCCESS) return result;
  RsaRecord data;
  if (data.status != VELK2_SUCCESS) return data.status;
  result = zcry_PublicKeyGetData(handle_, ZCRY_RECORD_RSA_KEY, &data.record, context_word());
  if (result == VELK2_SUCCESS) data_word_ = data.record.data_word;
  return result;
}

Result PublicKey::DefineDsa(const SexpAtom* p, const SexpAtom* g, const SexpAtom* q,
                            const SexpAtom* y) {
  DssRecord key;
  if (key.status != VELK2_SUCCESS) return key.status;
  Result result = SetNumber(&key.record.p, p);
  if (result == VELK2_SUCCESS) result = SetNumber(&key.record.g, g);
  if (result == VELK2_SUCCESS) result = SetNumber(&key.record.q, q);
  if (result == VELK2_SUCCESS) result = SetNumber(&key.record.y, y);
  if (result == VELK2_SUCCESS) {
    result = zcry_PublicKeyDefine(&handle_, ZCRY_KEY_DSA, ZCRY_RECORD_DSS_KEY, &key.record, 0,
                                  context_word());
  }
  if (result != VELK2_SUCCESS) return result;
  DssRecord data;
  if (data.status != VELK2_SUCCESS) return data.status;
  return zcry_PublicKeyGetData(handle_, ZCRY_RECORD_DSS_KEY, &data.record, context_word());
}

Result PublicKey::ExportKey(CBuffer<uint8_t>* bytes, uint32_t* length) const {
  if (bytes == nullptr || length == nullptr || *bytes != nullptr) return VELK2_ERR_INVALID_PARAM;
  uint32_t size = 0;
  Result result = zcry_PublicKeyExport(handle_, 0, 0, nullptr, &size, context_word());
  if (result != VELK2_SUCCESS && result != ZCRY_E_BUFFER_TOO_SMALL) return result;
  CBuffer<uint8_t> buffer(static_cast<uint8_t*>(std::malloc(size ? size : 1)));
  if (buffer == nullptr) return VELK2_ERR_MEM_ALLOC;
  uint8_t* raw = buffer.get();
  *bytes = std::move(buffer);
  *length = size;
  result = zcry_PublicKeyExport(handle_, 0, 0, raw, &size, context_word());
  *length = size;
  return result;
}

Result PublicKey::VerifyObjectSignature(const SexpAtom* algorithm, const SexpAtom* signature_bytes,
                                        const HashValue* hash, const SexpObject* object) const {
  switch (type_) {
    case kKeyRsa:
      return VerifyRsaObjectSignature(this, algorithm, signature_bytes, hash, object);
    case kKeyDsa:
      return VerifyDsaObjectSignature(this, algorithm, signature_bytes, hash, object);
    default:
      return VELK2_ERR_NOT_IMPLEMENTED;
  }
}

Result PublicKey::VerifyBlobSignature(const SexpAtom* algorithm, const uint8_t* blob,
                                      uint32_t blob_length, const uint8_t* data,
                                      uint32_t data_length) const {
  if (type_ != kKeyDsa) return VELK2_ERR_NOT_IMPLEMENTED;
  return VerifyDsaBlobSignature(this, algorithm, blob, blob_length, data, data_length);
}

}  // namespace velk2
