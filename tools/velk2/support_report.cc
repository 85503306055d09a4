// Reporting failures, and what several commands ask of their options.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/utf.h"
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

// The patterns of --ignore and of the files named by --ignore-from (one a
// line; empty lines and lines starting with "#" are passed over). Only a
// regular file of at most 1 MiB is read: a FIFO named by mistake fails at
// once instead of blocking.
int ReadPatterns(const Options& options, const char* command, std::vector<std::string>* out) {
  constexpr off_t kMaxPatternFile = 1 << 20;
  *out = options.GetAll("ignore");
  for (const std::string& file : options.GetAll("ignore-from")) {
    const auto refuse = [&](const std::string& why) {
      return Fail(kExitUsage, command,
                  "--ignore-from: cannot read " + EscapeForDisplay(file) + ": " + why);
    };
    const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return refuse(std::strerror(errno));
    struct stat st {};
    std::string text;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxPatternFile) {
      ::close(fd);
      return refuse(S_ISREG(st.st_mode) ? "larger than 1 MiB" : "not a regular file");
    }
    text.resize(static_cast<size_t>(st.st_size));
    const ssize_t got = ::read(fd, text.data(), text.size());
    ::close(fd);
    if (got < 0) return refuse(std::strerror(errno));
    text.resize(static_cast<size_t>(got));
    for (size_t at = 0; at < text.size();) {
      size_t end = text.find('\n', at);
      if (end == std::string::npos) end = text.size();
      std::string line = text.substr(at, end - at);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (!line.empty() && line[0] != '#') out->push_back(line);
      at = end + 1;
    }
  }
  return kExitOk;
}

bool ShowsReasons(const Options& options) {
  return options.Has("explain") || options.Has("json");
}

}  // namespace velk2::cli
