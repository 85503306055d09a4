// Reporting failures, and what several commands ask of their options.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/utf.h"
#include "tools/issuing/private_key.h"
#include "tools/issuing/small_file.h"
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

namespace {

// Why the system would not let |path| be read (or written, into its
// directory), as strerror words it; empty when nothing stands in the way,
// and the trouble lies in what the file holds.
std::string SystemReason(const std::string& path, bool writing) {
  struct stat st {};
  if (writing) {
    const size_t slash = path.find_last_of('/');
    const std::string directory = slash == std::string::npos ? "."
                                  : slash == 0               ? "/"
                                                             : path.substr(0, slash);
    if (::access(directory.c_str(), W_OK | X_OK) != 0) return std::strerror(errno);
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return std::strerror(EISDIR);
    return std::string();
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return std::strerror(errno);
  const bool stated = ::fstat(fd, &st) == 0;
  ::close(fd);
  if (stated && S_ISDIR(st.st_mode)) return std::strerror(EISDIR);
  if (stated && !S_ISREG(st.st_mode)) return "not a regular file";
  return std::string();
}

int FailOnFile(int exit_code, const char* command, const std::string& path, Result code,
               bool writing) {
  const std::string reason = SystemReason(path, writing);
  return Fail(exit_code, command,
              std::string(writing ? "cannot write " : "cannot read ") + EscapeForDisplay(path) +
                  ": " +
                  (reason.empty() ? StatusText(code) : reason + " (" + StatusText(code) + ")"));
}

}  // namespace

int FailReading(int exit_code, const char* command, const std::string& path, Result code) {
  return FailOnFile(exit_code, command, path, code, false);
}

int FailReadingPublicKey(int exit_code, const char* command, const std::string& path, Result code) {
  const std::string problem = issuing::KeyFileProblem(path, code);
  if (problem.empty()) return FailReading(exit_code, command, path, code);
  return Fail(exit_code, command,
              code == VELK2_ERR_PARAM_NULL
                  ? "the key " + EscapeForDisplay(path) +
                        " is encrypted, its public half with it: give its .pub file"
                  : problem);
}

int FailWriting(int exit_code, const char* command, const std::string& path, Result code) {
  return FailOnFile(exit_code, command, path, code, true);
}

std::optional<std::string> PassphraseFileOption(const Options& options, const char* command) {
  std::optional<std::string> path = options.Get("passphrase-file");
  struct stat st;
  if (path && ::stat(path->c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
      (st.st_mode & (S_IRGRP | S_IROTH)) != 0) {
    std::fprintf(stderr,
                 "velk2 %s: warning: the passphrase file %s may be read by %s (mode %04o): "
                 "chmod 600 it\n",
                 command, EscapeForDisplay(*path).c_str(),
                 (st.st_mode & S_IROTH) != 0 ? "others" : "its group",
                 static_cast<unsigned>(st.st_mode & 07777));
  }
  return path;
}

void SaySkipped(const char* command, const api::SkippedFile& file) {
  std::fprintf(stderr, "velk2 %s: skipped %s: %s\n", command, EscapeForDisplay(file.file).c_str(),
               StatusText(file.code).c_str());
}

void HintAtTag(const char* command, const std::string& tag, Result result) {
  if (result != VELK2_ERR_NOT_AUTHORIZED && result != VELK2_ERR_NOT_GRANTED) return;
  const size_t first = tag.find_first_not_of(" \t\n");
  if (first == std::string::npos || tag[first] == '(') return;
  const size_t last = tag.find_last_not_of(" \t\n");
  std::fprintf(stderr,
               "velk2 %s: hint: the tag '%s' is not a list; write it in parentheses: '%s'\n",
               command, EscapeForDisplay(tag).c_str(),
               EscapeForDisplay("(" + tag.substr(first, last - first + 1) + ")").c_str());
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
  constexpr size_t kMaxPatternFile = 1 << 20;
  *out = options.GetAll("ignore");
  for (const std::string& file : options.GetAll("ignore-from")) {
    const auto refuse = [&](const std::string& why) {
      return Fail(kExitUsage, command,
                  "--ignore-from: cannot read " + EscapeForDisplay(file) + ": " + why);
    };
    std::string text;
    int error_number = 0;
    const issuing::SmallFileProblem problem =
        issuing::ReadSmallFile(file, kMaxPatternFile, &text, &error_number);
    if (problem != issuing::SmallFileProblem::kNone) {
      return refuse(issuing::SmallFileProblemText(problem, error_number, kMaxPatternFile));
    }
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

void QuietIfAsked(const Options& options) {
  if (!options.Has("quiet")) return;
  // When freopen fails it has closed stdout: nothing is printed there either way.
  [[maybe_unused]] std::FILE* null = std::freopen("/dev/null", "w", stdout);
}

bool ShowsReasons(const Options& options) {
  return options.Has("explain") || options.Has("json");
}

}  // namespace velk2::cli
