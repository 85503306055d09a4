// The crypto module over OpenSSL 3 libcrypto: digests through EVP_MD_CTX, keys
// built with EVP_PKEY_fromdata, signatures checked with EVP_PKEY_verify over
// the caller's digest.
//
// The context word that every entry point takes belongs to the caller; the
// module keeps no per-caller state, so it accepts the word and ignores it.
#include "platform/zcry.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/dsa.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <array>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace {

// ---- Owning pointers for OpenSSL objects -----------------------------------

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};
using BigNum = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>>;
using ParamBuilder = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM, OSSL_PARAM_free>>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using Pkey = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using MdCtx = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using DsaSig = std::unique_ptr<DSA_SIG, Deleter<DSA_SIG, DSA_SIG_free>>;

// ---- Digests ---------------------------------------------------------------

struct HashKind {
  uint32_t id;
  const char* name;  // OpenSSL's fetch name
  uint32_t size;     // digest size in bytes
};
constexpr std::array<HashKind, 3> kHashes = {{
    {ZCRY_HASH_SHA1, "SHA1", 20},
    {ZCRY_HASH_SHA256, "SHA256", 32},
    {ZCRY_HASH_RIPEMD160, "RIPEMD160", 20},
}};

const HashKind* FindHash(uint32_t id) {
  for (const HashKind& kind : kHashes) {
    if (kind.id == id) return &kind;
  }
  return nullptr;
}

// The digest implementations, fetched once. RIPEMD-160 left the default
// provider in the first OpenSSL 3.0 releases; where the default provider lacks
// it, it comes from the legacy provider loaded into a library context of our
// own, so the process-wide provider set stays as the application left it.
// The objects live as long as the process (the class has no destructor on
// purpose): freeing them at exit would race OpenSSL's own clean-up, which runs
// from an exit handler as well.
class Digests {
 public:
  static const Digests& Get() {
    static const Digests digests;
    return digests;
  }

  // The implementation of a known hash, or null if OpenSSL cannot provide it.
  const EVP_MD* Find(const HashKind& kind) const { return mds_[&kind - kHashes.data()]; }

 private:
  Digests() {
    for (size_t i = 0; i < kHashes.size(); ++i) {
      mds_[i] = EVP_MD_fetch(nullptr, kHashes[i].name, nullptr);
      if (mds_[i] == nullptr) mds_[i] = FetchLegacy(kHashes[i].name);
    }
    ERR_clear_error();
  }

  EVP_MD* FetchLegacy(const char* name) {
    if (legacy_context_ == nullptr) {
      legacy_context_ = OSSL_LIB_CTX_new();
      if (legacy_context_ == nullptr) return nullptr;
      OSSL_PROVIDER_load(legacy_context_, "legacy");
      OSSL_PROVIDER_load(legacy_context_, "default");
    }
    return EVP_MD_fetch(legacy_context_, name, nullptr);
  }

  std::array<EVP_MD*, kHashes.size()> mds_{};
  OSSL_LIB_CTX* legacy_context_ = nullptr;
};

const EVP_MD* DigestFor(const HashKind& kind) {
  return Digests::Get().Find(kind);
}

// ---- Big integers ----------------------------------------------------------

// Big integers beyond this are refused: larger than any RSA modulus OpenSSL
// accepts (16384 bits), so no usable key needs one.
constexpr uint32_t kMaxBigIntBytes = 2048;

void ClearBigInt(zcry_BigInt* bigint) {
  OPENSSL_clear_free(bigint->bytes, bigint->length);
  bigint->bytes = nullptr;
  bigint->length = 0;
}

