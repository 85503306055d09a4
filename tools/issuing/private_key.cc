#include "tools/issuing/private_key.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/dsa.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "platform/files.h"
#include "platform/utf.h"
#include "tools/issuing/small_file.h"

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
struct X509SigFree {
  void operator()(X509_SIG* s) const { X509_SIG_free(s); }
};
struct P8InfoFree {
  void operator()(PKCS8_PRIV_KEY_INFO* p) const { PKCS8_PRIV_KEY_INFO_free(p); }
};
using P8Info = std::unique_ptr<PKCS8_PRIV_KEY_INFO, P8InfoFree>;

// PBKDF2 rounds for an encrypted key: a guess costs an attacker as much as
// a command costs its user, a fraction of a second.
constexpr int kKdfIterations = 200000;

// Overwrites a buffer that held key material when it goes out of scope.
struct CleansedOnExit {
  std::vector<uint8_t>& bytes;
  ~CleansedOnExit() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

// The PEM block of a file that holds a private key: "PRIVATE KEY",
// "ENCRYPTED PRIVATE KEY", "RSA PRIVATE KEY" and the like.
struct KeyBlock {
  std::string label;
  bool encrypted_header = false;  // Proc-Type: 4,ENCRYPTED, the older form
  std::vector<uint8_t> der;
  const CleansedOnExit cleansed{der};
};

// The private key blocks of a file: none, one (in |out|), or more. A file
// of two keys is refused: which one would sign is nobody's guess.
enum class KeyBlocks { kNone, kOne, kMany };
KeyBlocks FindKeyBlock(const std::vector<uint8_t>& pem, KeyBlock* out) {
  Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) return KeyBlocks::kNone;
  static constexpr std::string_view kSuffix = "PRIVATE KEY";
  KeyBlocks found = KeyBlocks::kNone;
  for (;;) {
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    if (PEM_read_bio(bio.get(), &name, &header, &data, &length) != 1) {
      ERR_clear_error();
      return found;
    }
    const std::string_view label(name);
    const bool key =
        label.size() >= kSuffix.size() && label.substr(label.size() - kSuffix.size()) == kSuffix;
    if (key && found == KeyBlocks::kNone) {
      out->label = std::string(label);
      out->encrypted_header = header != nullptr && std::strstr(header, "ENCRYPTED") != nullptr;
      out->der.assign(data, data + length);
    }
    OPENSSL_free(name);
    OPENSSL_free(header);
    OPENSSL_clear_free(data, static_cast<size_t>(length));
    if (key && found == KeyBlocks::kOne) return KeyBlocks::kMany;
    if (key) found = KeyBlocks::kOne;
  }
}

// Hands the passphrase to OpenSSL's reader of the older encrypted form,
// which offers a buffer of PEM_BUFSIZE bytes: a longer passphrase fails.
int CopyPassphrase(char* buffer, int size, int /*rwflag*/, void* passphrase) {
  const std::string& text = *static_cast<const std::string*>(passphrase);
  if (text.size() > static_cast<size_t>(size)) return -1;
  std::memcpy(buffer, text.data(), text.size());
  return static_cast<int>(text.size());
}

