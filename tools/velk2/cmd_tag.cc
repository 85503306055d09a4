// velk2 tag compare A B / velk2 tag intersect A B: the engine's tag algebra
// on two tags, for people writing ACLs. Tags are read as the library reads
// every tag text: '(ftp (* set read write))' or 'read', the body of (tag ...).
#include <cstdio>
#include <string>

#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "trust/tool_api.h"

namespace velk2::cli {
namespace {

// Why the tags could not be compared: one of them does not read, or the
// engine refused them.
int Refused(const char* command, const Options& options, Result code) {
  api::Tag ignored;
  for (size_t i = 0; i < 2; ++i) {
    if (api::ReadTag(options.positional()[i], &ignored) != VELK2_SUCCESS) {
      return UsageError(command,
                        std::string(i == 0 ? "A" : "B") + " is not a tag: " + StatusText(code));
    }
  }
  return UsageError(command, StatusMessage(code));
}

}  // namespace

int RunTagCompare(const Args& args) {
  const char* kCommand = "tag compare";
  Options options(kCommand);
  if (!options.Parse(args, /*allow_positional=*/true)) return UsageError(kCommand, options.error());
  if (options.positional().size() != 2) return UsageError(kCommand, "expected two tags A and B");
  std::string relation;
  const Result r = api::CompareTags(options.positional()[0], options.positional()[1], &relation);
  if (r != VELK2_SUCCESS) return Refused(kCommand, options, r);
  std::printf("%s\n", relation.c_str());
  return std::fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

int RunTagIntersect(const Args& args) {
  const char* kCommand = "tag intersect";
  Options options(kCommand);
  if (!options.Parse(args, /*allow_positional=*/true)) return UsageError(kCommand, options.error());
  if (options.positional().size() != 2) return UsageError(kCommand, "expected two tags A and B");
  bool disjoint = false;
  std::string text;
  const Result r = api::IntersectTags(options.positional()[0], options.positional()[1],
                                      options.Has("canonical"), &disjoint, &text);
  if (r != VELK2_SUCCESS) return Refused(kCommand, options, r);
  if (disjoint) {
    std::fprintf(stderr, "velk2 %s: the tags are disjoint\n", kCommand);
    return kExitFailure;
  }
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
  return std::fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