// Copies |length| bytes into a new buffer held by |out|; the old value is
// wiped and freed only once the copy exists.
ZCRY_STATUS SetBigInt(zcry_BigInt* out, const uint8_t* bytes, size_t length) {
  uint8_t* copy = nullptr;
  if (length > 0) {
    copy = static_cast<uint8_t*>(OPENSSL_malloc(length));
    if (copy == nullptr) return ZCRY_E_NO_MEMORY;
    memcpy(copy, bytes, length);
  }
  ClearBigInt(out);
  out->bytes = copy;
  out->length = static_cast<uint32_t>(length);
  return ZCRY_OK;
}

// The big integer as a BIGNUM; null for a missing value or when OpenSSL fails.
BigNum ToBigNum(const zcry_BigInt& bigint) {
  if (bigint.bytes == nullptr || bigint.length == 0 || bigint.length > kMaxBigIntBytes) return {};
  return BigNum(BN_bin2bn(bigint.bytes, static_cast<int>(bigint.length), nullptr));
}

// Copies |value| into |out| as minimal big-endian bytes.
ZCRY_STATUS CopyBigInt(const BIGNUM* value, zcry_BigInt* out) {
  const int length = BN_num_bytes(value);
  zcry_BigInt fresh{nullptr, 0};
  if (length > 0) {
    fresh.bytes = static_cast<uint8_t*>(OPENSSL_malloc(static_cast<size_t>(length)));
    if (fresh.bytes == nullptr) return ZCRY_E_NO_MEMORY;
    fresh.length = static_cast<uint32_t>(BN_bn2bin(value, fresh.bytes));
  }
  ClearBigInt(out);
  *out = fresh;
  return ZCRY_OK;
}

// ---- Key records -----------------------------------------------------------

constexpr uint32_t kDssSizeA = 48;
constexpr uint32_t kDssSizeB = 60;

// The record kind that belongs to a key type, or 0 for an unknown type.
uint32_t RecordKindFor(uint32_t key_type) {
  switch (key_type) {
    case ZCRY_KEY_RSA:
      return ZCRY_RECORD_RSA_KEY;
    case ZCRY_KEY_DSA:
      return ZCRY_RECORD_DSS_KEY;
    default:
      return 0;
  }
}

bool IsKnownRecordKind(uint32_t kind) {
  return kind == ZCRY_RECORD_RSA_KEY || kind == ZCRY_RECORD_DSS_KEY;
}

// Checks that |record| is an initialised record of |kind|.
ZCRY_STATUS CheckRecord(uint32_t kind, const void* record) {
  if (kind == ZCRY_RECORD_RSA_KEY) {
    return static_cast<const zcry_RSAKeyStruct*>(record)->kind == kind ? ZCRY_OK
                                                                       : ZCRY_E_BAD_RECORD;
  }
  const auto* dss = static_cast<const zcry_DSSKeyStruct*>(record);
  if (dss->kind != kind || dss->size_a != kDssSizeA || dss->size_b != kDssSizeB) {
    return ZCRY_E_BAD_RECORD;
  }
  return ZCRY_OK;
}

// Builds a public key of |type| ("RSA" or "DSA") from named BIGNUM parameters.
ZCRY_STATUS BuildKey(const char* type, const std::pair<const char*, const BIGNUM*>* values,
                     size_t count, Pkey* out) {
  ParamBuilder builder(OSSL_PARAM_BLD_new());
  if (!builder) return ZCRY_E_NO_MEMORY;
  for (size_t i = 0; i < count; ++i) {
    if (OSSL_PARAM_BLD_push_BN(builder.get(), values[i].first, values[i].second) != 1) {
      return ZCRY_E_INTERNAL;
    }
  }
  Params params(OSSL_PARAM_BLD_to_param(builder.get()));
  PkeyCtx context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  EVP_PKEY* pkey = nullptr;
  if (!params || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &pkey, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return ZCRY_E_INTERNAL;
  }
  out->reset(pkey);
  return ZCRY_OK;
}

// The numbers of a key, in the order the key's record names them: e, n for
// RSA; p, q, g, y for DSA.
using KeyNumbers = std::array<BigNum, 4>;

