// velk2 authorize: does a key, through a file of certificates, hold a tag
// under the ACL of a directory? Reads the options and the files, asks the
// library's verification pipeline and prints its verdict.
#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

#include "acl/acl_entry.h"
#include "trust/verification.h"
#include "credentials/certificate_sequence.h"
#include "frame/paths.h"
#include "platform/utf.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "tools/velk2/support_acl.h"
#include "tools/velk2/verdict.h"

namespace velk2::cli {
namespace {

constexpr char kName[] = "authorize";

// Loads the ACL of |dir| by the library's rules (a bad last file or no good
// entry refuses the whole ACL) and notes every file that does not load.
int LoadAclDirectory(const std::string& dir, Story* story, Ref<SexpList>* acl) {
  const std::u16string directory = Utf8ToUtf16(dir);
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return Fail(kExitUsage, kName, "--acl-dir: no directory " + dir);
  }
  DirectoryEnumerator files;
  if (files.Open(directory.c_str(), u"*.acl") != VELK2_SUCCESS) {
    return Fail(kExitUsage, kName, "--acl-dir " + dir + " holds no *.acl file");
  }
  // Each file is read once: the library's load names the files it skips.
  const AclFileSkipped skipped = [story](const char16_t* path, Result r) {
    const std::string file = EscapeForDisplay(Utf16ToUtf8(path));
    story->skipped.push_back({file, r});
    std::fprintf(stderr, "velk2 %s: skipped %s: %s\n", kName, file.c_str(), StatusText(r).c_str());
  };
  Result r = LoadAclFromDirectory(acl, nullptr, directory.c_str(), nullptr, &skipped);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName,
                    "no ACL from " + dir +
                        (story->skipped.empty() ? std::string()
                                                : " (its last file, or every file, does not load)"),
                    r);
  }
  return kExitOk;
}

}  // namespace

int RunAuthorize(const Args& args) {
  Options options({"acl-dir", "certs", "key", "tag", "not-before", "not-after"},
                  {"explain", "json", "any-time"});
  if (!options.Parse(args)) return UsageError(kName, options.error());
  std::optional<std::string> acl_dir = options.Get("acl-dir");
  std::optional<std::string> certs = options.Get("certs");
  std::optional<std::string> key_path = options.Get("key");
  std::optional<std::string> tag_text = options.Get("tag");
  if (!acl_dir || !certs || !key_path || !tag_text) {
    return UsageError(kName, "--acl-dir, --certs, --key and --tag are required");
  }
  const bool json = options.Has("json");
  Story story;
  story.key_file = *key_path;
  story.acl_dir = *acl_dir;
  story.certs_file = *certs;

  // The period asked about.
  Period period;
  if (int exit = ReadPeriodOptions(options, kName, &period); exit != kExitOk) return exit;
  if (period.not_before) story.not_before = issuing::FormatDate(*period.not_before);
  if (period.not_after) story.not_after = issuing::FormatDate(*period.not_after);
  story.at_now = period.at_now;
  story.any_time = period.any_time;
  Ref<SexpList> validity;
  Result r = MakeValidity(period.not_before, period.not_after, &validity);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot build the period", r);

  Ref<SexpList> tag;
  r = issuing::ParseTag(*tag_text, &tag);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read the tag", r);
  story.tag = ReadableTag(tag.get());

  Ref<SexpList> key;
  r = LoadPublicKey(*key_path, &key);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read " + *key_path, r);

  Ref<SexpList> acl;
  if (int exit = LoadAclDirectory(*acl_dir, &story, &acl); exit != kExitOk) return exit;

  Ref<CertificateSequence> file;
  r = ReadCertificateFile(&file, Utf8ToUtf16(*certs).c_str(), nullptr);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read " + *certs, r);
  const bool explained = ShowsReasons(options);
  Describe(&story, *acl, *file, *key, explained);

  SequenceQuery query;
  query.acl = acl.get();
  query.sequence = file.get();
  query.key = key.get();
  query.tag = tag.get();
  query.validity = validity.get();
  query.trace = &story.trace;
  story.trace.record_tuples = explained;
  std::string reduced;
  query.reduced_acl = &reduced;
  story.verdict = VerifySequence(query);
  story.reduced = !reduced.empty();
  if (json) {
    std::printf("%s\n", VerdictJsonText(story).c_str());
  } else {
    std::fputs(VerdictText(story, options.Has("explain")).c_str(), stdout);
  }
  const Result result = story.verdict.result;
  if (story.verdict.stage == VerifyStage::kSignatures && result != VELK2_SUCCESS) {
    return FailWith(kExitFailure, kName, StageFailureText(story), result);
  }
  if (Undecided(result)) {
    // No answer is not the answer no: the engine or the crypto library gave up.
    std::string why = "the question could not be decided: " + StatusText(result);
    if (story.trace.limit_reached) {
      why += " (the reduction stopped at its limit of " + story.trace.limit + ")";
    }
    return Fail(kExitUsage, kName, why);
  }
  return result == VELK2_SUCCESS ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
