#include "credentials/signature.h"

#include <cstring>
#include <new>

#include "frame/guard.h"
#include "sexp/reader.h"

namespace velk2 {

namespace {

constexpr uint32_t kRsaParamsRecordSize = 40;
constexpr uint32_t kDsaParamsRecordSize = 20;
constexpr uint32_t kSha1DigestBytes = 20;

// The algorithm name against the first name-length bytes of |literal|, whose
// terminating NUL takes part: a name that is a leading part of the literal
// (down to the empty name) matches, a longer one never does.
bool IsLeadingPartOf(const SexpAtom* name, const char* literal) {
  const size_t length = name->length();
  if (length > std::strlen(literal) + 1) return false;
  return length == 0 || std::memcmp(name->data(), literal, length) == 0;
}

// The signature bytes for the crypto call: an empty atom has no buffer, and
// an empty signature is a bad signature rather than a missing argument.
const uint8_t* SignatureData(const SexpAtom* atom) {
  static const uint8_t kNoBytes[1] = {0};
  return atom->data() != nullptr ? atom->data() : kNoBytes;
}

Result Outcome(Result status, uint32_t valid) {
  if (status != VELK2_SUCCESS) return status;
  return valid != 0 ? VELK2_SUCCESS : VELK2_ERR_SIGNATURE;
}

zcry_DSAParams DsaParams() {
  zcry_DSAParams params{};
  params.words[0] = kDsaParamsRecordSize;
  params.words[1] = ZCRY_DSA_PARAMS_TAG;
  return params;
}

}  // namespace

const Signature* Signature::From(const SexpObject* object) {
  const SexpList* list = object ? object->AsList() : nullptr;
  return list && list->ClassFlag() == kClassSignature ? static_cast<const Signature*>(list)
                                                      : nullptr;
}

Result Signature::Parse(SexpSource* source) {
  if (source == nullptr || ChildCount() != 0) return VELK2_ERR_INVALID_PARAM;
  Result result = source->Expect("(9:signature");
  if (result != VELK2_SUCCESS) return result;
  result = AppendTextAtom("signature");
  if (result != VELK2_SUCCESS) return result;

  Ref<HashValue> hash = HashValue::New(context());
  result = hash->Parse(source);
  if (result != VELK2_SUCCESS) return result;
  hash_value_ = hash;
  result = Append(std::move(hash));
  if (result != VELK2_SUCCESS) return result;

  Ref<Principal> signer;
  result = ReadPrincipal(source, &signer, context());
  if (result != VELK2_SUCCESS) return result;
  signer_ = signer;
  result = Append(std::move(signer));
  if (result != VELK2_SUCCESS) return result;

  result = source->Expect("(");
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpList> value = SexpList::New(context());
  Ref<SexpAtom> name;
  result = ReadCanonicalAtom(&name, source, context());
  if (result != VELK2_SUCCESS) return result;
  algorithm_ = name;
  result = value->Append(std::move(name));
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpAtom> bytes;
  result = ReadCanonicalAtom(&bytes, source, context());
  if (result != VELK2_SUCCESS) return result;
  signature_bytes_ = bytes;
  result = value->Append(std::move(bytes));
  if (result != VELK2_SUCCESS) return result;
  result = Append(std::move(value));
  if (result != VELK2_SUCCESS) return result;
  return source->Expect("))");
}

Result Signature::Build(HashValue* hash, Principal* signer, const char* algorithm,
                        const uint8_t* bytes, uint32_t length) {
  if (hash == nullptr || hash->value() == nullptr || signer == nullptr || algorithm == nullptr ||
      *algorithm == '\0' || (bytes == nullptr && length != 0) || ChildCount() != 0) {
    return VELK2_ERR_INVALID_PARAM;
  }
  return Guard([&]() -> Result {
    Ref<SexpAtom> name = SexpAtom::New(context());
    Result result = name->SetAtomValue(algorithm, static_cast<uint32_t>(std::strlen(algorithm)));
    if (result != VELK2_SUCCESS) return result;
    Ref<SexpAtom> value_bytes = SexpAtom::New(context());
    if (length > kMaxAtomLength) return VELK2_ERR_MAX_BYTE_STRING;
    result = value_bytes->AssignBytes(bytes, length);
    if (result != VELK2_SUCCESS) return result;
    Ref<SexpList> value = SexpList::New(context());
    result = value->Append(Ref<SexpAtom>(name));
    if (result != VELK2_SUCCESS) return result;
    result = value->Append(Ref<SexpAtom>(value_bytes));
    if (result != VELK2_SUCCESS) return result;

    result = AppendTextAtom("signature");
    if (result == VELK2_SUCCESS) result = Append(Ref<HashValue>::Share(hash));
    if (result == VELK2_SUCCESS) result = Append(Ref<Principal>::Share(signer));
    if (result == VELK2_SUCCESS) result = Append(std::move(value));
    if (result != VELK2_SUCCESS) {
      ClearChildren();
      return result;
    }
    hash_value_ = Ref<HashValue>::Share(hash);
    signer_ = Ref<Principal>::Share(signer);
    algorithm_ = std::move(name);
    signature_bytes_ = std::move(value_bytes);
    return VELK2_SUCCESS;
  });
}

Result ReadPrincipal(SexpSource* source, Ref<Principal>* out, Velk2Context* context) {
  if (source == nullptr || out == nullptr || *out != nullptr) return VELK2_ERR_INVALID_PARAM;
  Ref<Principal> principal;
  if (MatchLiteral(source, "(1", kExpectPeek)) {
    principal = PublicKey::New(context);
  } else if (MatchLiteral(source, "(4", kExpectPeek)) {
    principal = HashValue::New(context);
  } else {
    return VELK2_ERR_PRINCIPAL;
  }
  Result result = principal->Parse(source);
  if (result != VELK2_SUCCESS) return result;
  *out = std::move(principal);
  return VELK2_SUCCESS;
}

Result VerifySignature(const Signature* signature, const Credential* object) {
  if (signature == nullptr || object == nullptr) return VELK2_ERR_PARAM_NULL;
  // The signer must be the object's issuer, given the same way (a key only
  // matches the same key, a hash only the same hash), before any crypto work.
  if (!SameCanonicalForm(object->Issuer(), signature->signer())) return VELK2_ERR_SIGNATURE;
  return signature->signer()->VerifyObjectSignature(
      signature->algorithm(), signature->signature_bytes(), signature->hash_value(), object);
}

Result VerifyRsaObjectSignature(const PublicKey* key, const SexpAtom* algorithm,
                                const SexpAtom* signature_bytes, const HashValue* hash,
                                const SexpObject* object) {
  if (key == nullptr || algorithm == nullptr || signature_bytes == nullptr || hash == nullptr ||
      object == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  uint32_t scheme;
  if (IsLeadingPartOf(algorithm, "rsa-pss")) {
    scheme = ZCRY_SCHEME_RSA_PSS;
  } else if (IsLeadingPartOf(algorithm, "rsa-1.5")) {
    scheme = ZCRY_SCHEME_RSA_PKCS1_V15;
  } else {
    return VELK2_ERR_SIGNATURE_ID;
  }
  const int32_t hash_id = hash->algorithm();
  if (hash_id != ZCRY_HASH_SHA1 && hash_id != ZCRY_HASH_SHA256) return VELK2_ERR_SIGNATURE_ID;

  CBuffer<uint8_t> digest;
  uint32_t digest_length = 0;
  Result result =
      ComputeHash(object, &digest, &digest_length, static_cast<uint32_t>(hash_id), false);
  if (result != VELK2_SUCCESS) return result;
  const std::string_view stated = hash->digest();
  if (stated.size() < digest_length || std::memcmp(stated.data(), digest.get(), digest_length)) {
    return VELK2_ERR_HASH_MISMATCH;
  }

  zcry_RSAParams params{};
  params.words[0] = kRsaParamsRecordSize;
  params.words[1] = ZCRY_RSA_PARAMS_TAG;
  params.words[3] = static_cast<uint32_t>(hash_id);
  params.words[5] = static_cast<uint32_t>(hash_id);
  params.words[8] = 4;
  uint32_t valid = 0;
  result = zcry_PublicKeyVerifySignature(key->handle(), scheme, &params, digest.get(),
                                         digest_length, SignatureData(signature_bytes),
                                         signature_bytes->length(), &valid, key->context_word());
  return Outcome(result, valid);
}

Result VerifyDsaObjectSignature(const PublicKey* key, const SexpAtom* algorithm,
                                const SexpAtom* signature_bytes, const HashValue* hash,
                                const SexpObject* object) {
  if (key == nullptr || algorithm == nullptr || signature_bytes == nullptr || hash == nullptr ||
      object == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  if (!IsLeadingPartOf(algorithm, "dsa-sha1")) return VELK2_ERR_SIGNATURE_ID;

  // Always SHA-1, whatever the hash value names: DSA keys sign SHA-1 digests.
  CBuffer<uint8_t> digest;
  uint32_t digest_length = 0;
  Result result = ComputeHash(object, &digest, &digest_length, ZCRY_HASH_SHA1, false);
  if (result != VELK2_SUCCESS) return result;
  const std::string_view stated = hash->digest();
  if (stated.size() < kSha1DigestBytes ||
      std::memcmp(stated.data(), digest.get(), kSha1DigestBytes) != 0) {
    return VELK2_ERR_HASH_MISMATCH;
  }

  const zcry_DSAParams params = DsaParams();
  uint32_t valid = 0;
  result = zcry_PublicKeyVerifySignature(key->handle(), ZCRY_SCHEME_DSA_SHA1, &params, digest.get(),
                                         kSha1DigestBytes, SignatureData(signature_bytes),
                                         signature_bytes->length(), &valid, key->context_word());
  return Outcome(result, valid);
}

Result VerifyDsaBlobSignature(const PublicKey* key, const SexpAtom* algorithm, const uint8_t* blob,
                              uint32_t blob_length, const uint8_t* data, uint32_t data_length) {
  if (key == nullptr || algorithm == nullptr || blob == nullptr || blob_length < kBlobBytes) {
    return VELK2_ERR_INVALID_PARAM;
  }
  if (!IsLeadingPartOf(algorithm, "dsa-sha1")) return VELK2_ERR_SIGNATURE_ID;

  const uint32_t word = key->context_word();
  ZCRY_HASH hash = nullptr;
  Result result = zcry_HashAlloc(&hash, ZCRY_HASH_SHA1, word);
  if (result != VELK2_SUCCESS) return result;
  result = [&]() -> Result {
    zcry_HashInfoRecord info{};
    info.words[0] = sizeof(info);
    Result status = zcry_HashInfo(ZCRY_HASH_SHA1, &info);
    if (status != VELK2_SUCCESS) return status;
    const uint32_t digest_length = info.words[6];
    // The results of these two updates are not looked at: a failed update
    // leaves a digest that the signature does not match.
    (void)zcry_HashUpdate(hash, blob, kBlobLeadingBytes, word);
    (void)zcry_HashUpdate(hash, data, data_length, word);
    std::unique_ptr<uint8_t[]> digest(new (std::nothrow)
                                          uint8_t[digest_length ? digest_length : 1]);
    if (digest == nullptr) return VELK2_ERR_MEM_ALLOC;
    status = zcry_HashFinal(hash, digest.get(), word);
    if (status != VELK2_SUCCESS) return status;
    const zcry_DSAParams params = DsaParams();
    uint32_t valid = 0;
    status = zcry_PublicKeyVerifySignature(key->handle(), ZCRY_SCHEME_DSA_SHA1, &params,
                                           digest.get(), digest_length, blob + kBlobLeadingBytes,
                                           kBlobSignatureBytes, &valid, word);
    return Outcome(status, valid);
  }();
  zcry_HashFree(hash, word);
  return result;
}

}  // namespace velk2