// An RSA key is usable when n is odd, e is odd and at least 3, e < n, and
// OpenSSL's public operation will take them (its modulus and exponent limits).
ZCRY_STATUS CheckRsa(const zcry_RSAKeyStruct& record, KeyNumbers* out) {
  BigNum e = ToBigNum(record.e);
  BigNum n = ToBigNum(record.n);
  if (!e || !n) return ZCRY_E_BAD_KEY;
  const int n_bits = BN_num_bits(n.get());
  if (!BN_is_odd(n.get()) || n_bits > OPENSSL_RSA_MAX_MODULUS_BITS || !BN_is_odd(e.get()) ||
      BN_is_one(e.get()) || BN_cmp(e.get(), n.get()) >= 0 ||
      (n_bits > OPENSSL_RSA_SMALL_MODULUS_BITS &&
       BN_num_bits(e.get()) > OPENSSL_RSA_MAX_PUBEXP_BITS)) {
    return ZCRY_E_BAD_KEY;
  }
  (*out)[0] = std::move(e);
  (*out)[1] = std::move(n);
  return ZCRY_OK;
}

// A DSA key is usable with the 40-byte r || s signature form only when q has
// 160 bits; p is odd, larger than q and within OpenSSL's limit; 1 < g, y < p.
ZCRY_STATUS CheckDsa(const zcry_DSSKeyStruct& record, KeyNumbers* out) {
  BigNum p = ToBigNum(record.p);
  BigNum q = ToBigNum(record.q);
  BigNum g = ToBigNum(record.g);
  BigNum y = ToBigNum(record.y);
  if (!p || !q || !g || !y) return ZCRY_E_BAD_KEY;
  auto inside = [&](const BIGNUM* v) {
    return BN_cmp(v, BN_value_one()) > 0 && BN_cmp(v, p.get()) < 0;
  };
  if (BN_num_bits(q.get()) != 160 || !BN_is_odd(q.get()) || !BN_is_odd(p.get()) ||
      BN_num_bits(p.get()) > OPENSSL_DSA_MAX_MODULUS_BITS || BN_cmp(q.get(), p.get()) >= 0 ||
      !inside(g.get()) || !inside(y.get())) {
    return ZCRY_E_BAD_KEY;
  }
  *out = {std::move(p), std::move(q), std::move(g), std::move(y)};
  return ZCRY_OK;
}

// ---- Signatures ------------------------------------------------------------

constexpr uint32_t kDsaSignatureBytes = 40;  // r || s, 20 bytes each

// Checks the RSA parameter record word by word and yields its hash.
ZCRY_STATUS ReadRsaParams(const void* params, const HashKind** hash) {
  const auto* words = static_cast<const uint32_t*>(params);
  if (words[0] != sizeof(zcry_RSAParams)) return ZCRY_E_BAD_PARAMETERS;
  const auto* record = static_cast<const zcry_RSAParams*>(params);
  const uint32_t* w = record->words;
  if (w[1] != ZCRY_RSA_PARAMS_TAG) return ZCRY_E_BAD_PARAMETERS;
  const HashKind* kind = FindHash(w[3]);
  if (kind == nullptr) return ZCRY_E_UNKNOWN_HASH;
  // The RSA schemes sign SHA-1 and SHA-256 digests only, and PSS masks with
  // the signature's own hash.
  if (kind->id == ZCRY_HASH_RIPEMD160 || w[5] != w[3]) return ZCRY_E_BAD_PARAMETERS;
  // The remaining words are fixed by the one record layout the signature code
  // writes; anything else is refused rather than guessed at.
  if (w[2] != 0 || w[4] != 0 || w[6] != 0 || w[7] != 0 || w[8] != 4 || w[9] != 0) {
    return ZCRY_E_BAD_PARAMETERS;
  }
  *hash = kind;
  return ZCRY_OK;
}

