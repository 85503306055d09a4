// velk2 hash FILE...: the SHA-256 of each file as the library computes it
// (the digest a manifest entry carries), one "HEX  NAME" line each, the form
// sha256sum prints. Only regular files are read.
#include <cstdio>
#include <string>

#include "platform/utf.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/support.h"
#include "trust/tool_api.h"

namespace velk2::cli {

int RunHash(const Args& args) {
  constexpr char kName[] = "hash";
  if (args.empty()) return UsageError(kName, "expected at least one FILE");
  int exit = kExitOk;
  for (const std::string& file : args) {
    std::string hex;
    const Result r = api::HashFile(file, &hex);
    if (r != VELK2_SUCCESS) {
      exit = FailWith(kExitUsage, kName, "cannot hash " + EscapeForDisplay(file), r);
      continue;
    }
    std::printf("%s  %s\n", hex.c_str(), EscapeForDisplay(file).c_str());
  }
  return std::fflush(stdout) == 0 ? exit : kExitUsage;
}

}  // namespace velk2::cli