// Decrypts an ENCRYPTED PRIVATE KEY block. 72 when |passphrase| does not
// open it, 23 when it is no encrypted key at all or holds no usable key.
VELK2_RESULT DecryptPkcs8(const std::vector<uint8_t>& der, const std::string& passphrase,
                          Pkey* out) {
  const unsigned char* p = der.data();
  std::unique_ptr<X509_SIG, X509SigFree> sealed(
      d2i_X509_SIG(nullptr, &p, static_cast<long>(der.size())));
  if (!sealed || p != der.data() + der.size()) return VELK2_ERR_PRIVATE_KEY_TYPE;
  if (passphrase.size() > static_cast<size_t>(INT32_MAX)) return VELK2_ERR_INVALID_PASSPHRASE;
  // A wrong passphrase fails the padding check or leaves bytes that do not
  // read as a key: either way the passphrase is to blame.
  P8Info info(PKCS8_decrypt_ex(sealed.get(), passphrase.data(), static_cast<int>(passphrase.size()),
                               nullptr, nullptr));
  if (!info) return VELK2_ERR_INVALID_PASSPHRASE;
  out->reset(EVP_PKCS82PKEY_ex(info.get(), nullptr, nullptr));
  return *out ? VELK2_SUCCESS : VELK2_ERR_PRIVATE_KEY_TYPE;
}

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
    if (bits == 0) bits = 2048;
    if (bits != 1024 && bits != 2048) return VELK2_ERR_INVALID_PARAM;
    PkeyCtx param_ctx(EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr));
    EVP_PKEY* params = nullptr;
    if (!param_ctx || EVP_PKEY_paramgen_init(param_ctx.get()) <= 0 ||
        EVP_PKEY_CTX_set_dsa_paramgen_bits(param_ctx.get(), bits) <= 0 ||
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

VELK2_RESULT PrivateKey::LoadPem(const std::string& path, PrivateKey* out,
                                 const std::string* passphrase) {
  // Read through the library's reader: a FIFO or device named as the key
  // must fail, not block. A PEM key is a few kilobytes.
  constexpr uint64_t kMaxPemSize = 1 << 20;
  std::vector<uint8_t> pem;
  if (ReadWholeFile(Utf8ToUtf16(path).c_str(), kMaxPemSize, &pem) != VELK2_SUCCESS) {
    return VELK2_ERR_FILE_OPEN;
  }
  const CleansedOnExit cleansed{pem};
  KeyBlock block;
  switch (FindKeyBlock(pem, &block)) {
    case KeyBlocks::kNone:
      return VELK2_ERR_PRIVATE_KEY_TYPE;
    case KeyBlocks::kMany:
      return VELK2_ERR_PARSE_FILE;
    case KeyBlocks::kOne:
      break;
  }
  const bool pkcs8_encrypted = block.label == "ENCRYPTED PRIVATE KEY";
  Pkey key;
  if (pkcs8_encrypted || block.encrypted_header) {
    if (passphrase == nullptr) return VELK2_ERR_PARAM_NULL;
    if (pkcs8_encrypted) {
      if (VELK2_RESULT r = DecryptPkcs8(block.der, *passphrase, &key); r != VELK2_SUCCESS) {
        ERR_clear_error();
        return r;
      }
    } else {
      // The block reads (FindKeyBlock read it): what fails now is the
      // decryption, or bytes that a wrong passphrase left.
      Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
      if (!bio) return VELK2_ERR_MEM_ALLOC;
      key.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, CopyPassphrase,
                                        const_cast<std::string*>(passphrase)));
      if (!key) {
        ERR_clear_error();
        return VELK2_ERR_INVALID_PASSPHRASE;
      }
    }
  } else {
    Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    if (!bio) return VELK2_ERR_MEM_ALLOC;
    // An empty passphrase and no callback: nothing may ask on the terminal.
    key.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, const_cast<char*>("")));
  }
  if (!key) {
    ERR_clear_error();
    return VELK2_ERR_PRIVATE_KEY_TYPE;
  }
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

