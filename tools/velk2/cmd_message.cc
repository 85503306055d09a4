// velk2 message CODE...: the message of result codes (and of engine statuses).
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform/utf.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"

namespace velk2::cli {
int RunMessage(const Args& args) {
  if (args.empty()) return UsageError("message", "expected at least one CODE");
  std::vector<long long> values;
  for (const std::string& text : args) {
    char* end = nullptr;
    errno = 0;
    long long value = std::strtoll(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno == ERANGE || value < INT32_MIN ||
        value > UINT32_MAX) {
      return UsageError("message", "'" + EscapeForDisplay(text) + "' is not a result code");
    }
    values.push_back(value);
  }
  for (long long value : values) std::printf("%lld: %s\n", value, api::MessageOf(value).c_str());
  return kExitOk;
}

}  // namespace velk2::cli
