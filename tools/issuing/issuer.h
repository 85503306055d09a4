// Building and signing credentials: public-key lists, hash principals,
// signatures, certificate bodies and certificate files.
#ifndef VELK2_TOOLS_ISSUING_ISSUER_H_
#define VELK2_TOOLS_ISSUING_ISSUER_H_

#include <cstdint>
#include <optional>
#include <string>

#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "tools/issuing/private_key.h"

namespace velk2::issuing {

// MakePublicKey: the canonical public key of |key|,
// (10:public-key(3:rsa(1:e e)(1:n n))) or (10:public-key(3:dsa(1:p p)(1:g g)(1:q q)(1:y y))).
Result MakePublicKey(const PrivateKey& key, Ref<SexpList>* out);

// MakeHashPrincipal: (4:hash 6:sha256 digest) over |object|'s canonical form,
// the principal that stands for a key (or any object) by its digest.
Result MakeHashPrincipal(const SexpObject& object, Ref<SexpList>* out);

// SignObject signs |object|'s stored form with |key| under |algorithm|
// ("rsa-pss", "rsa-1.5", "dsa-sha1") over |hash_id| (0 SHA-1, 2 SHA-256) and
// makes (9:signature (4:hash alg digest) signer (alg bytes)), the signer being
// |key|'s public key. A DSA signature always hashes with SHA-1.
Result SignObject(const PrivateKey& key, const SexpObject& object, const std::string& algorithm,
                  uint32_t hash_id, Ref<SexpList>* out);

// ParseTag reads the tag of a credential to be issued with the library's
// one tag reader (ReadTagText): "(pkg install)" or "(ftp (* set read write))"
// becomes (tag ...), each top-level element one child, every token an atom
// as typed. VELK2_ERR_UNEXPECTED_CHAR (28) or VELK2_ERR_INVALID_S_EXPRESSION
// (29) when it does not read (28 for a NUL byte), VELK2_ERR_INVALID_PARAM
// (2) for an empty tag: an issued credential grants something.
Result ParseTag(const std::string& text, Ref<SexpList>* out);

// ParseDate reads "YYYY-MM-DD_hh:mm:ss" (UTC) exactly: two digits for every
// field but the year, the separators as written, every field in range; or
// ISO 8601 as people write it: "YYYY-MM-DD" (midnight UTC),
// "YYYY-MM-DDThh:mm:ss" then nothing (UTC), "Z" or an offset ("+02:00",
// "-0530"). VELK2_ERR_INVALID_PARAM (2) otherwise.
Result ParseDate(const std::string& text, int64_t* out);
// FormatDate writes a time as "YYYY-MM-DD_hh:mm:ss" (UTC).
std::string FormatDate(int64_t time);

// ReadObjectFile reads a canonical S-expression file (a .pub key, a .cert
// sequence, any credential) as a plain list. The reader's codes on failure.
Result ReadObjectFile(const std::string& path, Ref<SexpList>* out);

// What a certificate or an ACL entry grants; absent optional fields stay unset.
struct GrantFields {
  bool propagate = false;
  Ref<SexpList> tag;  // (tag ...), or null for none
  std::optional<int64_t> not_before;
  std::optional<int64_t> not_after;
  std::optional<std::string> comment;
};

// AppendGrantFields appends, in the order both credentials keep them,
// [(9:propagate)] [tag] [(5:valid [(10:not-before d)] [(9:not-after d)])]
// [(7:comment c)]. VELK2_ERR_INVALID_PARAM (2) for a time with no date.
Result AppendGrantFields(SexpList* list, const GrantFields& grant);

// The fields of a certificate to be issued.
struct CertificateRequest : GrantFields {
  Ref<SexpObject> issuer;   // a public key or hash principal
  Ref<SexpObject> subject;  // a public key, hash principal or k-of-n group
  // (tag ...) naming the revocation lists that must clear the certificate,
  // written as its last field (10:revocation ...); null for none.
  Ref<SexpList> revocation_scope;
};

// MakeCertificateBody builds (4:cert (7:version 1:1) (6:issuer ..) (7:subject ..)
// [(9:propagate)] [tag] [(5:valid [(10:not-before d)] [(9:not-after d)])]
// [(7:comment c)] [(10:revocation scope...)]). 2 without issuer or subject.
Result MakeCertificateBody(const CertificateRequest& request, Ref<SexpList>* out);

// Where AppendCertificate puts a certificate in a chain file. A chain file
// holds its leaf first: `manifest sign` and `cert verify` take the first
// certificate's subject as the key the chain is about, and each next
// certificate grants the issuer of the one before. The LeafFirst placements
// keep that order: they refuse a certificate that would stand on the wrong
// side of its neighbour, appended after the certificate that granted its
// issuer (root first) or prepended before a certificate whose issuer it
// grants. Certificates that do not chain to their neighbour, and those a
// key issues to itself, may stand in any order.
enum class Placement {
  kAppend,            // at the end, whatever the order
  kAppendLeafFirst,   // at the end, keeping the order
  kPrependLeafFirst,  // first, keeping the order
};

// AppendCertificate adds the entry body, signature, (5:owner |owner|) to the
// (8:sequence ...) in the file at |path|, creating it when missing, where
// |placement| says. The file is replaced whole through a temporary file, so
// it is never half-written, and kept as it was on any failure.
// The reader's codes when the existing file is not a sequence;
// VELK2_ERR_SIGNING_CERT_ORDER (36) when a LeafFirst placement would break
// the order; VELK2_ERR_INVALID_S_EXPRESSION (29) when the certificate nests
// deeper than the engine goes; VELK2_ERR_BUFFER_OVERFLOW (30) when the file
// would grow past kMaxSourceFileSize, the most any reader loads.
Result AppendCertificate(const std::string& path, Ref<SexpList> body, Ref<SexpList> signature,
                         const std::string& owner, Placement placement = Placement::kAppend);

// What `key show` prints of a key.
struct KeyInfo {
  std::string type;  // "rsa" or "dsa"
  uint32_t bits = 0;
  std::string fingerprint;  // SHA-256 of the canonical public key, hex
};
// LoadPublicKey reads a public key: a canonical .pub file that the library's
// key reader accepts (nothing may follow the key), or the public half of a
// .pem private key, opened with |passphrase| when it is encrypted. The
// reader's or the key's code (PrivateKey::LoadPem's) when it is not one.
Result LoadPublicKey(const std::string& path, Ref<SexpList>* out,
                     const std::string* passphrase = nullptr);
// The same as the key's canonical text, as the library's questions take it.
Result ReadPublicKeyText(const std::string& path, std::string* canonical);
Result ReadKeyInfo(const std::string& path, KeyInfo* info, const std::string* passphrase = nullptr);

// ReadCertificateAt reads certificate |index| (0-based) of the certificate
// file at |path|: its body, whether it names a revocation scope, and how
// many the file holds. The reader's codes; VELK2_ERR_INVALID_PARAM (2) when
// |index| is past the end (|*count| still set).
Result ReadCertificateAt(const std::string& path, size_t index, Ref<SexpObject>* body, bool* scoped,
                         size_t* count);

// WriteFile writes a credential or manifest the toolkit made: whole,
// through a temporary file, never half-written (WriteFileAtomically).
Result WriteFile(const std::string& path, const std::string& bytes, unsigned mode, bool overwrite);

// CanonicalText: the stored form of a credential the toolkit made, as its
// file holds it.
std::string CanonicalText(const SexpObject& object);

// The hash a signature covers, by name: "sha1" or "sha256" (the crypto
// module's ids, which SignObject takes).
constexpr uint32_t kHashSha1 = 0;
constexpr uint32_t kHashSha256 = 2;

}  // namespace velk2::issuing

#endif  // VELK2_TOOLS_ISSUING_ISSUER_H_
