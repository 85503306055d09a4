// velk2 hash FILE...: the SHA-256 of each file as the library computes it
// (the digest a manifest entry carries), one "HEX  NAME" line each, the form
// sha256sum prints, so that sha256sum -c reads it back. Only regular files
// are read.
#include <cstdio>
#include <string>

#include "platform/utf.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/support.h"
#include "trust/tool_api.h"

namespace velk2::cli {
namespace {

// A name as sha256sum writes it: its bytes unchanged, except that a name
// holding a backslash, a newline or a carriage return has them written
// "\\", "\n" and "\r" and its line starts with a backslash. The bytes stay
// raw, not escaped for display, because the checker reads them back.
std::string ChecksumLine(const std::string& hex, const std::string& name) {
  std::string escaped;
  bool marked = false;
  for (const char c : name) {
    switch (c) {
      case '\\':
        escaped += "\\\\";
        marked = true;
        break;
      case '\n':
        escaped += "\\n";
        marked = true;
        break;
      case '\r':
        escaped += "\\r";
        marked = true;
        break;
      default:
        escaped += c;
    }
  }
  return (marked ? "\\" : "") + hex + "  " + escaped + "\n";
}

}  // namespace

int RunHash(const Args& args) {
  constexpr char kName[] = "hash";
  // As with sha256sum, a first "--" ends the options (there are none), so
  // that a file named "-x" can follow it.
  const Args files(args.begin() + (!args.empty() && args[0] == "--" ? 1 : 0), args.end());
  if (files.empty()) return UsageError(kName, "expected at least one FILE");
  int exit = kExitOk;
  for (const std::string& file : files) {
    std::string hex;
    const Result r = api::HashFile(file, &hex);
    if (r != VELK2_SUCCESS) {
      exit = FailReading(kExitUsage, kName, file, r);
      continue;
    }
    const std::string line = ChecksumLine(hex, file);
    std::fwrite(line.data(), 1, line.size(), stdout);
  }
  return std::fflush(stdout) == 0 ? exit : kExitUsage;
}

}  // namespace velk2::cli
