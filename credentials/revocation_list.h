// Revocation lists: certificates and keys, named by hash, that are no longer
// to be trusted, each with the date of its revocation. A list file holds
//
//   "(8:sequence" list-body certificate signature ")"
//
// list-body: "(3:crl" "(7:version1:1)" "(5:list1" item* ")" "(5:list2" item* ")" ")"
//            (the version is required here, unlike in certificates)
// item:      "(4:item" hash-value date ")"
//
// list1 names revoked certificates (the hash of a certificate body's stored
// form), list2 revoked keys (the hash of a key's stored form). The
// certificate's subject is the hash of the list-body, its tag the scope of the
// list and its dates the period the list covers; its issuer signs it.
#ifndef VELK2_CREDENTIALS_REVOCATION_LIST_H_
#define VELK2_CREDENTIALS_REVOCATION_LIST_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "credentials/certificate.h"
#include "credentials/credential.h"
#include "credentials/hash_value.h"
#include "credentials/signature.h"
#include "frame/boundary.h"
#include "frame/context.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "sexp/source.h"

namespace velk2 {

// Revocation lists grow with what they revoke (100,000 items make about
// 8 MB), so they are read up to this size rather than the 1 MiB of other
// credential files.
constexpr uint64_t kMaxRevocationListFileSize = 64u << 20;

// The two sublists of a list.
enum class RevokedKind {
  kCertificates,  // list1: certificate bodies
  kKeys,          // list2: subject keys
};

// One revoked item, borrowed from its list.
struct RevokedItem {
  const HashValue* hash = nullptr;
  const SexpAtom* date = nullptr;
};

// The digests of one thing (a certificate body or a key) under each hash
// algorithm that lists ask for, each made once however many lists ask.
class ThingDigests {
 public:
  explicit ThingDigests(const SexpObject& thing) : thing_(thing) {}
  // The digest of the thing's stored form under |algorithm|. 0, or the
  // crypto module's code.
  Result Get(uint32_t algorithm, std::string_view* digest);

 private:
  const SexpObject& thing_;
  std::vector<std::pair<uint32_t, std::string>> made_;
};

class RevocationList final : public Credential, public Tagged<ClassTag::kRevocationList> {
 public:
  // A new list has the store location Global: stored lists live in the Global
  // directory's "cert" subdirectory, beside the certificates.
  explicit RevocationList(Velk2Context* context = nullptr);
  static Ref<RevocationList> New(Velk2Context* context = nullptr) {
    return MakeRef<RevocationList>(context);
  }

  uint32_t ClassFlag() const override { return kClassRevocationList; }
  const char16_t* StoreSubdirectory() const override { return u"cert"; }
  const char16_t* FileExtension() const override { return u".crl"; }

  // Parse reads the whole "(8:sequence ...)". 2 for a null source or a list
  // already read; the source's literal codes (a missing version fails at
  // "(7:version1:1)"); the hash value's, certificate's and signature's codes;
  // 3 for memory.
  Result Parse(SexpSource* source) override;
  const SexpObject* Issuer() const override;

  // The parts read; null until then. Children: the atom "sequence", the
  // body, the certificate, the signature, so the list writes back as read.
  const SexpList* body() const { return body_.get(); }
  const Certificate* certificate() const { return certificate_.get(); }
  const Signature* signature() const { return signature_.get(); }

  size_t revoked_count(RevokedKind kind) const;
  RevokedItem revoked(RevokedKind kind, size_t index) const;

  // FindRevoked looks |thing| up in one sublist: *index is the first item (in
  // list order) whose digest is that of |thing|'s stored form under the
  // item's algorithm, or kNoItem. |thing| is hashed once per algorithm that
  // the sublist uses, not once per item. 0, or the crypto module's code.
  static constexpr size_t kNoItem = SIZE_MAX;
  Result FindRevoked(RevokedKind kind, const SexpObject& thing, size_t* index) const;
  // The same with the thing's digests shared between lists.
  Result FindRevoked(RevokedKind kind, ThingDigests* digests, size_t* index) const;

  // The SHA-256 of the list certificate's tag (canonical, hints skipped),
  // made once: the digest SameCanonicalForm compares. Empty without a tag.
  const std::string& TagDigest() const;

  // A list that failed to verify against |acl| is not verified against it
  // again: a manifest may ship many copies of a broken list, and each would
  // cost a signature check per certificate asked about.
  void MarkUnverifiable(const SexpList* acl);
  bool UnverifiableUnder(const SexpList* acl) const {
    return acl != nullptr && unverifiable_under_.get() == acl;
  }

  // The verified-issuer mark: the certificate's tag once the list has been
  // verified against an ACL (null before). Later checks skip verification.
  bool verified() const { return verified_issuer_ != nullptr; }
  void MarkVerified();

 protected:
  ~RevocationList() override;

 private:
  struct Index;
  Result ParseBody(SexpSource* source);
  const SexpList* sublist(RevokedKind kind) const;

  Ref<SexpList> body_;
  const SexpList* list1_ = nullptr;  // children of body_
  const SexpList* list2_ = nullptr;
  Ref<Certificate> certificate_;
  Ref<Signature> signature_;
  Ref<SexpList> verified_issuer_;
  Ref<SexpList>
      unverifiable_under_;  // the ACL it failed against, held so its address stays its own
  mutable std::unique_ptr<Index> index_[2];  // built on the first lookup
  mutable std::string tag_digest_;
  mutable bool tag_digest_made_ = false;
};

// ReadRevocationListFile reads the list file at |path| (taken as it stands)
// into a new list made with |context|. *out must be null (else 2; 2 also for
// a null out or an empty path). VELK2_ERR_FILE_NOT_FOUND (5) when nothing is
// at the path; VELK2_ERR_FILE_OPEN (7) when it cannot be read whole (not a
// regular file, unreadable); VELK2_ERR_MEM_ALLOC (3) when it is larger than
// kMaxRevocationListFileSize; Parse's codes; VELK2_ERR_PARSE_FILE (9) for
// bytes after the list. The list's file path is |path|.
Result ReadRevocationListFile(Ref<RevocationList>* out, const char16_t* path,
                              Velk2Context* context);

}  // namespace velk2

#endif  // VELK2_CREDENTIALS_REVOCATION_LIST_H_
