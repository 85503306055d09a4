// The defaults of a question: the store, the tag and the number of hashing
// threads, from the options, the environment and the configuration files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/utf.h"
#include "tools/issuing/small_file.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/support.h"

namespace velk2::cli {
namespace {

constexpr const char* kSystemConfig = "/etc/velk2/velk2.conf";
constexpr const char* kDefaultStore = "/etc/velk2";
constexpr size_t kMaxConfig = 64 * 1024;

std::string Trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// Reads |path| into |out|: false with |error| set when it cannot be read;
// |absent| tells a file that is not there for this user (missing, or below
// a directory it may not enter, as another user's home is when a command
// runs under setpriv or sudo), which is no error for the files looked for
// by default.
bool ReadSmallFile(const std::string& path, std::string* out, std::string* error, bool* absent) {
  int error_number = 0;
  const issuing::SmallFileProblem problem =
      issuing::ReadSmallFile(path, kMaxConfig, out, &error_number);
  *absent = problem == issuing::SmallFileProblem::kSystem &&
            (error_number == ENOENT || error_number == ENOTDIR ||
             (error_number == EACCES && ::access(path.c_str(), F_OK) != 0));
  *error = issuing::SmallFileProblemText(problem, error_number, kMaxConfig);
  return problem == issuing::SmallFileProblem::kNone;
}

// Reads the settings of |text| (the file |path|) into |config|, a later
// file's settings replacing an earlier one's.
bool ParseConfig(const std::string& path, const std::string& text, Config* config,
                 std::string* error) {
  size_t number = 0;
  for (size_t at = 0; at <= text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    const std::string line = Trimmed(text.substr(at, end - at));
    at = end + 1;
    ++number;
    if (line.empty() || line[0] == '#') continue;
    const std::string where = EscapeForDisplay(path) + ":" + std::to_string(number) + ": ";
    // A NUL would cut the value short where the system reads it.
    if (line.find('\0') != std::string::npos) {
      *error = where + "holds a NUL byte";
      return false;
    }
    const size_t equals = line.find('=');
    if (equals == std::string::npos) {
      *error = where + "not a setting 'NAME = VALUE'";
      return false;
    }
    const std::string name = Trimmed(line.substr(0, equals));
    const std::string value = Trimmed(line.substr(equals + 1));
    if (value.empty()) {
      *error = where + "'" + EscapeForDisplay(name) + "' has no value";
      return false;
    }
    if (name == "store") {
      config->store = value;
      config->store_from = path;
    } else if (name == "tag") {
      config->tag = value;
    } else if (name == "jobs") {
      if (value.size() > 2 || value.find_first_not_of("0123456789") != std::string::npos ||
          std::stoul(value) == 0 || std::stoul(value) > 64) {
        *error = where + "jobs takes a number of threads from 1 to 64";
        return false;
      }
      config->jobs = static_cast<unsigned>(std::stoul(value));
    } else {
      *error = where + "unknown setting '" + EscapeForDisplay(name) + "' (known: store, tag, jobs)";
      return false;
    }
  }
  return true;
}

}  // namespace

int LoadConfig(const char* command, Config* out) {
  *out = Config{};
  std::vector<std::pair<std::string, bool>> files;  // path, required
  if (const char* named = std::getenv("VELK2_CONFIG")) {
    // Set and empty: no configuration at all.
    if (*named != '\0') files.emplace_back(named, true);
  } else {
    files.emplace_back(kSystemConfig, false);
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    if (xdg != nullptr && *xdg == '/') {
      files.emplace_back(std::string(xdg) + "/velk2/velk2.conf", false);
    } else if (home != nullptr && *home == '/') {
      files.emplace_back(std::string(home) + "/.config/velk2/velk2.conf", false);
    }
  }
  for (const auto& [path, required] : files) {
    std::string text, error;
    bool absent = false;
    if (!ReadSmallFile(path, &text, &error, &absent)) {
      if (absent && !required) continue;
      return Fail(kExitUsage, command,
                  "cannot read the configuration " + EscapeForDisplay(path) + ": " + error);
    }
    if (!ParseConfig(path, text, out, &error)) return Fail(kExitUsage, command, error);
    out->files.push_back(path);
  }
  return kExitOk;
}

int ReadDefaults(const Options& options, const char* command, Config* config, std::string* store,
                 std::string* store_from) {
  if (int exit = LoadConfig(command, config); exit != kExitOk) return exit;
  if (std::optional<std::string> given = options.Get("store")) {
    *store = *given;
    *store_from = "--store";
  } else if (const char* env = std::getenv("VELK2_STORE"); env != nullptr && *env != '\0') {
    *store = env;
    *store_from = "VELK2_STORE";
  } else if (config->store) {
    *store = *config->store;
    *store_from = config->store_from;
  } else {
    *store = kDefaultStore;
    *store_from = "the default";
  }
  if (std::optional<std::string> tag = options.Get("tag")) config->tag = tag;
  return UseStore(command, *store, *store_from);
}

int ReadStoreAndTag(const Options& options, const char* command, Config* config, std::string* store,
                    std::string* store_from, std::string* tag) {
  if (int exit = ReadDefaults(options, command, config, store, store_from); exit != kExitOk) {
    return exit;
  }
  if (!config->tag || config->tag->find_first_not_of(" \t") == std::string::npos) {
    return UsageError(command, "--tag TEXT is required (or tag = in the configuration)");
  }
  *tag = *config->tag;
  return kExitOk;
}

}  // namespace velk2::cli
