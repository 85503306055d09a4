// velk2 show FILE: a canonical S-expression file (certificate, ACL entry,
// revocation list, key, manifest) in readable form, one element per line.
#include <cstdio>
#include <optional>
#include <string>

#include "platform/utf.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "trust/tool_api.h"

namespace velk2::cli {
int RunShow(const Args& args) {
  if (args.size() != 1) return UsageError("show", "expected one FILE");
  const std::string& file = args[0];
  std::string text;
  std::optional<int64_t> at;
  const api::Result result = api::ReadableFile(file, &text, &at);
  if (result != 0) {
    std::fprintf(stderr, "velk2 show: %s: %s", EscapeForDisplay(file).c_str(),
                 StatusMessage(result).c_str());
    if (at) std::fprintf(stderr, " (at byte %lld)", static_cast<long long>(*at));
    std::fputc('\n', stderr);
    return kExitUsage;
  }
  std::fwrite(text.data(), 1, text.size(), stdout);
  return std::fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