ZCRY_STATUS ReadDsaParams(const void* params) {
  const auto* words = static_cast<const uint32_t*>(params);
  if (words[0] != sizeof(zcry_DSAParams)) return ZCRY_E_BAD_PARAMETERS;
  const uint32_t* w = static_cast<const zcry_DSAParams*>(params)->words;
  if (w[1] != ZCRY_DSA_PARAMS_TAG || w[2] != 0 || w[3] != 0 || w[4] != 0) {
    return ZCRY_E_BAD_PARAMETERS;
  }
  return ZCRY_OK;
}

struct OpenSslFree {
  void operator()(unsigned char* p) const { OPENSSL_free(p); }
};
using OpenSslBytes = std::unique_ptr<unsigned char, OpenSslFree>;

// The DER SEQUENCE { r, s } that OpenSSL's DSA verification takes, made from
// the 40-byte r || s form. Null when OpenSSL fails.
OpenSslBytes DsaSignatureToDer(const uint8_t* signature, int* der_length) {
  constexpr int kHalf = kDsaSignatureBytes / 2;
  DsaSig sig(DSA_SIG_new());
  BigNum r(BN_bin2bn(signature, kHalf, nullptr));
  BigNum s(BN_bin2bn(signature + kHalf, kHalf, nullptr));
  if (!sig || !r || !s || DSA_SIG_set0(sig.get(), r.get(), s.get()) != 1) return {};
  r.release();  // now owned by |sig|
  s.release();
  unsigned char* der = nullptr;
  *der_length = i2d_DSA_SIG(sig.get(), &der);
  if (*der_length <= 0) return {};
  return OpenSslBytes(der);
}

// Prepares |context| for the RSA scheme with the digest |md|.
bool SetUpRsa(EVP_PKEY_CTX* context, uint32_t scheme, const EVP_MD* md) {
  if (EVP_PKEY_CTX_set_signature_md(context, md) != 1) return false;
  if (scheme == ZCRY_SCHEME_RSA_PKCS1_V15) {
    return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1;
  }
  return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md(context, md) == 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_AUTO) == 1;
}

}  // namespace

// ---- Handle states ---------------------------------------------------------

struct zcry_HashState {
  MdCtx context;
  uint32_t size = 0;
  bool finished = false;
};

// The last hash state a thread freed, kept for its next hash: the reduction
// digests every key of a big ACL one after another, and a new OpenSSL
// context for each cost more than the hashing. The next EVP_DigestInit_ex
// starts the kept context afresh.
thread_local std::unique_ptr<zcry_HashState> t_spare_hash;

// A key holds its checked numbers; OpenSSL's key is built the first time a
// signature is verified or the key exported. An ACL names thousands of keys
// that are never used to verify anything, and building each costs more than
// reading it.
struct zcry_KeyState {
  uint32_t type = 0;
  KeyNumbers numbers;

  // OpenSSL's key, built once; null with the reason when it cannot be.
  ZCRY_STATUS Get(EVP_PKEY** out) {
    std::lock_guard<std::mutex> lock(mutex);
    if (!built) {
      built = true;
      if (type == ZCRY_KEY_RSA) {
        const std::pair<const char*, const BIGNUM*> values[] = {
            {OSSL_PKEY_PARAM_RSA_N, numbers[1].get()}, {OSSL_PKEY_PARAM_RSA_E, numbers[0].get()}};
        status = BuildKey("RSA", values, 2, &pkey);
      } else {
        const std::pair<const char*, const BIGNUM*> values[] = {
            {OSSL_PKEY_PARAM_FFC_P, numbers[0].get()},
            {OSSL_PKEY_PARAM_FFC_Q, numbers[1].get()},
            {OSSL_PKEY_PARAM_FFC_G, numbers[2].get()},
            {OSSL_PKEY_PARAM_PUB_KEY, numbers[3].get()}};
        status = BuildKey("DSA", values, 4, &pkey);
      }
      if (status != ZCRY_OK) ERR_clear_error();
      // A failure for want of memory may pass: it is tried again next time.
      if (status == ZCRY_E_NO_MEMORY) built = false;
    }
    *out = pkey.get();
    return status;
  }

