// Private keys of the issuing toolkit: generation, PEM files and signing.
// Only the toolkit handles private keys; the library never links this code.
#ifndef VELK2_TOOLS_ISSUING_PRIVATE_KEY_H_
#define VELK2_TOOLS_ISSUING_PRIVATE_KEY_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "velk2.h"

typedef struct evp_pkey_st EVP_PKEY;

namespace velk2::issuing {

enum class KeyType { kRsa, kDsa };

// The signature algorithms the library verifies, by their names in a signature.
inline constexpr char kRsaPss[] = "rsa-pss";
inline constexpr char kRsaPkcs1[] = "rsa-1.5";
inline constexpr char kDsaSha1[] = "dsa-sha1";

class PrivateKey {
 public:
  PrivateKey();
  ~PrivateKey();
  PrivateKey(PrivateKey&&) noexcept;
  PrivateKey& operator=(PrivateKey&&) noexcept;

  // Generate makes a new key pair: RSA of |bits| (at least 2048), or DSA with a
  // 1024-bit p and a 160-bit q (|bits| is ignored). 2 for a bad size, 1 when the
  // backend fails.
  static VELK2_RESULT Generate(KeyType type, int bits, PrivateKey* out);
  // LoadPem reads an unencrypted PEM private key. 7 when the file cannot be
  // read, 23 when it holds no RSA or DSA private key.
  static VELK2_RESULT LoadPem(const std::string& path, PrivateKey* out);
  // SavePem writes the key as unencrypted PKCS#8 PEM with mode 0600, through a
  // temporary file renamed into place. An existing file is kept unless
  // |overwrite|: then 39 (VELK2_ERR_PARAM_NOT_NULL).
  VELK2_RESULT SavePem(const std::string& path, bool overwrite) const;

  bool valid() const { return key_ != nullptr; }
  KeyType type() const { return type_; }
  int bits() const;

  // A public parameter as an unsigned big-endian integer with a leading zero
  // byte when its top bit is set, as canonical keys store them: "e", "n" for
  // RSA; "p", "q", "g", "y" for DSA. Empty for a name the key lacks.
  std::vector<uint8_t> Parameter(const char* name) const;

  // SignDigest signs a digest made with |hash_id| (0 SHA-1, 2 SHA-256) under
  // |algorithm|: "rsa-pss" (salt as long as the digest), "rsa-1.5" (DigestInfo)
  // or "dsa-sha1" (SHA-1 only; 40 bytes, r then s). 15 for an algorithm that
  // does not fit the key or the hash, 1 when the backend fails.
  VELK2_RESULT SignDigest(const std::string& algorithm, uint32_t hash_id, const uint8_t* digest,
                          size_t digest_length, std::vector<uint8_t>* signature) const;

 private:
  EVP_PKEY* key_ = nullptr;
  KeyType type_ = KeyType::kRsa;
};

}  // namespace velk2::issuing

#endif  // VELK2_TOOLS_ISSUING_PRIVATE_KEY_H_
