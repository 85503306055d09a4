#include "tools/issuing/private_key.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/dsa.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "platform/files.h"
#include "platform/utf.h"

namespace velk2::issuing {
namespace {

struct PkeyCtxFree {
  void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree>;
struct PkeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
struct BioFree {
  void operator()(BIO* b) const { BIO_free(b); }
};
using Bio = std::unique_ptr<BIO, BioFree>;
struct BnFree {
  void operator()(BIGNUM* b) const { BN_free(b); }
};
using Bn = std::unique_ptr<BIGNUM, BnFree>;
struct DsaSigFree {
  void operator()(DSA_SIG* s) const { DSA_SIG_free(s); }
};

const EVP_MD* DigestOf(uint32_t hash_id, size_t length) {
  if (hash_id == 0 && length == 20) return EVP_sha1();
  if (hash_id == 2 && length == 32) return EVP_sha256();
  return nullptr;
}

VELK2_RESULT SignRsa(EVP_PKEY* key, bool pss, const EVP_MD* md, const uint8_t* digest,
                     size_t length, std::vector<uint8_t>* signature) {
  PkeyCtx ctx(EVP_PKEY_CTX_new(key, nullptr));
  if (!ctx || EVP_PKEY_sign_init(ctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), pss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING) <=
          0 ||
      EVP_PKEY_CTX_set_signature_md(ctx.get(), md) <= 0) {
    return VELK2_FAILURE;
  }
  if (pss && (EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), md) <= 0 ||
              EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx.get(), RSA_PSS_SALTLEN_DIGEST) <= 0)) {
    return VELK2_FAILURE;
  }
  size_t size = 0;
  if (EVP_PKEY_sign(ctx.get(), nullptr, &size, digest, length) <= 0) return VELK2_FAILURE;
  signature->resize(size);
  if (EVP_PKEY_sign(ctx.get(), signature->data(), &size, digest, length) <= 0) return VELK2_FAILURE;
  signature->resize(size);
  return VELK2_SUCCESS;
}

VELK2_RESULT SignDsa(EVP_PKEY* key, const uint8_t* digest, size_t length,
                     std::vector<uint8_t>* signature) {
  PkeyCtx ctx(EVP_PKEY_CTX_new(key, nullptr));
  if (!ctx || EVP_PKEY_sign_init(ctx.get()) <= 0) return VELK2_FAILURE;
  size_t size = 0;
  if (EVP_PKEY_sign(ctx.get(), nullptr, &size, digest, length) <= 0) return VELK2_FAILURE;
  std::vector<uint8_t> der(size);
  if (EVP_PKEY_sign(ctx.get(), der.data(), &size, digest, length) <= 0) return VELK2_FAILURE;
  // The library's DSA signatures are r and s as two 20-byte big-endian integers.
  const uint8_t* p = der.data();
  std::unique_ptr<DSA_SIG, DsaSigFree> sig(d2i_DSA_SIG(nullptr, &p, static_cast<long>(size)));
  if (!sig) return VELK2_FAILURE;
  const BIGNUM* r = nullptr;
  const BIGNUM* s = nullptr;
  DSA_SIG_get0(sig.get(), &r, &s);
  signature->assign(40, 0);
  if (BN_bn2binpad(r, signature->data(), 20) != 20 ||
      BN_bn2binpad(s, signature->data() + 20, 20) != 20) {
    return VELK2_FAILURE;
  }
  return VELK2_SUCCESS;
}

}  // namespace

PrivateKey::PrivateKey() = default;
PrivateKey::~PrivateKey() {
  EVP_PKEY_free(key_);
}
PrivateKey::PrivateKey(PrivateKey&& other) noexcept
    : key_(std::exchange(other.key_, nullptr)), type_(other.type_) {}
PrivateKey& PrivateKey::operator=(PrivateKey&& other) noexcept {
  std::swap(key_, other.key_);
  std::swap(type_, other.type_);
  return *this;
}

VELK2_RESULT PrivateKey::Generate(KeyType type, int bits, PrivateKey* out) {
  Pkey key;
  if (type == KeyType::kRsa) {
    if (bits < 2048 || bits > 16384) return VELK2_ERR_INVALID_PARAM;
    PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    EVP_PKEY* made = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0 ||
        EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), bits) <= 0 ||
        EVP_PKEY_generate(ctx.get(), &made) <= 0) {
      return VELK2_FAILURE;
    }
    key.reset(made);
  } else {
    PkeyCtx param_ctx(EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr));
    EVP_PKEY* params = nullptr;
    if (!param_ctx || EVP_PKEY_paramgen_init(param_ctx.get()) <= 0 ||
        EVP_PKEY_CTX_set_dsa_paramgen_bits(param_ctx.get(), 1024) <= 0 ||
        EVP_PKEY_CTX_set_dsa_paramgen_q_bits(param_ctx.get(), 160) <= 0 ||
        EVP_PKEY_paramgen(param_ctx.get(), &params) <= 0) {
      return VELK2_FAILURE;
    }
    Pkey param_key(params);
    PkeyCtx ctx(EVP_PKEY_CTX_new(param_key.get(), nullptr));
    EVP_PKEY* made = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0 || EVP_PKEY_generate(ctx.get(), &made) <= 0) {
      return VELK2_FAILURE;
    }
    key.reset(made);
  }
  EVP_PKEY_free(out->key_);
  out->key_ = key.release();
  out->type_ = type;
  return VELK2_SUCCESS;
}