 private:
  std::mutex mutex;
  bool built = false;
  ZCRY_STATUS status = ZCRY_OK;
  Pkey pkey;
};

// ---- Hashing ---------------------------------------------------------------

ZCRY_STATUS zcry_HashInfo(uint32_t hash_id, zcry_HashInfoRecord* info) {
  if (info == nullptr) return ZCRY_E_NULL_ARGUMENT;
  if (info->words[0] != sizeof(zcry_HashInfoRecord)) return ZCRY_E_BAD_RECORD;
  const HashKind* kind = FindHash(hash_id);
  if (kind == nullptr) return ZCRY_E_UNKNOWN_HASH;
  info->words[6] = kind->size;
  return ZCRY_OK;
}

ZCRY_STATUS zcry_HashAlloc(ZCRY_HASH* handle, uint32_t hash_id, uint32_t /*context*/) {
  if (handle == nullptr) return ZCRY_E_NULL_ARGUMENT;
  *handle = nullptr;
  const HashKind* kind = FindHash(hash_id);
  if (kind == nullptr) return ZCRY_E_UNKNOWN_HASH;
  const EVP_MD* md = DigestFor(*kind);
  if (md == nullptr) return ZCRY_E_INTERNAL;
  std::unique_ptr<zcry_HashState> state = std::move(t_spare_hash);
  if (!state) {
    state.reset(new (std::nothrow) zcry_HashState);
    if (!state) return ZCRY_E_NO_MEMORY;
    state->context.reset(EVP_MD_CTX_new());
    if (!state->context) return ZCRY_E_NO_MEMORY;
  }
  state->finished = false;
  if (EVP_DigestInit_ex(state->context.get(), md, nullptr) != 1) {
    ERR_clear_error();
    return ZCRY_E_INTERNAL;
  }
  state->size = kind->size;
  *handle = state.release();
  return ZCRY_OK;
}

ZCRY_STATUS zcry_HashUpdate(ZCRY_HASH handle, const void* bytes, size_t count,
                            uint32_t /*context*/) {
  if (handle == nullptr || (bytes == nullptr && count > 0)) return ZCRY_E_NULL_ARGUMENT;
  if (handle->finished) return ZCRY_E_HASH_FINISHED;
  if (count == 0) return ZCRY_OK;
  if (EVP_DigestUpdate(handle->context.get(), bytes, count) != 1) {
    ERR_clear_error();
    return ZCRY_E_INTERNAL;
  }
  return ZCRY_OK;
}

ZCRY_STATUS zcry_HashFinal(ZCRY_HASH handle, uint8_t* digest, uint32_t /*context*/) {
  if (handle == nullptr || digest == nullptr) return ZCRY_E_NULL_ARGUMENT;
  if (handle->finished) return ZCRY_E_HASH_FINISHED;
  handle->finished = true;
  unsigned int written = 0;
  if (EVP_DigestFinal_ex(handle->context.get(), digest, &written) != 1 || written != handle->size) {
    ERR_clear_error();
    return ZCRY_E_INTERNAL;
  }
  return ZCRY_OK;
}

ZCRY_STATUS zcry_HashFree(ZCRY_HASH handle, uint32_t /*context*/) {
  std::unique_ptr<zcry_HashState> state(handle);
  if (state && !t_spare_hash) t_spare_hash = std::move(state);
  return ZCRY_OK;
}

// ---- Key records -----------------------------------------------------------

ZCRY_STATUS zcry_BigIntFromBuffer(zcry_BigInt* bigint, uint32_t length, const uint8_t* bytes,
                                  uint32_t reserved1, uint32_t reserved2, uint32_t reserved3) {
  if (bigint == nullptr || (bytes == nullptr && length > 0)) return ZCRY_E_NULL_ARGUMENT;
  if (reserved1 != 0 || reserved2 != 0 || reserved3 != 0) return ZCRY_E_BAD_PARAMETERS;
  if (length > kMaxBigIntBytes) return ZCRY_E_BAD_KEY;
  return SetBigInt(bigint, bytes, length);
}

