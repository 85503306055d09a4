// Signatures: (9:signature hash-value signer (algorithm bytes)), binding the
// digest of a signed object to the key that signed it, and the routines that
// check one against its object.
//
// Accepted algorithm names: "rsa-pss" and "rsa-1.5" for RSA keys (the hash
// value may be "sha1" or "sha256"), "dsa-sha1" for DSA keys (the object is
// always hashed with SHA-1). The object's digest is taken over its stored
// form, display-hint markers included.
#ifndef VELK2_CREDENTIALS_SIGNATURE_H_
#define VELK2_CREDENTIALS_SIGNATURE_H_

#include <cstdint>

#include "credentials/credential.h"
#include "credentials/hash_value.h"
#include "credentials/public_key.h"
#include "frame/context.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "sexp/source.h"

namespace velk2 {

// The blob of VerifyBlobSignature: a 14-byte leading part, then the 40-byte
// DSA signature (r then s).
constexpr uint32_t kBlobLeadingBytes = 14;
constexpr uint32_t kBlobSignatureBytes = 40;
constexpr uint32_t kBlobBytes = kBlobLeadingBytes + kBlobSignatureBytes;

class Signature final : public Credential {
 public:
  explicit Signature(Velk2Context* context = nullptr) : Credential(context) {}
  static Ref<Signature> New(Velk2Context* context = nullptr) { return MakeRef<Signature>(context); }
  static const Signature* From(const SexpObject* object);

  uint32_t ClassFlag() const override { return kClassSignature; }

  // Parse reads "(9:signature" hash-value principal "(" name bytes "))".
  // VELK2_ERR_INVALID_PARAM (2) for a null source; the hash value's and the
  // principal's codes; the source's literal codes; 3 for memory.
  Result Parse(SexpSource* source) override;

  // Build fills this empty signature from its parts (the toolkit's signing
  // path): |hash| and |signer| are shared, the algorithm name and the
  // signature bytes copied into new atoms. 2 for a null or unfinished part,
  // a non-empty signature, or an empty name; 14 for bytes over 8192; 3.
  Result Build(HashValue* hash, Principal* signer, const char* algorithm, const uint8_t* bytes,
               uint32_t length);

  const HashValue* hash_value() const { return hash_value_.get(); }
  const Principal* signer() const { return signer_.get(); }
  const SexpAtom* algorithm() const { return algorithm_.get(); }
  const SexpAtom* signature_bytes() const { return signature_bytes_.get(); }

 protected:
  ~Signature() override = default;

 private:
  Ref<HashValue> hash_value_;
  Ref<Principal> signer_;
  Ref<SexpAtom> algorithm_;
  Ref<SexpAtom> signature_bytes_;
};

// ReadPrincipal reads a signer or issuer: a public key when the next two
// bytes are "(1", else a hash value when they are "(4", else
// VELK2_ERR_PRINCIPAL (11). *out (must be null, else 2) receives one
// reference; on failure it stays null and the reader's code is returned.
Result ReadPrincipal(SexpSource* source, Ref<Principal>* out, Velk2Context* context);

// VerifySignature checks |signature| against the signed |object|:
// VELK2_ERR_PARAM_NULL (38) for a null object or signature; the object's
// Issuer() must be the signature's signer by SameCanonicalForm, else
// VELK2_ERR_SIGNATURE (21) before any crypto work; then the signer's
// VerifyObjectSignature (18 for a signer that is a hash value).
Result VerifySignature(const Signature* signature, const Credential* object);

// VerifyRsaObjectSignature: |algorithm| must be a leading part of "rsa-pss"
// (scheme 4) or else of "rsa-1.5" (scheme 2), terminating NUL included, so
// "rsa" counts as "rsa-pss" and a longer name never matches (kept: existing
// signatures carry such names); else VELK2_ERR_SIGNATURE_ID (15), as for a
// hash value that is not "sha1" or "sha256". The digest of |object| with the
// hash value's algorithm must equal its digest, else VELK2_ERR_HASH_MISMATCH
// (22); then the signature must verify, else VELK2_ERR_SIGNATURE (21).
// Null arguments give 2; crypto codes are returned as they come.
Result VerifyRsaObjectSignature(const PublicKey* key, const SexpAtom* algorithm,
                                const SexpAtom* signature_bytes, const HashValue* hash,
                                const SexpObject* object);
// VerifyDsaObjectSignature: |algorithm| must be a leading part of
// "dsa-sha1" (else 15). The object is hashed with SHA-1 whatever the hash
// value names, and compared over 20 bytes with its digest (22); then the
// signature (21).
Result VerifyDsaObjectSignature(const PublicKey* key, const SexpAtom* algorithm,
                                const SexpAtom* signature_bytes, const HashValue* hash,
                                const SexpObject* object);
// VerifyDsaBlobSignature checks the DSA signature in |blob| (kBlobBytes: the
// leading part, then the signature) over SHA-1(leading part || data). 2 for
// a null algorithm or blob or a blob shorter than kBlobBytes; 15 for another
// algorithm name; 3 for memory; 21 for a bad signature.
Result VerifyDsaBlobSignature(const PublicKey* key, const SexpAtom* algorithm, const uint8_t* blob,
                              uint32_t blob_length, const uint8_t* data, uint32_t data_length);

}  // namespace velk2

#endif  // VELK2_CREDENTIALS_SIGNATURE_H_
