// velk2 cert verify: is the chain of a certificate file good, under the
// revocation lists and the ACL of a store? The library's own question
// (signatures, revocation, authorization), as Velk2CertVerifyFile asks it.
#include <cstdio>
#include <optional>
#include <string>

#include "platform/utf.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "tools/velk2/verdict.h"
#include "trust/tool_api.h"

namespace velk2::cli {

int RunCertVerify(const Args& args) {
  const char* kName = "cert verify";
  Options options(kName);
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  if (options.positional().size() != 1) return UsageError(kName, "one FILE is required");
  Config config;
  std::string store, store_from;
  std::string tag_text;
  if (int exit = ReadStoreAndTag(options, kName, &config, &store, &store_from, &tag_text);
      exit != kExitOk) {
    return exit;
  }
  const std::string& file = options.positional()[0];
  QuietIfAsked(options);
  api::ChainRequest request;
  request.certificates_file = file;
  request.tag = tag_text;
  request.explain = ShowsReasons(options);
  if (int exit = ReadPeriodOptions(options, kName, &request.period); exit != kExitOk) return exit;
  api::Verdict verdict;
  api::InputProblem problem;
  Result r = api::VerifyChain(request, &verdict, &problem);
  if (r != VELK2_SUCCESS) {
    if (problem.what == "tag") return FailWith(kExitUsage, kName, "cannot read the tag", r);
    if (problem.what == "acl") {
      return FailWith(kExitUsage, kName, "no ACL loads from " + EscapeForDisplay(store + "/acl"),
                      r);
    }
    return FailReading(kExitUsage, kName, file, r);
  }
  const Result result = verdict.result;
  if (options.Has("json")) {
    std::printf("%s\n", VerdictJsonText(verdict).c_str());
  } else if (verdict.stage == api::Stage::kAuthorization) {
    std::fputs(VerdictText(verdict, options.Has("explain")).c_str(), stdout);
  } else {
    std::printf("result: %s\nauthorized: no\n", StatusText(result).c_str());
    if (options.Has("explain")) {
      std::printf("\nstage: %s\nwhy: %s\n", api::StageName(verdict.stage), verdict.why.c_str());
    }
  }
  HintAtTag(kName, tag_text, result);
  if (!verdict.why.empty()) return FailWith(kExitFailure, kName, verdict.why, result);
  if (api::Undecided(result)) {
    return Fail(kExitUsage, kName, "the question could not be decided: " + StatusText(result));
  }
  return result == VELK2_SUCCESS ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