VELK2_RESULT PrivateKey::LoadPem(const std::string& path, PrivateKey* out) {
  // Read through the library's reader: a FIFO or device named as the key
  // must fail, not block. A PEM key is a few kilobytes.
  constexpr uint64_t kMaxPemSize = 1 << 20;
  std::vector<uint8_t> pem;
  if (ReadWholeFile(Utf8ToUtf16(path).c_str(), kMaxPemSize, &pem) != VELK2_SUCCESS) {
    return VELK2_ERR_FILE_OPEN;
  }
  Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) return VELK2_ERR_MEM_ALLOC;
  // No passphrase callback: the toolkit writes unencrypted keys only.
  Pkey key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, const_cast<char*>("")));
  if (!key) return VELK2_ERR_PRIVATE_KEY_TYPE;
  KeyType type;
  if (EVP_PKEY_is_a(key.get(), "RSA")) {
    type = KeyType::kRsa;
  } else if (EVP_PKEY_is_a(key.get(), "DSA")) {
    type = KeyType::kDsa;
  } else {
    return VELK2_ERR_PRIVATE_KEY_TYPE;
  }
  EVP_PKEY_free(out->key_);
  out->key_ = key.release();
  out->type_ = type;
  return VELK2_SUCCESS;
}

VELK2_RESULT PrivateKey::SavePem(const std::string& path, bool overwrite) const {
  if (key_ == nullptr) return VELK2_ERR_INVALID_PARAM;
  Bio bio(BIO_new(BIO_s_mem()));
  if (!bio ||
      PEM_write_bio_PrivateKey(bio.get(), key_, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return VELK2_FAILURE;
  }
  char* data = nullptr;
  long size = BIO_get_mem_data(bio.get(), &data);
  return WriteFileAtomically(path, std::string(data, static_cast<size_t>(size)), 0600, overwrite);
}

int PrivateKey::bits() const {
  return key_ ? EVP_PKEY_get_bits(key_) : 0;
}

std::vector<uint8_t> PrivateKey::Parameter(const char* name) const {
  static const struct {
    const char* short_name;
    const char* param;
    KeyType type;
  } kParams[] = {
      {"e", OSSL_PKEY_PARAM_RSA_E, KeyType::kRsa}, {"n", OSSL_PKEY_PARAM_RSA_N, KeyType::kRsa},
      {"p", OSSL_PKEY_PARAM_FFC_P, KeyType::kDsa}, {"q", OSSL_PKEY_PARAM_FFC_Q, KeyType::kDsa},
      {"g", OSSL_PKEY_PARAM_FFC_G, KeyType::kDsa}, {"y", OSSL_PKEY_PARAM_PUB_KEY, KeyType::kDsa},
  };
  if (key_ == nullptr) return {};
  for (const auto& p : kParams) {
    if (std::strcmp(p.short_name, name) != 0 || p.type != type_) continue;
    BIGNUM* raw = nullptr;
    if (EVP_PKEY_get_bn_param(key_, p.param, &raw) != 1) return {};
    Bn value(raw);
    int size = BN_num_bytes(value.get());
    // A leading zero keeps the integer unsigned for readers that take the top bit as a sign.
    bool pad = BN_num_bits(value.get()) % 8 == 0 && size > 0;
    std::vector<uint8_t> bytes(static_cast<size_t>(size) + (pad ? 1 : 0), 0);
    BN_bn2bin(value.get(), bytes.data() + (pad ? 1 : 0));
    return bytes;
  }
  return {};
}

VELK2_RESULT PrivateKey::SignDigest(const std::string& algorithm, uint32_t hash_id,
                                    const uint8_t* digest, size_t digest_length,
                                    std::vector<uint8_t>* signature) const {
  if (key_ == nullptr || digest == nullptr || signature == nullptr) return VELK2_ERR_INVALID_PARAM;
  const EVP_MD* md = DigestOf(hash_id, digest_length);
  if (md == nullptr) return VELK2_ERR_SIGNATURE_ID;
  if (type_ == KeyType::kRsa && (algorithm == kRsaPss || algorithm == kRsaPkcs1)) {
    return SignRsa(key_, algorithm == kRsaPss, md, digest, digest_length, signature);
  }
  if (type_ == KeyType::kDsa && algorithm == kDsaSha1 && hash_id == 0) {
    return SignDsa(key_, digest, digest_length, signature);
  }
  return VELK2_ERR_SIGNATURE_ID;
}

}  // namespace velk2::issuing
