// Private keys of the issuing toolkit: generation, PEM files and signing.
// Only the toolkit handles private keys; the library never links this code.
#ifndef VELK2_TOOLS_ISSUING_PRIVATE_KEY_H_
#define VELK2_TOOLS_ISSUING_PRIVATE_KEY_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
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

// What the commands print when a signature hashes with SHA-1: every DSA
// signature, and RSA ones with --hash sha1.
inline constexpr char kSha1Warning[] =
    "SHA-1 signatures are weak (SHA-1 collisions can be computed); prefer an RSA key signing "
    "SHA-256";

// A passphrase file is small: its first line is the passphrase.
inline constexpr size_t kMaxPassphraseFileSize = 4096;

class PrivateKey {
 public:
  PrivateKey();
  ~PrivateKey();
  PrivateKey(PrivateKey&&) noexcept;
  PrivateKey& operator=(PrivateKey&&) noexcept;

  // Generate makes a new key pair: RSA of |bits| (2048 to 16384), or DSA with
  // a p of |bits| (2048, also for 0, or 1024) and a 160-bit q. The library
  // verifies DSA signatures as two 20-byte integers over a SHA-1 digest, so q
  // stays at 160 bits whatever the size of p. 2 for a bad size, 1 when the
  // backend fails.
  static VELK2_RESULT Generate(KeyType type, int bits, PrivateKey* out);
  // LoadPem reads a PEM private key: unencrypted, or encrypted (PKCS#8, or
  // the older form with a Proc-Type header) when |passphrase| is given; a
  // passphrase given for an unencrypted key goes unused. 7 when the file
  // cannot be read; 38 (VELK2_ERR_PARAM_NULL) when the key is encrypted and
  // no passphrase is given; 72 (VELK2_ERR_INVALID_PASSPHRASE) when the
  // passphrase does not open it; 23 when it holds no RSA or DSA private key;
  // 9 (VELK2_ERR_PARSE_FILE) when it holds more than one private key.
  static VELK2_RESULT LoadPem(const std::string& path, PrivateKey* out,
                              const std::string* passphrase = nullptr);
  // SavePem writes the key as PKCS#8 PEM with mode 0600, through a temporary
  // file renamed into place: encrypted with AES-256-CBC under a key derived
  // from |passphrase| (PBKDF2 with HMAC-SHA256) when one is given, else
  // unencrypted. An existing file is kept unless |overwrite|: then 39
  // (VELK2_ERR_PARAM_NOT_NULL). 2 for an empty passphrase.
  VELK2_RESULT SavePem(const std::string& path, bool overwrite,
                       const std::string* passphrase = nullptr) const;

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

// ReadPassphraseFile reads the passphrase kept in the file at |path|: its
// first line without the line ending ("\n" or "\r\n"). The file must be a
// regular file of at most kMaxPassphraseFileSize bytes, and the passphrase
// must not be empty. On failure |problem| says why in words for the user: 7
// when the file cannot be opened or read, 2 otherwise.
VELK2_RESULT ReadPassphraseFile(const std::string& path, std::string* passphrase,
                                std::string* problem);

// KeyFileProblem words a LoadPem failure on |path| that lies with the key's
// encryption (an encrypted key and no passphrase, a wrong passphrase) or
// with a file of two keys; empty for any other code, which the caller
// reports as a file it cannot read.
std::string KeyFileProblem(const std::string& path, VELK2_RESULT code);

// LoadKeyFile reads the private key of a command that signs: the passphrase
// from |passphrase_file| when one is named, then the key at |path| with
// LoadPem. When the failure lies with the passphrase or the encryption,
// |problem| says so in words for the user; otherwise it stays empty.
VELK2_RESULT LoadKeyFile(const std::string& path, const std::optional<std::string>& passphrase_file,
                         PrivateKey* out, std::string* problem);

// Wipe overwrites a passphrase before its memory is given back.
void Wipe(std::string* secret);

}  // namespace velk2::issuing

#endif  // VELK2_TOOLS_ISSUING_PRIVATE_KEY_H_
