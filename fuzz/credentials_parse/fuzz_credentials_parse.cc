// The credential readers on arbitrary bytes: a certificate sequence, a
// certificate body, an ACL entry, a public key, a signature and a revocation
// list, chosen by the first byte. Properties of every credential that reads: its stored form reads
// again as the same kind and writes the same bytes, and its canonical form is
// CanonicalLength() bytes long. Nothing may crash, leak or read out of bounds.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "acl/acl_entry.h"
#include "credentials/certificate.h"
#include "credentials/certificate_sequence.h"
#include "credentials/public_key.h"
#include "credentials/revocation_list.h"
#include "credentials/signature.h"
#include "fuzz/fuzz_support.h"
#include "sexp/object.h"
#include "sexp/source.h"

namespace {

using namespace velk2;
using fuzz::Check;
using fuzz::StoredOf;

Ref<Credential> NewOfKind(uint8_t kind) {
  switch (kind % 6) {
    case 0:
      return CertificateSequence::New();
    case 1:
      return Certificate::New();
    case 2:
      return AclEntry::New();
    case 3:
      return PublicKey::New();
    case 4:
      return Signature::New();
    default:
      return RevocationList::New();
  }
}

// Reads |bytes| as a credential of |kind|; null when it does not read.
Ref<Credential> Read(uint8_t kind, const uint8_t* bytes, size_t size) {
  SexpMemorySource source;
  if (source.AttachCopy(bytes, size) != VELK2_SUCCESS) return nullptr;
  Ref<Credential> credential = NewOfKind(kind);
  if (credential->Parse(&source) != VELK2_SUCCESS) return nullptr;
  return credential;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t kind = data[0];
  Ref<Credential> credential = Read(kind, data + 1, size - 1);
  if (!credential) return 0;

  std::string stored = StoredOf(*credential);
  Ref<Credential> again =
      Read(kind, reinterpret_cast<const uint8_t*>(stored.data()), stored.size());
  Check(static_cast<bool>(again), "the stored form reads again");
  Check(StoredOf(*again) == stored, "the stored form is stable");

  uint32_t length = credential->CanonicalLength();
  std::vector<uint8_t> canonical(length + 1);
  uint32_t position = 0;
  Check(credential->WriteCanonical(canonical.data(), &position, length + 1) == VELK2_SUCCESS,
        "the canonical form fits CanonicalLength() + 1 bytes");
  Check(position == length, "CanonicalLength() is the canonical size");

  if (const RevocationList* list = dynamic_cast<const RevocationList*>(credential.get())) {
    // Every item has its parts, and lookups run through the digest index.
    for (RevokedKind which : {RevokedKind::kCertificates, RevokedKind::kKeys}) {
      for (size_t i = 0; i < list->revoked_count(which); ++i) {
        const RevokedItem item = list->revoked(which, i);
        Check(item.hash != nullptr && item.date != nullptr, "an item has a hash and a date");
      }
      size_t index = 0;
      Check(list->FindRevoked(which, *list, &index) == VELK2_SUCCESS, "a lookup runs");
    }
  }
  return 0;
}
