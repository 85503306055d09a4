// velk2 cert verify: is the chain of a certificate file good, under the
// revocation lists and the ACL of a store? The library's own question
// (signatures, revocation, authorization), as Velk2CertVerifyFile asks it.
#include <cstdio>
#include <optional>
#include <string>

#include "acl/acl_entry.h"
#include "trust/certificate_store.h"
#include "credentials/certificate_sequence.h"
#include "platform/utf.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "tools/velk2/support_acl.h"
#include "tools/velk2/verdict.h"
#include "velk2.h"

namespace velk2::cli {

int RunCertVerify(const Args& args) {
  const char* kName = "cert verify";
  Options options({"store", "tag", "not-before", "not-after"}, {"explain", "json"});
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  std::optional<std::string> store = options.Get("store");
  std::optional<std::string> tag_text = options.Get("tag");
  if (options.positional().size() != 1 || !store || !tag_text) {
    return UsageError(kName, "one FILE, --store and --tag are required");
  }
  const std::string& file = options.positional()[0];
  if (int exit = UseStore(kName, *store); exit != kExitOk) return exit;
  Story story;
  story.certs_file = EscapeForDisplay(file);
  story.acl_dir = EscapeForDisplay(*store + "/acl");
  Period period;
  if (int exit = ReadPeriodOptions(options, kName, &period); exit != kExitOk) return exit;
  story.not_before = issuing::FormatDate(*period.not_before);
  story.not_after = issuing::FormatDate(*period.not_after);
  story.at_now = period.at_now;

  Ref<SexpList> tag;
  Result r = issuing::ParseTag(*tag_text, &tag);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read the tag", r);
  story.tag = ReadableTag(tag.get());

  Ref<CertificateSequence> sequence;
  r = ReadCertificateFile(&sequence, Utf8ToUtf16(file).c_str(), nullptr);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, "cannot read " + EscapeForDisplay(file), r);
  }
  Ref<SexpList> acl;
  r = LoadAcl(&acl, nullptr, nullptr);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, "no ACL loads from " + story.acl_dir, r);
  }
  if (sequence->entry_count() > 0) {
    // The question is about the first certificate's subject.
    story.key_file = "the subject of certificate 1";
    Describe(&story, *acl, *sequence, *sequence->entry(0).certificate->subject(),
             ShowsReasons(options));
  }

  ChainQuestion question;
  question.sequence = sequence.get();
  question.tag = tag.get();
  question.not_before = *period.not_before;
  question.not_after = *period.not_after;
  question.findings = &story.revocation;
  question.trace = &story.trace;
  story.trace.record_tuples = ShowsReasons(options);
  std::string reduced;
  question.reduced_acl = &reduced;
  story.verdict = VerifyChain(question);
  story.reduced = !reduced.empty();
  const Result result = story.verdict.result;
  const std::string why = StageFailureText(story);
  if (options.Has("json")) {
    std::printf("%s\n", VerdictJsonText(story).c_str());
  } else if (story.verdict.stage == VerifyStage::kAuthorization) {
    std::fputs(VerdictText(story, options.Has("explain")).c_str(), stdout);
  } else {
    std::printf("result: %s\nauthorized: no\n", StatusText(result).c_str());
    if (options.Has("explain")) {
      std::printf("\nstage: %s\nwhy: %s\n",
                  story.verdict.stage == VerifyStage::kSignatures ? "signatures" : "revocation",
                  why.c_str());
    }
  }
  if (!why.empty()) return FailWith(kExitFailure, kName, why, result);
  if (Undecided(result)) {
    return Fail(kExitUsage, kName, "the question could not be decided: " + StatusText(result));
  }
  return result == VELK2_SUCCESS ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
