// Certificate files: one "(8:sequence" entry entry ... ")" per file, each
// entry three lists in this order:
//   a certificate body (4:cert ...);
//   its signature (9:signature ...), made by the certificate's issuer;
//   an owner list, read as any list and kept whole; normally (5:owner text).
// Entries are read as long as the next byte is "("; there is no count.
#ifndef VELK2_CREDENTIALS_CERTIFICATE_SEQUENCE_H_
#define VELK2_CREDENTIALS_CERTIFICATE_SEQUENCE_H_

#include <cstddef>
#include <cstdint>

#include "credentials/certificate.h"
#include "credentials/credential.h"
#include "credentials/signature.h"
#include "frame/boundary.h"
#include "frame/context.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "sexp/source.h"

namespace velk2 {

// One entry of a sequence, borrowed from it.
struct CertificateEntry {
  const Certificate* certificate = nullptr;
  const Signature* signature = nullptr;
  const SexpList* owner = nullptr;
};

// Children: the atom "sequence", then the three lists of every entry in order.
// It is the object behind every certificate record handed to callers.
class CertificateSequence final : public Credential, public Tagged<ClassTag::kCertificateSequence> {
 public:
  explicit CertificateSequence(Velk2Context* context = nullptr) : Credential(context) {}
  static Ref<CertificateSequence> New(Velk2Context* context = nullptr) {
    return MakeRef<CertificateSequence>(context);
  }
  // The object as a CertificateSequence when it is one, else null.
  static const CertificateSequence* From(const SexpObject* object);

  uint32_t ClassFlag() const override { return kClassCertificateSequence; }
  const char16_t* StoreSubdirectory() const override { return u"cert"; }
  const char16_t* FileExtension() const override { return u".cert"; }

  // Parse reads "(8:sequence", then while the next byte is "(" a
  // certificate, a signature and an owner list, then ")". 2 for a null
  // source or a sequence already read; the source's literal codes (an entry
  // without its signature or owner list fails where that list should start,
  // with 6, or with 7 at the end of the data); the certificate's, the
  // signature's and the list reader's codes; 3 for memory.
  Result Parse(SexpSource* source) override;

  size_t entry_count() const { return ChildCount() > 0 ? (ChildCount() - 1) / 3 : 0; }
  // Entry |index| (0-based); all members null past the end.
  CertificateEntry entry(size_t index) const;

 protected:
  ~CertificateSequence() override = default;
};

// ReadCertificateFile reads the certificate file at |path| (taken as it
// stands) into a new sequence made with |context|. *out must be null and the
// path non-empty, else VELK2_ERR_INVALID_PARAM (2) (also for a null out).
// VELK2_ERR_FILE_OPEN (7) when the file cannot be read whole (missing,
// unreadable, over 1 MiB); Parse's codes; VELK2_ERR_PARSE_FILE (9) for bytes
// after the sequence's ")" (a file holds one sequence, so two files joined
// together never lose the second one silently). On failure *out stays null.
// The sequence's file path is |path|, its location kStoreVerbatim.
Result ReadCertificateFile(Ref<CertificateSequence>* out, const char16_t* path,
                           Velk2Context* context);

}  // namespace velk2

#endif  // VELK2_CREDENTIALS_CERTIFICATE_SEQUENCE_H_