ZCRY_STATUS zcry_RSAKeyStructInit(uint32_t kind, zcry_RSAKeyStruct* record) {
  if (record == nullptr) return ZCRY_E_NULL_ARGUMENT;
  if (kind != ZCRY_RECORD_RSA_KEY) return ZCRY_E_UNKNOWN_ALGORITHM;
  *record = zcry_RSAKeyStruct{};
  record->kind = kind;
  return ZCRY_OK;
}

ZCRY_STATUS zcry_RSAKeyStructZeroize(zcry_RSAKeyStruct* record) {
  if (record == nullptr) return ZCRY_E_NULL_ARGUMENT;
  if (record->kind != ZCRY_RECORD_RSA_KEY) return ZCRY_E_BAD_RECORD;
  ClearBigInt(&record->e);
  ClearBigInt(&record->n);
  record->data_word = 0;
  return ZCRY_OK;
}

ZCRY_STATUS zcry_DSSKeyStructInit(uint32_t kind, zcry_DSSKeyStruct* record, uint32_t size_a,
                                  uint32_t size_b) {
  if (record == nullptr) return ZCRY_E_NULL_ARGUMENT;
  if (kind != ZCRY_RECORD_DSS_KEY) return ZCRY_E_UNKNOWN_ALGORITHM;
  if (size_a != kDssSizeA || size_b != kDssSizeB || record->size_a != size_a ||
      record->size_b != size_b) {
    return ZCRY_E_BAD_RECORD;
  }
  *record = zcry_DSSKeyStruct{};
  record->kind = kind;
  record->size_a = size_a;
  record->size_b = size_b;
  return ZCRY_OK;
}

ZCRY_STATUS zcry_DSSKeyStructZeroize(zcry_DSSKeyStruct* record) {
  if (record == nullptr) return ZCRY_E_NULL_ARGUMENT;
  if (CheckRecord(ZCRY_RECORD_DSS_KEY, record) != ZCRY_OK) return ZCRY_E_BAD_RECORD;
  ClearBigInt(&record->p);
  ClearBigInt(&record->q);
  ClearBigInt(&record->g);
  ClearBigInt(&record->y);
  record->data_word = 0;
  return ZCRY_OK;
}

// ---- Public keys -----------------------------------------------------------

ZCRY_STATUS zcry_PublicKeyDefine(ZCRY_PUBLIC_KEY* handle, uint32_t key_type, uint32_t kind,
                                 const void* record, uint32_t flags, uint32_t /*context*/) {
  if (handle == nullptr || record == nullptr) return ZCRY_E_NULL_ARGUMENT;
  *handle = nullptr;
  if (flags != 0) return ZCRY_E_BAD_PARAMETERS;
  const uint32_t expected_kind = RecordKindFor(key_type);
  if (expected_kind == 0 || !IsKnownRecordKind(kind)) return ZCRY_E_UNKNOWN_ALGORITHM;
  if (kind != expected_kind) return ZCRY_E_BAD_RECORD;
  if (ZCRY_STATUS status = CheckRecord(kind, record); status != ZCRY_OK) return status;

  KeyNumbers numbers;
  const ZCRY_STATUS status =
      key_type == ZCRY_KEY_RSA ? CheckRsa(*static_cast<const zcry_RSAKeyStruct*>(record), &numbers)
                               : CheckDsa(*static_cast<const zcry_DSSKeyStruct*>(record), &numbers);
  if (status != ZCRY_OK) {
    ERR_clear_error();
    return status;
  }
  std::unique_ptr<zcry_KeyState> state(new (std::nothrow) zcry_KeyState);
  if (!state) return ZCRY_E_NO_MEMORY;
  state->numbers = std::move(numbers);
  state->type = key_type;
  *handle = state.release();
  return ZCRY_OK;
}

