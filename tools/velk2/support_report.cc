// Reporting failures, and what several commands ask of their options.
#include <sys/stat.h>

#include <cstdio>

#include "tools/velk2/messages.h"
#include "tools/velk2/support.h"

namespace velk2::cli {

int Fail(int exit_code, const char* command, const std::string& message) {
  std::fprintf(stderr, "velk2 %s: %s\n", command, message.c_str());
  return exit_code;
}

int FailWith(int exit_code, const char* command, const std::string& message, Result code) {
  return Fail(exit_code, command, message + ": " + StatusText(code));
}

bool FileExists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

bool ShowsReasons(const Options& options) {
  return options.Has("explain") || options.Has("json");
}

}  // namespace velk2::cli
