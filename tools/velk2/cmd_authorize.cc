// velk2 authorize: does a key, through a file of certificates, hold a tag
// under the ACL of a directory? Reads the options and the key, asks the
// library and prints its verdict.
#include <sys/stat.h>

#include <cstdio>
#include <optional>
#include <string>

#include "platform/utf.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "tools/velk2/verdict.h"
#include "trust/tool_api.h"

namespace velk2::cli {
namespace {

constexpr char kName[] = "authorize";

bool IsDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

int RunAuthorize(const Args& args) {
  Options options(kName);
  if (!options.Parse(args)) return UsageError(kName, options.error());
  std::optional<std::string> acl_dir = options.Get("acl-dir");
  std::optional<std::string> certs = options.Get("certs");
  std::optional<std::string> key_path = options.Get("key");
  std::optional<std::string> tag_text = options.Get("tag");
  if (!acl_dir || !certs || !key_path || !tag_text) {
    return UsageError(kName, "--acl-dir, --certs, --key and --tag are required");
  }
  QuietIfAsked(options);
  api::AuthorizeRequest request;
  request.acl_directory = *acl_dir;
  request.certificates_file = *certs;
  request.key_name = *key_path;
  request.tag = *tag_text;
  request.explain = ShowsReasons(options);
  if (int exit = ReadPeriodOptions(options, kName, &request.period); exit != kExitOk) return exit;
  if (!IsDirectory(*acl_dir)) {
    return Fail(kExitUsage, kName, "--acl-dir: no directory " + EscapeForDisplay(*acl_dir));
  }
  Result r = issuing::ReadPublicKeyText(*key_path, &request.key);
  if (r != VELK2_SUCCESS) {
    return FailReadingPublicKey(kExitUsage, kName, *key_path, r);
  }
  request.on_skipped = [](const api::SkippedFile& file) { SaySkipped(kName, file); };
  api::Verdict verdict;
  api::InputProblem problem;
  r = api::Authorize(request, &verdict, &problem);
  if (r != VELK2_SUCCESS) {
    if (problem.what == "tag") return FailWith(kExitUsage, kName, "cannot read the tag", r);
    if (problem.what == "certificates") {
      return FailReading(kExitUsage, kName, *certs, r);
    }
    if (problem.what == "acl") {
      return FailWith(
          kExitUsage, kName,
          "no ACL from " + EscapeForDisplay(*acl_dir) +
              (verdict.skipped.empty() ? std::string()
                                       : " (its last file, or every file, does not load)"),
          r);
    }
    return FailWith(kExitUsage, kName, "cannot read the " + problem.what, r);
  }
  if (options.Has("json")) {
    std::printf("%s\n", VerdictJsonText(verdict).c_str());
  } else {
    std::fputs(VerdictText(verdict, options.Has("explain")).c_str(), stdout);
  }
  const Result result = verdict.result;
  HintAtTag(kName, *tag_text, result);
  if (verdict.stage == api::Stage::kSignatures && result != VELK2_SUCCESS) {
    return FailWith(kExitFailure, kName, verdict.why, result);
  }
  if (api::Undecided(result)) {
    // No answer is not the answer no: the engine or the crypto library gave up.
    std::string why = "the question could not be decided: " + StatusText(result);
    if (verdict.explanation.limit_reached) {
      why += " (the reduction stopped at its limit of " + verdict.explanation.limit + ")";
    }
    return Fail(kExitUsage, kName, why);
  }
  return result == VELK2_SUCCESS ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