ZCRY_STATUS zcry_PublicKeyGetData(ZCRY_PUBLIC_KEY handle, uint32_t kind, void* record,
                                  uint32_t /*context*/) {
  if (handle == nullptr || record == nullptr) return ZCRY_E_NULL_ARGUMENT;
  if (!IsKnownRecordKind(kind)) return ZCRY_E_UNKNOWN_ALGORITHM;
  if (kind != RecordKindFor(handle->type)) return ZCRY_E_BAD_RECORD;
  if (ZCRY_STATUS status = CheckRecord(kind, record); status != ZCRY_OK) return status;

  // The size OpenSSL gives a key: the bits of its modulus (RSA n, DSA p).
  const KeyNumbers& numbers = handle->numbers;
  const int bits = BN_num_bits(numbers[handle->type == ZCRY_KEY_RSA ? 1 : 0].get());
  if (bits <= 0) return ZCRY_E_INTERNAL;
  // The values go into a scratch record first, so a failure leaves the
  // caller's record as it was.
  ZCRY_STATUS status = ZCRY_OK;
  if (kind == ZCRY_RECORD_RSA_KEY) {
    zcry_RSAKeyStruct fresh{};
    fresh.kind = kind;
    if ((status = CopyBigInt(numbers[0].get(), &fresh.e)) == ZCRY_OK) {
      status = CopyBigInt(numbers[1].get(), &fresh.n);
    }
    if (status == ZCRY_OK) {
      auto* out = static_cast<zcry_RSAKeyStruct*>(record);
      zcry_RSAKeyStructZeroize(out);
      *out = fresh;
      out->data_word = static_cast<uint32_t>(bits);
    } else {
      zcry_RSAKeyStructZeroize(&fresh);
    }
    return status;
  }
  zcry_DSSKeyStruct fresh{};
  fresh.kind = kind;
  fresh.size_a = kDssSizeA;
  fresh.size_b = kDssSizeB;
  zcry_BigInt* const parts[] = {&fresh.p, &fresh.q, &fresh.g, &fresh.y};
  for (size_t i = 0; i < 4 && status == ZCRY_OK; ++i)
    status = CopyBigInt(numbers[i].get(), parts[i]);
  if (status == ZCRY_OK) {
    auto* out = static_cast<zcry_DSSKeyStruct*>(record);
    zcry_DSSKeyStructZeroize(out);
    *out = fresh;
    out->data_word = static_cast<uint32_t>(bits);
  } else {
    zcry_DSSKeyStructZeroize(&fresh);
  }
  return status;
}

ZCRY_STATUS zcry_PublicKeyExport(ZCRY_PUBLIC_KEY handle, uint32_t format, uint32_t flags,
                                 uint8_t* buffer, uint32_t* length, uint32_t /*context*/) {
  if (handle == nullptr || length == nullptr) return ZCRY_E_NULL_ARGUMENT;
  if (format != 0 || flags != 0) return ZCRY_E_BAD_PARAMETERS;
  EVP_PKEY* pkey = nullptr;
  if (ZCRY_STATUS status = handle->Get(&pkey); status != ZCRY_OK) return status;
  const int needed = i2d_PUBKEY(pkey, nullptr);
  if (needed <= 0) {
    ERR_clear_error();
    return ZCRY_E_INTERNAL;
  }
  if (buffer == nullptr || *length < static_cast<uint32_t>(needed)) {
    *length = static_cast<uint32_t>(needed);
    return ZCRY_E_BUFFER_TOO_SMALL;
  }
  unsigned char* cursor = buffer;
  const int written = i2d_PUBKEY(pkey, &cursor);
  if (written != needed) {
    ERR_clear_error();
    return ZCRY_E_INTERNAL;
  }
  *length = static_cast<uint32_t>(written);
  return ZCRY_OK;
}

