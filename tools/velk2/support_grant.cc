#include <string>

#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/support.h"

namespace velk2::cli {

int ReadGrantOptions(const Options& options, const char* command, issuing::GrantFields* grant) {
  grant->propagate = options.Has("propagate");
  if (std::optional<std::string> comment = options.Get("comment")) {
    if (comment->empty()) return UsageError(command, "--comment must not be empty");
    grant->comment = comment;
  }
  for (const char* field : {"not-before", "not-after"}) {
    if (!options.Get(field)) continue;
    int64_t time = 0;
    if (int exit = ReadDateOption(options, command, field, &time); exit != kExitOk) return exit;
    (field[4] == 'b' ? grant->not_before : grant->not_after) = time;
  }
  if (grant->not_before && grant->not_after && *grant->not_before > *grant->not_after) {
    return UsageError(command, "--not-before is after --not-after");
  }
  std::optional<std::string> tag = options.Get("tag");
  if (!tag) return UsageError(command, "--tag is required");
  Result r = issuing::ParseTag(*tag, &grant->tag);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, command, "cannot read the tag", r);
  return kExitOk;
}

int ReadSubjectOption(const Options& options, const char* command, Ref<SexpObject>* subject) {
  std::optional<std::string> key_path = options.Get("subject");
  std::optional<std::string> hash_path = options.Get("subject-hash");
  if (key_path.has_value() == hash_path.has_value()) {
    return UsageError(command, "give exactly one of --subject and --subject-hash");
  }
  Ref<SexpList> principal;
  Result r;
  if (key_path) {
    r = issuing::LoadPublicKey(*key_path, &principal);
  } else {
    Ref<SexpList> named;
    r = issuing::ReadObjectFile(*hash_path, &named);
    if (r == VELK2_SUCCESS) r = issuing::MakeHashPrincipal(*named, &principal);
  }
  if (r != VELK2_SUCCESS) {
    return key_path ? FailReadingPublicKey(kExitUsage, command, *key_path, r)
                    : FailReading(kExitUsage, command, *hash_path, r);
  }
  *subject = std::move(principal);
  return kExitOk;
}

}  // namespace velk2::cli
