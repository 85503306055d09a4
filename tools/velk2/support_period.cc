// The period that a verdict command asks about.
#include <ctime>
#include <string>

#include "platform/utf.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/support.h"

namespace velk2::cli {

int ReadDateOption(const Options& options, const char* command, const std::string& field,
                   int64_t* out) {
  const std::optional<std::string> text = options.Get(field);
  if (!text) return kExitOk;
  if (issuing::ParseDate(*text, out) != VELK2_SUCCESS) {
    return UsageError(command, "--" + field + " '" + EscapeForDisplay(*text) +
                                   "' is not a date (YYYY-MM-DD_hh:mm:ss, YYYY-MM-DD or ISO "
                                   "8601 such as 2026-01-01T12:00:00Z)");
  }
  // The library reads a date of 0 as no date at all.
  if (*out <= 0) {
    return UsageError(command, "--" + field + " '" + EscapeForDisplay(*text) +
                                   "' is not after 1970-01-01_00:00:00, the earliest date");
  }
  return kExitOk;
}

int ReadPeriodOptions(const Options& options, const char* command, api::Period* period) {
  std::optional<int64_t>* times[2] = {&period->not_before, &period->not_after};
  const char* const fields[] = {"not-before", "not-after"};
  for (int i = 0; i < 2; ++i) {
    if (!options.Get(fields[i])) continue;
    int64_t time = 0;
    if (int exit = ReadDateOption(options, command, fields[i], &time); exit != kExitOk) return exit;
    *times[i] = time;
  }
  if (period->not_before && period->not_after && *period->not_before > *period->not_after) {
    return UsageError(command, "--not-before is after --not-after");
  }
  period->any_time = options.Has("any-time");
  if (period->any_time && (period->not_before || period->not_after)) {
    return UsageError(command, "--any-time takes no --not-before or --not-after");
  }
  if (!period->any_time && !period->not_before && !period->not_after) {
    // Without a period a person means now: an expired grant must not count.
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    period->not_before = period->not_after = now;
    period->at_now = true;
  }
  return kExitOk;
}

}  // namespace velk2::cli
