// velk2 cert show: each certificate of a certificate file as a C caller
// reads it, with its principals.
#include <cstdio>
#include <string>
#include <vector>

#include "platform/utf.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/support.h"
#include "trust/tool_api.h"

namespace velk2::cli {
namespace {

std::string OrNone(const std::string& text) {
  return text.empty() ? std::string("(none)") : EscapeForDisplay(text);
}

}  // namespace

int RunCertShow(const Args& args) {
  const char* kName = "cert show";
  if (args.size() != 1) return UsageError(kName, "one FILE is required");
  std::vector<api::CertificateInfo> certificates;
  const Result r = api::DescribeCertificateFile(args[0], &certificates);
  if (r != VELK2_SUCCESS) {
    return FailReading(kExitUsage, kName, args[0], r);
  }
  if (certificates.empty()) {
    std::printf("%s holds no certificate\n", EscapeForDisplay(args[0]).c_str());
    return kExitOk;
  }
  for (size_t i = 0; i < certificates.size(); ++i) {
    const api::CertificateInfo& c = certificates[i];
    std::printf("%scertificate %zu\n", i > 0 ? "\n" : "", i + 1);
    std::printf("  subject: %s\n", c.subject.c_str());
    std::printf("  issuer: %s\n", c.issuer.c_str());
    std::printf("  tag: %s\n",
                c.tag.empty() ? "(none: grants everything the issuer holds)" : c.tag.c_str());
    std::printf("  propagate: %s\n", c.propagate ? "yes" : "no");
    std::printf("  owner: %s\n", OrNone(c.owner).c_str());
    std::printf("  period: %s to %s\n", OrNone(c.not_before).c_str(), OrNone(c.not_after).c_str());
    if (!c.revocation_scope.empty()) std::printf("  revocation: %s\n", c.revocation_scope.c_str());
    std::printf("  hash: %s\n", c.hash.c_str());
  }
  return kExitOk;
}

}  // namespace velk2::cli
