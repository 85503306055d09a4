// velk2 cert show: the records of a certificate file, as a C caller reads
// them with Velk2CertReadA, with the principals of each certificate.
#include <cstdio>
#include <string>

#include "credentials/certificate_sequence.h"
#include "platform/utf.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/support.h"
#include "tools/velk2/support_acl.h"
#include "velk2.h"

namespace velk2::cli {
namespace {

std::string Text(const char* text) {
  return text != nullptr ? EscapeForDisplay(text) : std::string("(none)");
}

std::string Date(int64_t time) {
  return time != 0 ? issuing::FormatDate(time) : std::string("(none)");
}

}  // namespace

int RunCertShow(const Args& args) {
  const char* kName = "cert show";
  if (args.size() != 1) return UsageError(kName, "one FILE is required");
  Velk2CertRecord* first = nullptr;
  const Result r = Velk2CertReadA(&first, args[0].c_str());
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, "cannot read " + EscapeForDisplay(args[0]), r);
  }
  if (first == nullptr) {
    std::printf("%s holds no certificate\n", EscapeForDisplay(args[0]).c_str());
    return kExitOk;
  }
  const CertificateSequence* sequence = static_cast<CertificateSequence*>(first->sequence);
  size_t index = 0;
  for (const Velk2CertRecord* record = first; record != nullptr; record = record->next, ++index) {
    const CertificateEntry entry = sequence->entry(index);
    std::printf("%scertificate %zu\n", index > 0 ? "\n" : "", index + 1);
    std::printf("  subject: %s\n", DescribePrincipal(*entry.certificate->subject()).c_str());
    std::printf("  issuer: %s\n", DescribePrincipal(*entry.certificate->issuer()).c_str());
    std::printf("  tag: %s\n", record->tag ? ReadableTag(entry.certificate->tag()).c_str()
                                           : "(none: grants everything the issuer holds)");
    std::printf("  propagate: %s\n", entry.certificate->propagate() ? "yes" : "no");
    std::printf("  owner: %s\n", Text(record->owner).c_str());
    std::printf("  period: %s to %s\n", Date(record->not_before).c_str(),
                Date(record->not_after).c_str());
    if (const SexpList* spec = entry.certificate->revocation_spec()) {
      std::printf("  revocation: %s\n", ReadableTag(spec).c_str());
    }
    const HashValue* hash = HashValue::From(entry.signature->ChildAt(1));
    const HashAlgorithm* algorithm =
        hash ? FindHashAlgorithmById(static_cast<uint32_t>(hash->algorithm())) : nullptr;
    std::printf("  hash: %s:%s\n", algorithm ? algorithm->name : "?",
                hash ? HexString(hash->digest().data(), hash->digest().size()).c_str() : "?");
  }
  Velk2CertFree(first);
  return kExitOk;
}

}  // namespace velk2::cli
