// velk2 verify: is an installed package exactly what an authorized signer
// shipped? And velk2 compare: how do two manifests differ?
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "credentials/date.h"
#include "frame/file_item.h"
#include "frame/paths.h"
#include "manifest/context.h"
#include "manifest/package.h"
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

using Json = nlohmann::ordered_json;

const char* StatusWord(uint32_t status) {
  switch (status) {
    case VELK2_ENTRY_VALID:
      return "valid";
    case VELK2_ENTRY_INVALID:
      return "changed";
    case VELK2_ENTRY_MISSING:
      return "missing";
    default:
      return "extra";
  }
}

// The ignored paths as the library takes them.
int ReadIgnored(const Options& options, ManifestContext* context) {
  FileItem* list = nullptr;
  for (std::string path : options.GetAll("ignore")) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const std::u16string wide = Utf8ToUtf16(path);
    FileItem* item = FileItemCreate(wide.c_str(), nullptr);
    if (item == nullptr) throw std::bad_alloc();
    item->next = list;
    list = item;
  }
  context->ignored.reset(list);
  return kExitOk;
}

// Prints the entries that are not valid, one line each, and the counts;
// |base| is cut from the front of every path.
Json Report(const CompareResults& found, const std::u16string& base, bool json) {
  size_t counts[4] = {0, 0, 0, 0};
  Json entries = Json::array();
  for (const CompareResult& entry : found) {
    const int index = entry.status == VELK2_ENTRY_VALID     ? 0
                      : entry.status == VELK2_ENTRY_INVALID ? 1
                      : entry.status == VELK2_ENTRY_MISSING ? 2
                                                            : 3;
    // A listed directory is changed or has extra entries when anything below
    // it has: its files say what, and only they (and unlisted directories)
    // are counted and printed.
    const bool counted = !entry.is_directory || !entry.listed;
    if (counted) ++counts[index];
    std::u16string path = entry.path;
    if (!base.empty() && path.size() > base.size() && path.compare(0, base.size(), base) == 0 &&
        path[base.size()] == u'/') {
      path = path.substr(base.size() + 1);
    }
    const std::string shown = EscapeForDisplay(Utf16ToUtf8(path)) + (entry.is_directory ? "/" : "");
    if (json) {
      entries.push_back(Json{{"path", Utf16ToUtf8(path)},
                             {"status", StatusWord(entry.status)},
                             {"directory", entry.is_directory}});
    } else if (entry.status != VELK2_ENTRY_VALID && counted) {
      std::printf("%s %s\n", StatusWord(entry.status), shown.c_str());
    }
  }
  if (!json) {
    std::printf("valid %zu, changed %zu, missing %zu, extra %zu\n", counts[0], counts[1], counts[2],
                counts[3]);
  }
  return Json{{"entries", entries},
              {"counts", Json{{"valid", counts[0]},
                              {"changed", counts[1]},
                              {"missing", counts[2]},
                              {"extra", counts[3]}}}};
}

// Files and bytes hashed, the rate and the time left, on one line of stderr
// that is rewritten at most five times a second.
class Progress {
 public:
  explicit Progress(const ManifestReport* report) : report_(report), start_(Clock::now()) {}
  ~Progress() {
    if (shown_) std::fputs("\n", stderr);
  }

  void File(uint64_t bytes) {
    ++files_;
    bytes_ += bytes;
    const Clock::time_point now = Clock::now();
    if (now - last_ < std::chrono::milliseconds(200) && files_ != report_->files_listed) return;
    last_ = now;
    shown_ = true;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const double rate = seconds > 0 ? static_cast<double>(bytes_) / seconds : 0;
    const size_t total = std::max(report_->files_listed, files_);
    const double left =
        files_ > 0 ? seconds * static_cast<double>(total - files_) / static_cast<double>(files_)
                   : 0;
    std::fprintf(stderr, "\rhashed %zu/%zu files, %.1f MiB, %.1f MiB/s, %.0f s left   ", files_,
                 total, static_cast<double>(bytes_) / (1 << 20), rate / (1 << 20), left);
    std::fflush(stderr);
  }

 private:
  using Clock = std::chrono::steady_clock;
  const ManifestReport* report_;
  Clock::time_point start_, last_;
  size_t files_ = 0;
  uint64_t bytes_ = 0;
  bool shown_ = false;
};

}  // namespace

