// Public keys: the principal that issues certificates, signs manifests and
// stands in ACL entries. Two canonical forms are accepted, with their
// parameters in exactly this order:
//   (10:public-key(3:rsa(1:e e)(1:n n)))
//   (10:public-key(3:dsa(1:p p)(1:g g)(1:q q)(1:y y)))
// A read key keeps the atoms it read, so its canonical form is the input, and
// holds a crypto key handle for verification.
#ifndef VELK2_CREDENTIALS_PUBLIC_KEY_H_
#define VELK2_CREDENTIALS_PUBLIC_KEY_H_

#include <cstdint>

#include "credentials/credential.h"
#include "frame/context.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "frame/text.h"
#include "platform/zcry.h"
#include "sexp/object.h"
#include "sexp/source.h"

namespace velk2 {

// Key types, as the crypto module numbers them; kKeyNone until a key is read.
enum KeyType : int32_t {
  kKeyNone = -1,
  kKeyDsa = 0,
  kKeyRsa = 1,
};

class PublicKey final : public Principal {
 public:
  explicit PublicKey(Velk2Context* context = nullptr) : Principal(context) {}
  static Ref<PublicKey> New(Velk2Context* context = nullptr) { return MakeRef<PublicKey>(context); }
  // The object as a PublicKey when it is one, else null.
  static const PublicKey* From(const SexpObject* object);

  uint32_t ClassFlag() const override { return kClassPublicKey; }
  const char16_t* FileExtension() const override { return u".pub"; }

  // Parse reads one of the two forms and defines the crypto key.
  // VELK2_ERR_INVALID_PARAM (2) for a null source; VELK2_ERR_PARSE_FILE (9)
  // when the algorithm name starts with a letter other than "r" or "d"; a
  // literal that does not match (parameters out of order, an unknown
  // parameter, a missing ")") gives the source's code (6, or 7 at the end);
  // crypto codes (an unusable key) as the module reports them; 3 for memory.
  Result Parse(SexpSource* source) override;

  // ExportKey hands out the key in the crypto module's export encoding (DER
  // SubjectPublicKeyInfo) as a new buffer in *bytes (which must be null, else
  // 2) and its size in *length. The caller owns the buffer, also when the
  // second export call fails after it was stored. The length query's result
  // may be 0 or 1070; any other is returned as it is.
  Result ExportKey(CBuffer<uint8_t>* bytes, uint32_t* length) const;

  // Dispatch to the RSA or DSA routines of signature.h; 18 for a key that
  // was never read.
  Result VerifyObjectSignature(const SexpAtom* algorithm, const SexpAtom* signature_bytes,
                               const HashValue* hash, const SexpObject* object) const override;
  // Only a DSA key verifies a blob; any other key gives 18.
  Result VerifyBlobSignature(const SexpAtom* algorithm, const uint8_t* blob, uint32_t blob_length,
                             const uint8_t* data, uint32_t data_length) const override;

  KeyType type() const { return type_; }
  ZCRY_PUBLIC_KEY handle() const { return handle_; }
  // "rsa" or "dsa"; null until the type is known.
  const char* algorithm_name() const { return algorithm_name_; }
  // The crypto module's key-data word of an RSA key (its modulus size in
  // bits); kept with the key, 0 for DSA.
  uint32_t data_word() const { return data_word_; }

 protected:
  ~PublicKey() override;

 private:
  Result DefineRsa(const SexpAtom* e, const SexpAtom* n);
  Result DefineDsa(const SexpAtom* p, const SexpAtom* g, const SexpAtom* q, const SexpAtom* y);

  KeyType type_ = kKeyNone;
  ZCRY_PUBLIC_KEY handle_ = nullptr;
  const char* algorithm_name_ = nullptr;
  uint32_t data_word_ = 0;
};

}  // namespace velk2

#endif  // VELK2_CREDENTIALS_PUBLIC_KEY_H_
