// Certificates: the signed statement (4:cert ...) by which an issuer grants a
// subject an authorization tag, and the k-of-n subject.
//
// Fields, in exactly this order (no field twice, none out of order):
//   "(4:cert"
//   "(7:version1:1)"                    optional, these bytes exactly
//   "(6:issuer" principal ")"           a public key or a hash value
//   "(7:subject" subject ")"            a public key, hash value or k-of-n
//   "(9:propagate)"                     optional
//   tag                                 optional: a list starting "(3:"
//   "(5:valid" ["(10:not-before" date ")"] ["(9:not-after" date ")"] ")"
//                                       optional
//   "(7:comment" atom ")"               optional
//   revocation specification            optional: a list starting "(1"
//   ")"
#ifndef VELK2_CREDENTIALS_CERTIFICATE_H_
#define VELK2_CREDENTIALS_CERTIFICATE_H_

#include <cstdint>

#include "credentials/credential.h"
#include "credentials/public_key.h"
#include "frame/context.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "sexp/source.h"

namespace velk2 {

// A k-of-n subject: "(6:k-of-n" k n key1 ... keyn ")". k and n are atoms of
// which only the first byte counts (a binary number 0-255, not digits); the
// group keeps them as numbers and rebuilds them as one-byte atoms with the
// "num" display hint. Exactly n public keys follow. k <= n and k > 0 are not
// checked here: the authorization engine interprets the group.
// Children: "k-of-n", the k atom, the n atom, the keys.
class KOfN final : public Principal {
 public:
  explicit KOfN(Velk2Context* context = nullptr) : Principal(context) {}
  static Ref<KOfN> New(Velk2Context* context = nullptr) { return MakeRef<KOfN>(context); }
  static const KOfN* From(const SexpObject* object);

  uint32_t ClassFlag() const override { return kClassKOfN; }

  // Parse: 2 for a null source or a group already read; the literal codes; the atom
  // reader's codes; VELK2_ERR_PARSE_FILE (9) for an empty k or n atom; the
  // key reader's codes for each key (a hash or a nested group where a key is
  // expected fails at the key's literal, as does a missing key).
  Result Parse(SexpSource* source) override;

  uint32_t k() const { return k_; }
  uint32_t n() const { return n_; }
  // The keys in order (n of them once read), borrowed.
  size_t key_count() const { return ChildCount() > 3 ? ChildCount() - 3 : 0; }
  const PublicKey* key(size_t index) const { return PublicKey::From(ChildAt(index + 3)); }

 protected:
  ~KOfN() override = default;

 private:
  uint32_t k_ = 0;
  uint32_t n_ = 0;
};

// The revocation state of a certificate, set by the revocation check.
enum RevocationState : uint32_t {
  kNotRevoked = 0,
  kCertificateRevoked = 1,
  kSubjectKeyRevoked = 2,
  kRevocationUnchecked = 3,
  // Beyond the designed states: the key that signed the certificate is
  // revoked (only a manifest's check looks at issuers, so that a revoked
  // signing key fails even where the ACL names it directly).
  kIssuerKeyRevoked = 4,
};

// The parts of a certificate body, each shared with whoever else holds it.
// Absent optional parts stay null.
struct CertificateFields {
  Ref<Principal> issuer;
  Ref<Principal> subject;
  bool propagate = false;
  Ref<SexpList> tag;
  Ref<SexpAtom> not_before;
  Ref<SexpAtom> not_after;
  Ref<SexpAtom> comment;
  Ref<SexpList> revocation_spec;
};

class Certificate final : public Credential {
 public:
  explicit Certificate(Velk2Context* context = nullptr) : Credential(context) {}
  static Ref<Certificate> New(Velk2Context* context = nullptr) {
    return MakeRef<Certificate>(context);
  }
  static const Certificate* From(const SexpObject* object);

  uint32_t ClassFlag() const override { return kClassCertificate; }
  const char16_t* StoreSubdirectory() const override { return u"cert"; }
  const char16_t* FileExtension() const override { return u".cert"; }

  // Parse is ParseCertificate(this, source).
  Result Parse(SexpSource* source) override;
  const SexpObject* Issuer() const override { return issuer_.get(); }

  // The (7:version 1:1) list, or null.
  const SexpList* version() const { return version_.get(); }
  const Principal* issuer() const { return issuer_.get(); }
  const Principal* subject() const { return subject_.get(); }
  bool propagate() const { return propagate_; }
  // The tag list, kept whole and uninterpreted, or null.
  const SexpList* tag() const { return tag_.get(); }
  // The date atoms, not validated, or null.
  const SexpAtom* not_before() const { return not_before_.get(); }
  const SexpAtom* not_after() const { return not_after_.get(); }
  const SexpAtom* comment() const { return comment_.get(); }
  // The trailing list whose text starts "(1", or null.
  const SexpList* revocation_spec() const { return revocation_spec_.get(); }

  // Every part of the body, shared: the fields of a copy.
  CertificateFields fields() const;

  // The revocation check's finding; a checked certificate is otherwise
  // unchanged, so the check may run on a borrowed one.
  RevocationState revocation_state() const { return revocation_state_; }
  void set_revocation_state(RevocationState state) const { revocation_state_ = state; }

 protected:
  ~Certificate() override = default;

 private:
  friend Result ParseCertificate(Certificate* certificate, SexpSource* source);
  friend Result BuildCertificate(Certificate* certificate, const CertificateFields& fields);

  Ref<SexpList> version_;
  Ref<Principal> issuer_;
  Ref<Principal> subject_;
  bool propagate_ = false;
  Ref<SexpList> tag_;
  Ref<SexpAtom> not_before_;
  Ref<SexpAtom> not_after_;
  Ref<SexpAtom> comment_;
  Ref<SexpList> revocation_spec_;
  mutable RevocationState revocation_state_ = kNotRevoked;
};

// ReadSubject reads a subject: a public key at "(1", a hash value at "(4", a
// k-of-n group at "(6" (peeked in that order), else VELK2_ERR_PRINCIPAL (11).
// *out (must be null, else 2) receives one reference; null after a failure.
// ACL entries read their subjects with it too.
Result ReadSubject(SexpSource* source, Ref<Principal>* out, Velk2Context* context);

// ParseCertificate reads a body into an empty |certificate| (else 2).
// VELK2_ERR_INVALID_PARAM (2) for a null source; a required literal that does
// not match gives the source's code (6, or 7 at the end): a field out of
// order, a version other than "1" (which then fails at the issuer), a
// duplicate or unknown field all end so; 11 for a principal of the wrong
// kind (an issuer that is a k-of-n group included); the readers' codes
// otherwise. On failure the caller releases the partly filled certificate.
Result ParseCertificate(Certificate* certificate, SexpSource* source);

// BuildCertificate fills an empty |certificate| from |fields|, each part
// shared (its count raised), with the version field always written. The
// issuer and the subject are required (2 when null, as for a non-empty
// certificate); the other parts are left out when null, and the valid field
// is written when either date is given. 3 for memory.
Result BuildCertificate(Certificate* certificate, const CertificateFields& fields);

}  // namespace velk2

#endif  // VELK2_CREDENTIALS_CERTIFICATE_H_