ZCRY_STATUS zcry_PublicKeyFree(ZCRY_PUBLIC_KEY handle, uint32_t /*context*/) {
  std::unique_ptr<zcry_KeyState> state(handle);
  return ZCRY_OK;
}

// ---- Signatures ------------------------------------------------------------

ZCRY_STATUS zcry_PublicKeyVerifySignature(ZCRY_PUBLIC_KEY handle, uint32_t scheme,
                                          const void* params, const uint8_t* digest,
                                          uint32_t digest_length, const uint8_t* signature,
                                          uint32_t signature_length, uint32_t* valid,
                                          uint32_t /*context*/) {
  if (valid != nullptr) *valid = 0;
  if (handle == nullptr || params == nullptr || digest == nullptr || signature == nullptr ||
      valid == nullptr) {
    return ZCRY_E_NULL_ARGUMENT;
  }
  const HashKind* hash = nullptr;
  switch (scheme) {
    case ZCRY_SCHEME_DSA_SHA1: {
      if (handle->type != ZCRY_KEY_DSA) return ZCRY_E_BAD_SCHEME;
      if (ZCRY_STATUS status = ReadDsaParams(params); status != ZCRY_OK) return status;
      hash = FindHash(ZCRY_HASH_SHA1);
      break;
    }
    case ZCRY_SCHEME_RSA_PKCS1_V15:
    case ZCRY_SCHEME_RSA_PSS: {
      if (handle->type != ZCRY_KEY_RSA) return ZCRY_E_BAD_SCHEME;
      if (ZCRY_STATUS status = ReadRsaParams(params, &hash); status != ZCRY_OK) return status;
      break;
    }
    default:
      return ZCRY_E_BAD_SCHEME;
  }
  if (digest_length != hash->size) return ZCRY_E_BAD_DIGEST_LENGTH;
  const EVP_MD* md = DigestFor(*hash);
  if (md == nullptr) return ZCRY_E_INTERNAL;

  // A signature of the wrong length is a bad signature, not a bad call: an RSA
  // signature is exactly as long as the modulus, a DSA one is r || s.
  EVP_PKEY* pkey = nullptr;
  if (ZCRY_STATUS status = handle->Get(&pkey); status != ZCRY_OK) return status;
  const uint32_t expected_length = scheme == ZCRY_SCHEME_DSA_SHA1
                                       ? kDsaSignatureBytes
                                       : static_cast<uint32_t>(EVP_PKEY_get_size(pkey));
  if (signature_length != expected_length) return ZCRY_OK;

  PkeyCtx context(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey, nullptr));
  if (!context) return ZCRY_E_NO_MEMORY;
  const bool ready =
      EVP_PKEY_verify_init(context.get()) == 1 &&
      (scheme == ZCRY_SCHEME_DSA_SHA1 ? EVP_PKEY_CTX_set_signature_md(context.get(), md) == 1
                                      : SetUpRsa(context.get(), scheme, md));
  if (!ready) {
    ERR_clear_error();
    return ZCRY_E_INTERNAL;
  }
  int result = 0;
  if (scheme == ZCRY_SCHEME_DSA_SHA1) {
    int der_length = 0;
    OpenSslBytes der = DsaSignatureToDer(signature, &der_length);
    if (!der) {
      ERR_clear_error();
      return ZCRY_E_INTERNAL;
    }
    result = EVP_PKEY_verify(context.get(), der.get(), static_cast<size_t>(der_length), digest,
                             digest_length);
  } else {
    result = EVP_PKEY_verify(context.get(), signature, signature_length, digest, digest_length);
  }
  // Any refusal by the verification itself (bad padding, r or s out of range,
  // a value not below the modulus) is a bad signature.
  if (result != 1) ERR_clear_error();
  *valid = result == 1 ? 1 : 0;
  return ZCRY_OK;
}