int RunVerify(const Args& args) {
  const char* kName = "verify";
  Options options({"store", "tag", "manifest", "not-before", "not-after"},
                  {"allow-extra", "explain", "json", "progress", "no-progress"}, {"ignore"});
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  std::optional<std::string> store = options.Get("store"), tag_text = options.Get("tag");
  if (options.positional().size() != 1 || !store || !tag_text) {
    return UsageError(kName, "PKGDIR, --store and --tag are required");
  }
  if (int exit = UseStore(kName, *store); exit != kExitOk) return exit;
  const std::string package = options.positional()[0];
  const std::string manifest = options.Get("manifest").value_or(package + "/manifest");
  ManifestContext context;
  context.package_directory = Utf8ToUtf16(package);
  context.manifest_path = Utf8ToUtf16(manifest);
  context.fail_on_extra = !options.Has("allow-extra");
  Result r = issuing::ParseTag(*tag_text, &context.tag);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read the tag", r);
  ReadIgnored(options, &context);
  int64_t times[2] = {0, 0};
  const char* const fields[] = {"not-before", "not-after"};
  for (int i = 0; i < 2; ++i) {
    if (std::optional<std::string> text = options.Get(fields[i])) {
      if (issuing::ParseDate(*text, &times[i]) != VELK2_SUCCESS) {
        return UsageError(kName, "--" + std::string(fields[i]) + " '" + *text +
                                     "' is not a date YYYY-MM-DD_hh:mm:ss");
      }
    }
  }

  Story story;
  ManifestReport report;
  report.trace = &story.trace;
  std::string reduced;
  report.reduced_acl = &reduced;
  if (options.Has("progress") && options.Has("no-progress")) {
    return UsageError(kName, "--progress and --no-progress exclude each other");
  }
  std::optional<Progress> progress;
  if (options.Has("progress") || (!options.Has("no-progress") && ::isatty(STDERR_FILENO))) {
    progress.emplace(&report);
    report.on_file = [&progress](uint64_t bytes) { progress->File(bytes); };
  }
  CompareResults found;
  const Result result = VerifyPackage(&context, times[0], times[1], &report, &found);
  progress.reset();
  const bool json = options.Has("json");
  if (r = result; r == VELK2_ERR_OPEN_MANIFEST_FILE) {
    return FailWith(kExitUsage, kName, "cannot read the manifest " + EscapeForDisplay(manifest), r);
  }
  // The signer's story, for --explain and --json.
  if (report.chain && report.acl && report.key) {
    story.key_file = "the manifest";
    story.tag = ReadableTag(context.tag.get());
    story.certs_file = EscapeForDisplay(manifest);
    story.acl_dir = EscapeForDisplay(*store + "/acl");
    story.not_before =
        times[0] ? issuing::FormatDate(times[0]) : AtomText(context.time_of_signing.get());
    story.not_after = times[1] ? issuing::FormatDate(times[1]) : story.not_before;
    Describe(&story, *report.acl, *report.chain, *report.key);
    story.verdict = {report.verified ? VELK2_SUCCESS : result, VerifyStage::kAuthorization, 0};
    story.reduced = !reduced.empty();
  }
  Json out;
  if (json) {
    out = Json{{"result", static_cast<int32_t>(result)},
               {"message", StatusMessage(result)},
               {"manifest_verified", report.verified}};
    if (story.verdict.stage == VerifyStage::kAuthorization && report.key) {
      out["signer"] = VerdictJson(story);
    }
  } else {
    std::printf("manifest: %s\n", report.verified ? "verified" : StatusText(result).c_str());
    if (options.Has("explain") && report.key) std::fputs(VerdictText(story, true).c_str(), stdout);
  }
  if (report.verified) {
    Json listed = Report(found, context.package_directory, json);
    if (json) {
      out["entries"] = listed["entries"];
      out["counts"] = listed["counts"];
    }
  }
  if (json) std::printf("%s\n", out.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
  if (!report.verified) {
    return FailWith(kExitFailure, kName, "the manifest does not verify", result);
  }
  return result == VELK2_SUCCESS ? kExitOk : kExitFailure;
}

int RunCompare(const Args& args) {
  const char* kName = "compare";
  Options options({}, {"json"}, {"ignore"});
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  if (options.positional().size() != 2)
    return UsageError(kName, "two manifests A and B are required");
  ManifestContext context;
  context.manifest_path = Utf8ToUtf16(options.positional()[0]);
  Result r = issuing::ParseTag("(null)", &context.tag);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot make the context", r);
  ReadIgnored(options, &context);
  CompareResults found;
  const std::u16string other = Utf8ToUtf16(options.positional()[1]);
  r = ComparePackages(&context, other.c_str(), &found);
  if (r != VELK2_SUCCESS && r != VELK2_ERR_HASH_MISMATCH && r != VELK2_ERR_FILE_NOT_FOUND &&
      r != VELK2_ERR_EXTRA_FILES) {
    return FailWith(kExitUsage, kName, "cannot read both manifests", r);
  }
  const bool json = options.Has("json");
  Json listed = Report(found, std::u16string(), json);
  if (json) {
    Json out{{"result", static_cast<int32_t>(r)},
             {"message", StatusMessage(r)},
             {"entries", listed["entries"]},
             {"counts", listed["counts"]}};
    std::printf("%s\n", out.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
  }
  return r == VELK2_SUCCESS ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
