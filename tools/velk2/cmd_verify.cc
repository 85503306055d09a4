// velk2 verify: is an installed package exactly what an authorized signer
// shipped? And velk2 compare: how do two manifests differ?
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "credentials/date.h"
#include "credentials/hash_value.h"
#include "frame/file_item.h"
#include "frame/paths.h"
#include "manifest/context.h"
#include "manifest/package.h"
#include "manifest/rollback.h"
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

// The SHA-256 of an extra file found in the package, when it is a regular
// file (never followed, never waited on); false otherwise.
bool DigestOfExtra(const std::u16string& path, std::array<uint8_t, 32>* digest) {
  const std::string narrow = Utf16ToUtf8(path);
  const int fd = ::open(narrow.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  uint8_t bytes[32];
  const bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
                  HashDescriptor(fd, bytes, nullptr, nullptr, st.st_size) == VELK2_SUCCESS;
  ::close(fd);
  if (ok) std::memcpy(digest->data(), bytes, sizeof bytes);
  return ok;
}

// The tool's reading of the lists: a missing file whose digest an extra
// file has was moved there. Each extra file pairs with one missing file at
// most, so two missing files of equal content and one extra file make one
// move. moved[i] is the index of the extra entry that entry i moved to.
std::vector<size_t> FindMoves(CompareResults* found, bool hash_extras) {
  std::vector<size_t> moved(found->size(), SIZE_MAX);
  bool any_missing = false;
  for (const CompareResult& entry : *found) {
    any_missing |= entry.status == VELK2_ENTRY_MISSING && entry.has_digest && !entry.is_directory;
  }
  if (!any_missing) return moved;
  for (CompareResult& entry : *found) {
    if (hash_extras && entry.status == VELK2_ENTRY_EXTRA && !entry.is_directory) {
      entry.has_digest = DigestOfExtra(entry.path, &entry.digest);
    }
  }
  // The extra files by content, each digest's in list order: pairing stays
  // linear however many files went missing or turned up.
  std::map<std::array<uint8_t, 32>, std::deque<size_t>> extras;
  for (size_t j = 0; j < found->size(); ++j) {
    const CompareResult& extra = (*found)[j];
    if (extra.status == VELK2_ENTRY_EXTRA && !extra.is_directory && extra.has_digest) {
      extras[extra.digest].push_back(j);
    }
  }
  for (size_t i = 0; i < found->size() && !extras.empty(); ++i) {
    const CompareResult& gone = (*found)[i];
    if (gone.status != VELK2_ENTRY_MISSING || !gone.has_digest || gone.is_directory) continue;
    const auto same = extras.find(gone.digest);
    if (same == extras.end()) continue;
    moved[i] = same->second.front();
    same->second.pop_front();
    if (same->second.empty()) extras.erase(same);
  }
  return moved;
}

// Prints the entries that are not valid, one line each, and the counts;
// |base| is cut from the front of every path.
Json Report(CompareResults* results, const std::u16string& base, bool json, bool hash_extras) {
  const CompareResults& found = *results;
  const std::vector<size_t> moved = FindMoves(results, hash_extras);
  std::vector<bool> moved_to(found.size(), false);
  for (size_t to : moved) {
    if (to != SIZE_MAX) moved_to[to] = true;
  }
  auto shown = [&](size_t i) {
    std::u16string path = found[i].path;
    if (!base.empty() && path.size() > base.size() && path.compare(0, base.size(), base) == 0 &&
        path[base.size()] == u'/') {
      path = path.substr(base.size() + 1);
    }
    return Utf16ToUtf8(path);
  };
  size_t counts[4] = {0, 0, 0, 0};
  size_t moves = 0;
  Json entries = Json::array(), moves_json = Json::array();
  for (size_t i = 0; i < found.size(); ++i) {
    const CompareResult& entry = found[i];
    const int index = entry.status == VELK2_ENTRY_VALID     ? 0
                      : entry.status == VELK2_ENTRY_INVALID ? 1
                      : entry.status == VELK2_ENTRY_MISSING ? 2
                                                            : 3;
    // A listed directory is changed or has extra entries when anything below
    // it has: its files say what, and only they (and unlisted directories)
    // are counted and printed.
    const bool counted = !entry.is_directory || !entry.listed;
    if (counted) ++counts[index];
    const std::string path = shown(i);
    if (moved[i] != SIZE_MAX) {
      ++moves;
      if (json) {
        moves_json.push_back(Json{{"from", path}, {"to", shown(moved[i])}});
      } else {
        std::printf("moved %s -> %s\n", EscapeForDisplay(path).c_str(),
                    EscapeForDisplay(shown(moved[i])).c_str());
      }
    }
    if (json) {
      Json item{
          {"path", path}, {"status", StatusWord(entry.status)}, {"directory", entry.is_directory}};
      if (entry.changed_during) item["changed_during_verification"] = true;
      entries.push_back(item);
    } else if (entry.status != VELK2_ENTRY_VALID && counted && moved[i] == SIZE_MAX &&
               !moved_to[i]) {
      std::printf("%s %s%s%s\n", StatusWord(entry.status), EscapeForDisplay(path).c_str(),
                  entry.is_directory ? "/" : "",
                  entry.changed_during ? " (changed during verification)" : "");
    }
  }
  if (!json) {
    std::printf("valid %zu, changed %zu, missing %zu, extra %zu", counts[0], counts[1], counts[2],
                counts[3]);
    if (moves > 0) std::printf(" (moved %zu)", moves);
    std::printf("\n");
  }
  return Json{{"entries", entries},
              {"moves", moves_json},
              {"counts", Json{{"valid", counts[0]},
                              {"changed", counts[1]},
                              {"missing", counts[2]},
                              {"extra", counts[3]},
                              {"moved", moves}}}};
}

// Why rollback protection refused the manifest, naming both times; empty
// when it did not.
std::string RollbackRefusal(const RollbackReport& rollback) {
  const std::string package =
      (rollback.named ? "package " : "the package at ") + EscapeForDisplay(rollback.package);
  if (rollback.future) {
    return "its time of signing " + issuing::FormatDate(rollback.time_of_signing) +
           " lies ahead of the clock (" + issuing::FormatDate(CurrentTime()) +
           "): a manifest from the future would be judged at an instant its signer chose";
  }
  if (rollback.malformed) {
    return "its time of signing is not a well-formed date YYYY-MM-DD_hh:mm:ss";
  }
  if (rollback.older) {
    return "rollback: its time of signing " + issuing::FormatDate(rollback.time_of_signing) +
           " is older than " + issuing::FormatDate(rollback.recorded.value_or(0)) +
           ", the newest verified for " + package + " (--allow-older accepts it)";
  }
  return std::string();
}

Json RollbackJson(const RollbackReport& rollback) {
  if (!rollback.checked) return Json{{"checked", false}};
  auto date = [](std::optional<int64_t> time) {
    return time ? Json(issuing::FormatDate(*time)) : Json(nullptr);
  };
  return Json{{"checked", true},
              {"package", rollback.package},
              {"by", rollback.named ? "name" : "directory"},
              {"time_of_signing", date(rollback.time_of_signing)},
              {"recorded", date(rollback.recorded)},
              {"refused", rollback.older       ? Json("older")
                          : rollback.future    ? Json("future")
                          : rollback.malformed ? Json("malformed")
                                               : Json(nullptr)},
              {"allowed_older", rollback.allowed_older},
              {"written", rollback.written},
              {"read_only_store", rollback.read_only}};
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
  Options options({"store", "tag", "manifest", "not-before", "not-after", "jobs"},
                  {"allow-extra", "allow-older", "explain", "json", "progress", "no-progress"},
                  {"ignore"});
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
  // The tool's default is the safe one: no package goes back in time.
  context.rollback_flags =
      kRollbackProtect | (options.Has("allow-older") ? kRollbackAllowOlder : 0);
  // Files are hashed by one thread per core unless told otherwise.
  unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
  if (std::optional<std::string> text = options.Get("jobs")) {
    if (text->empty() || text->size() > 3 ||
        text->find_first_not_of("0123456789") != std::string::npos || std::stoul(*text) == 0 ||
        std::stoul(*text) > 64) {
      return UsageError(kName, "--jobs takes a number of threads from 1 to 64");
    }
    jobs = static_cast<unsigned>(std::stoul(*text));
  }
  context.hash_threads = std::min(jobs, 64u);
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
  story.trace.record_tuples = ShowsReasons(options);
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
  const RollbackReport& rollback = report.rollback;
  if (report.verified && result == VELK2_ERR_READ_FILE && rollback.checked && !rollback.older &&
      !rollback.future) {
    return FailWith(kExitUsage, kName,
                    "the rollback record " + EscapeForDisplay(rollback.record_path) +
                        " of this package cannot be read (remove it to start again)",
                    r);
  }
  const std::string refusal = RollbackRefusal(rollback);
  // The signer's story, for --explain and --json.
  if (report.chain && report.acl && report.key) {
    story.key_file = "the manifest";
    story.tag = ReadableTag(context.tag.get());
    story.certs_file = EscapeForDisplay(manifest);
    story.acl_dir = EscapeForDisplay(*store + "/acl");
    story.not_before =
        times[0] ? issuing::FormatDate(times[0]) : AtomText(context.time_of_signing.get());
    story.not_after = times[1] ? issuing::FormatDate(times[1]) : story.not_before;
    Describe(&story, *report.acl, *report.chain, *report.key, ShowsReasons(options));
    // The signer's story is the authorization's: a body that fails its
    // digest afterwards does not make the signer unauthorized.
    story.verdict = {report.authorization != VELK2_FAILURE ? report.authorization : result,
                     VerifyStage::kAuthorization, 0};
    story.reduced = !reduced.empty();
    story.revocation = report.revocation;
    story.left_out_by_revocation = true;
  }
  // The order check's code names the order; when revocation took the
  // signer's certificate out, that is what happened and what is said.
  const std::string revoked =
      !report.verified && result == report.authorization && result == VELK2_ERR_SIGNING_CERT_ORDER
          ? RevocationCause(story)
          : std::string();
  const std::string left_out = RevocationCause(story);
  Json out;
  if (json) {
    out = Json{{"result", static_cast<int32_t>(result)},
               {"message", !revoked.empty()   ? revoked
                           : !refusal.empty() ? refusal
                                              : StatusMessage(result)},
               {"manifest_verified", report.verified && refusal.empty()}};
    if (story.verdict.stage == VerifyStage::kAuthorization && report.key) {
      out["signer"] = VerdictJson(story);
    }
    out["revocation_lists"] =
        Json{{"store", report.lists_from_store}, {"embedded", report.embedded_lists.size()}};
    out["rollback"] = RollbackJson(rollback);
  } else if (!refusal.empty()) {
    std::printf("manifest: refused: %s\n", refusal.c_str());
  } else if (!revoked.empty()) {
    std::printf("manifest: not verified (result %u): %s\n", result, revoked.c_str());
  } else {
    std::printf("manifest: %s\n", report.verified ? "verified" : StatusText(result).c_str());
    // The other certificates that the revocation check left out, said
    // beside the code, which does not claim they were the cause.
    if (!report.verified && !left_out.empty() && result == report.authorization) {
      std::printf("revocation: %s\n", left_out.c_str());
    }
  }
  if (!json && options.Has("explain") && report.key) {
    std::printf("revocation lists: %zu from the store, %zu from the manifest\n",
                report.lists_from_store, report.embedded_lists.size());
    std::fputs(VerdictText(story, true).c_str(), stdout);
  }
  if (report.verified && refusal.empty()) {
    Json listed = Report(&found, context.package_directory, json, true);
    if (json) {
      out["entries"] = listed["entries"];
      out["moves"] = listed["moves"];
      out["counts"] = listed["counts"];
    }
  }
  if (json) std::printf("%s\n", out.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
  if (!json && options.Has("explain") && rollback.checked) {
    const bool advanced =
        rollback.written && (!rollback.recorded || rollback.time_of_signing > *rollback.recorded);
    const std::string now = advanced ? "; now " + issuing::FormatDate(rollback.time_of_signing)
                            : rollback.read_only ? "; the store is read-only: not recorded"
                                                 : "";
    std::printf(
        "rollback: %s %s, the newest time of signing verified before: %s%s\n",
        rollback.named ? "package" : "the package at", EscapeForDisplay(rollback.package).c_str(),
        rollback.recorded ? issuing::FormatDate(*rollback.recorded).c_str() : "none", now.c_str());
  }
  if (!refusal.empty()) return Fail(kExitFailure, kName, "the manifest is refused: " + refusal);
  if (!revoked.empty()) {
    return Fail(kExitFailure, kName,
                "the manifest does not verify: revocation left its chain short (result " +
                    std::to_string(result) + ")");
  }
  if (!report.verified) {
    return FailWith(kExitFailure, kName, "the manifest does not verify", result);
  }
  if (result == VELK2_SUCCESS && rollback.checked && !rollback.written && !rollback.read_only) {
    std::fprintf(stderr, "velk2 %s: warning: the rollback record %s was not written: %s\n", kName,
                 EscapeForDisplay(rollback.record_path).c_str(),
                 StatusText(rollback.write_result).c_str());
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
  Json listed = Report(&found, std::u16string(), json, false);
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
