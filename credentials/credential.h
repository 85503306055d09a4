// The common base of the credential classes, and the literal matching that
// their readers share.
//
// Every credential class derives from SexpList through Credential, which adds
// the virtual Parse operation and the Issuer query. The principals that can
// stand as a signer, issuer or subject (public keys, hash values and k-of-n
// groups) derive from Principal, which adds the two verification slots; only a
// public key implements them.
//
// Each class answers ClassFlag() with its CredentialClass value, so a borrowed
// SexpObject can be downcast safely with the classes' From() helpers.
#ifndef VELK2_CREDENTIALS_CREDENTIAL_H_
#define VELK2_CREDENTIALS_CREDENTIAL_H_

#include <cstdint>

#include "frame/result.h"
#include "sexp/object.h"
#include "sexp/source.h"

namespace velk2 {

class HashValue;

// The ClassFlag() answers of the credential classes (a plain list answers 0).
// Classes added later take the next free values.
enum CredentialClass : uint32_t {
  kClassHashValue = 1,
  kClassPublicKey = 2,
  kClassKOfN = 3,
  kClassSignature = 4,
  kClassCertificate = 5,
  kClassCertificateSequence = 6,
  kClassAclEntry = 7,
  kClassRevocationList = 8,
};

class Credential : public SexpList {
 public:
  // Parse reads the credential's canonical form from |source| into this
  // empty object; an object that is not empty (read or built already) gives
  // VELK2_ERR_INVALID_PARAM (2), as does a null source. On failure the object
  // may be partly filled; the caller releases it.
  virtual Result Parse(SexpSource* source) = 0;

  // Issuer: the issuer principal of a signed object (a certificate's
  // (6:issuer ...) field, a revocation list's certificate issuer), which a
  // signature's signer must match. Null for objects that are not signed
  // objects; VerifySignature then answers VELK2_ERR_SIGNATURE (21).
  virtual const SexpObject* Issuer() const { return nullptr; }

 protected:
  explicit Credential(Velk2Context* context) : SexpList(context) {}
  ~Credential() override = default;
};

class Principal : public Credential {
 public:
  // VerifyObjectSignature checks |signature_bytes| made with |algorithm| over
  // |object|, whose digest |hash| states. Only a public key can; every other
  // principal (a hash value, a k-of-n group) answers
  // VELK2_ERR_NOT_IMPLEMENTED (18).
  virtual Result VerifyObjectSignature(const SexpAtom* algorithm, const SexpAtom* signature_bytes,
                                       const HashValue* hash, const SexpObject* object) const;
  // VerifyBlobSignature checks a signature blob (a 14-byte leading part and
  // a 40-byte DSA signature, |blob_length| at least 54) over |data|. Only a
  // DSA key can; every other principal answers 18.
  virtual Result VerifyBlobSignature(const SexpAtom* algorithm, const uint8_t* blob,
                                     uint32_t blob_length, const uint8_t* data,
                                     uint32_t data_length) const;

 protected:
  explicit Principal(Velk2Context* context) : Credential(context) {}
  ~Principal() override = default;
};

// MatchLiteral tests for |literal| at the source's position with |mode|
// kExpectOptional (consumed on a match) or kExpectPeek (never consumed). A
// literal that differs, or that is longer than what is left, is absent and
// leaves the position where it was.
bool MatchLiteral(SexpSource* source, const char* literal, uint32_t mode);

// AppendField appends (keyword child) to |list|, or (keyword) for a null
// child; the child's reference moves into the list on success.
template <typename T>
Result AppendField(SexpList* list, const char* keyword, Ref<T> child) {
  Ref<SexpList> field;
  Result result = NewKeywordListWithChild(&field, keyword, std::move(child), list->context());
  if (result != VELK2_SUCCESS) return result;
  return list->Append(std::move(field));
}

// ReadFieldAtom reads one atom and the ")" that closes the field holding it.
Result ReadFieldAtom(SexpSource* source, Ref<SexpAtom>* atom, Velk2Context* context);

// ReadOptionalAtomField reads the optional field "(N:name" atom ")" whose
// opening is |literal| (for example "(7:comment") and appends (|keyword| atom)
// to |holder|; *atom then borrows the field's atom. An absent field leaves
// *atom null and gives 0.
Result ReadOptionalAtomField(SexpSource* source, SexpList* holder, const char* literal,
                             const char* keyword, Ref<SexpAtom>* atom);

// ReadOptionalValidField reads the optional period
// "(5:valid" ["(10:not-before" date ")"] ["(9:not-after" date ")"] ")"
// and appends (valid (not-before d)? (not-after d)?) to |holder|. The date
// atoms are handed back through |not_before| and |not_after| (null when
// absent); the dates are not checked here. An absent field gives 0.
Result ReadOptionalValidField(SexpSource* source, SexpList* holder, Ref<SexpAtom>* not_before,
                              Ref<SexpAtom>* not_after);

}  // namespace velk2

#endif  // VELK2_CREDENTIALS_CREDENTIAL_H_