VELK2_RESULT PrivateKey::SavePem(const std::string& path, bool overwrite,
                                 const std::string* passphrase) const {
  if (key_ == nullptr) return VELK2_ERR_INVALID_PARAM;
  Bio bio(BIO_new(BIO_s_mem()));
  if (!bio) return VELK2_ERR_MEM_ALLOC;
  if (passphrase == nullptr) {
    if (PEM_write_bio_PrivateKey(bio.get(), key_, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
      return VELK2_FAILURE;
    }
  } else {
    if (passphrase->empty() || passphrase->size() > static_cast<size_t>(INT32_MAX)) {
      return VELK2_ERR_INVALID_PARAM;
    }
    // PBES2: AES-256-CBC under a PBKDF2 key with a random salt.
    P8Info info(EVP_PKEY2PKCS8(key_));
    std::unique_ptr<X509_SIG, X509SigFree> sealed(
        info ? PKCS8_encrypt_ex(-1, EVP_aes_256_cbc(), passphrase->data(),
                                static_cast<int>(passphrase->size()), nullptr, 0, kKdfIterations,
                                info.get(), nullptr, nullptr)
             : nullptr);
    if (!sealed || PEM_write_bio_PKCS8(bio.get(), sealed.get()) != 1) {
      ERR_clear_error();
      return VELK2_FAILURE;
    }
  }
  char* data = nullptr;
  long size = BIO_get_mem_data(bio.get(), &data);
  std::string text(data, static_cast<size_t>(size));
  OPENSSL_cleanse(data, static_cast<size_t>(size));
  const VELK2_RESULT r = WriteFileAtomically(path, text, 0600, overwrite);
  Wipe(&text);
  return r;
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

VELK2_RESULT ReadPassphraseFile(const std::string& path, std::string* passphrase,
                                std::string* problem) {
  const std::string shown = EscapeForDisplay(path);
  std::string bytes;
  VELK2_RESULT r = VELK2_SUCCESS;
  int error_number = 0;
  switch (ReadSmallFile(path, kMaxPassphraseFileSize, &bytes, &error_number)) {
    case SmallFileProblem::kNone:
      break;
    case SmallFileProblem::kSystem:
      *problem = "cannot read the passphrase file " + shown + ": " + std::strerror(error_number);
      r = VELK2_ERR_FILE_OPEN;
      break;
    case SmallFileProblem::kNotRegular:
      *problem = "the passphrase file " + shown + " is not a regular file";
      r = VELK2_ERR_INVALID_PARAM;
      break;
    case SmallFileProblem::kTooLarge:
      *problem = "the passphrase file " + shown + " is larger than " +
                 std::to_string(kMaxPassphraseFileSize / 1024) +
                 " KiB: it should hold the passphrase on its first line";
      r = VELK2_ERR_INVALID_PARAM;
      break;
  }
  if (r == VELK2_SUCCESS) {
    std::string line = bytes.substr(0, bytes.find('\n'));
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) {
      *problem = "the passphrase file " + shown + " holds no passphrase: its first line is empty";
      r = VELK2_ERR_INVALID_PARAM;
    } else {
      Wipe(passphrase);
      passphrase->assign(line);
      Wipe(&line);
    }
  }
  Wipe(&bytes);
  return r;
}

std::string KeyFileProblem(const std::string& path, VELK2_RESULT code) {
  switch (code) {
    case VELK2_ERR_PARAM_NULL:
      return "the key " + EscapeForDisplay(path) + " is encrypted: give --passphrase-file";
    case VELK2_ERR_INVALID_PASSPHRASE:
      return "wrong passphrase for " + EscapeForDisplay(path);
    case VELK2_ERR_PARSE_FILE:
      return "the key file " + EscapeForDisplay(path) +
             " holds more than one private key: keep one key a file";
    default:
      return std::string();
  }
}

VELK2_RESULT LoadKeyFile(const std::string& path, const std::optional<std::string>& passphrase_file,
                         PrivateKey* out, std::string* problem) {
  problem->clear();
  std::string passphrase;
  if (passphrase_file) {
    const VELK2_RESULT r = ReadPassphraseFile(*passphrase_file, &passphrase, problem);
    if (r != VELK2_SUCCESS) return r;
  }
  const VELK2_RESULT r = PrivateKey::LoadPem(path, out, passphrase_file ? &passphrase : nullptr);
  Wipe(&passphrase);
  if (r != VELK2_SUCCESS) *problem = KeyFileProblem(path, r);
  return r;
}

void Wipe(std::string* secret) {
  OPENSSL_cleanse(secret->data(), secret->size());
  secret->clear();
}

}  // namespace velk2::issuing
