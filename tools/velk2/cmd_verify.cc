// velk2 verify: is an installed package exactly what an authorized signer
// shipped? And velk2 compare: how do two manifests differ? The library
// answers both (trust/tool_api.h); this prints the answers.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/utf.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/progress.h"
#include "tools/velk2/support.h"
#include "tools/velk2/verdict.h"
#include "trust/tool_api.h"

namespace velk2::cli {
namespace {

using Json = nlohmann::ordered_json;

// A path as the report prints it: escaped, and in double quotes when it
// holds anything but the bytes of plain names, so that the report's own
// words (": content", "->") can never be read as part of a name.
std::string Shown(const std::string& path) {
  std::string shown = EscapeForDisplay(path);
  const bool plain = !shown.empty() && shown.find_first_not_of(
                                           "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                           "0123456789._/+,@%=~-") == std::string::npos;
  if (plain) return shown;
  std::string quoted = "\"";
  for (char c : shown) quoted += c == '"' ? std::string("\\x22") : std::string(1, c);
  return quoted + "\"";
}

// "content", "mode 0755 -> 4755", "link target \"a\" -> \"b\"": what changed.
std::string ChangeText(const api::Change& change) {
  if (change.kind == "content") return "content";
  if (change.kind == "link target") {
    return "link target " + Shown(change.expected) + " -> " + Shown(change.found);
  }
  return change.kind + " " + EscapeForDisplay(change.expected) + " -> " +
         EscapeForDisplay(change.found);
}

// Sets |key| to |text|; a text that is not UTF-8 (a file name can be any
// bytes) is also given exactly, in hex, as |key|_hex, since JSON strings
// cannot hold it.
void Put(Json* object, const std::string& key, const std::string& text) {
  (*object)[key] = text;
  if (Utf16ToUtf8(Utf8ToUtf16(text)) != text)
    (*object)[key + "_hex"] = HexString(text.data(), text.size());
}

// Prints the entries that are not valid, one line each, and the counts.
Json Report(const api::TreeReport& report, bool json) {
  Json entries = Json::array(), moves = Json::array();
  for (const api::Move& move : report.moves) {
    if (json) {
      Json item = Json::object();
      Put(&item, "from", move.from);
      Put(&item, "to", move.to);
      moves.push_back(item);
    } else {
      std::printf("moved %s -> %s\n", Shown(move.from).c_str(), Shown(move.to).c_str());
    }
  }
  for (size_t i = 0; i < report.entries.size(); ++i) {
    const api::Entry& entry = report.entries[i];
    if (json) {
      Json item = Json::object();
      Put(&item, "path", entry.path);
      item["status"] = entry.status;
      item["directory"] = entry.directory;
      if (entry.changed_during) item["changed_during_verification"] = true;
      if (!entry.changes.empty()) {
        Json changes = Json::array();
        for (const api::Change& change : entry.changes) {
          Json item_change{{"kind", change.kind}};
          Put(&item_change, "expected", change.expected);
          Put(&item_change, "found", change.found);
          changes.push_back(item_change);
        }
        item["changes"] = changes;
      }
      if (!entry.unreadable.empty()) item["unreadable"] = entry.unreadable;
      entries.push_back(item);
      continue;
    }
    if (entry.status == "valid" || !entry.counted || report.in_move[i]) continue;
    const std::string path = Shown(entry.path) + (entry.directory ? "/" : "");
    std::string what;
    for (const api::Change& change : entry.changes) {
      what += (what.empty() ? ": " : ", ") + ChangeText(change);
    }
    if (!entry.unreadable.empty()) {
      what += (what.empty() ? ": " : ", unreadable: ") + entry.unreadable;
    }
    if (entry.changed_during)
      what += (what.empty() ? ": " : ", ") + std::string("changed during verification");
    std::printf("%s %s%s\n", entry.status.c_str(), path.c_str(), what.c_str());
  }
  const api::Counts& c = report.counts;
  if (!json) {
    std::printf("valid %zu, changed %zu, missing %zu, extra %zu", c.valid, c.changed, c.missing,
                c.extra);
    if (c.moved > 0) std::printf(" (moved %zu)", c.moved);
    if (c.unreadable > 0) std::printf(", unreadable %zu", c.unreadable);
    std::printf("\n");
  }
  return Json{{"entries", entries},
              {"moves", moves},
              {"counts", Json{{"valid", c.valid},
                              {"changed", c.changed},
                              {"missing", c.missing},
                              {"extra", c.extra},
                              {"moved", c.moved},
                              {"unreadable", c.unreadable}}}};
}

// Why rollback protection refused the manifest, naming both times; empty
// when it did not.
std::string RollbackRefusal(const api::RollbackInfo& rollback) {
  const std::string package =
      (rollback.named ? "package " : "the package at ") + EscapeForDisplay(rollback.package);
  if (rollback.refused == "malformed") {
    return "its time of signing is not a well-formed date YYYY-MM-DD_hh:mm:ss";
  }
  if (rollback.refused == "future") {
    return "its time of signing " + issuing::FormatDate(rollback.time_of_signing) +
           " lies ahead of the clock (" +
           issuing::FormatDate(static_cast<int64_t>(std::time(nullptr))) +
           "): a manifest from the future would be judged at an instant its signer chose";
  }
  if (rollback.refused == "older") {
    return "rollback: its time of signing " + issuing::FormatDate(rollback.time_of_signing) +
           " is older than " + issuing::FormatDate(rollback.recorded.value_or(0)) +
           ", the newest verified for " + package + " (--allow-older accepts it)";
  }
  return std::string();
}

Json RollbackJson(const api::RollbackInfo& rollback) {
  if (!rollback.checked) return Json{{"checked", false}};
  auto date = [](std::optional<int64_t> time) {
    return time ? Json(issuing::FormatDate(*time)) : Json(nullptr);
  };
  return Json{{"checked", true},
              {"package", rollback.package},
              {"by", rollback.named ? "name" : "directory"},
              {"time_of_signing", date(rollback.time_of_signing)},
              {"recorded", date(rollback.recorded)},
              {"refused", rollback.refused.empty() ? Json(nullptr) : Json(rollback.refused)},
              {"allowed_older", rollback.allowed_older},
              {"written", rollback.written},
              {"read_only_store", rollback.read_only}};
}

// What incremental verification did, for --json ("problem": why the cache
// was not read or not written).
Json CacheJson(const api::PackageVerdict& verdict, bool incremental) {
  return Json{
      {"incremental", incremental},
      {"trusted", verdict.cache_trusted},
      {"listings_trusted", verdict.cache_listings},
      {"written", verdict.cache_written},
      {"forgotten", verdict.cache_forgotten},
      {"directory", verdict.cache_directory},
      {"problem", verdict.cache_problem.empty() ? Json(nullptr) : Json(verdict.cache_problem)}};
}

// The --explain line of incremental verification.
void PrintCache(const api::PackageVerdict& verdict) {
  std::string what = verdict.cache_written ? "; written" : "";
  if (verdict.cache_forgotten) what += "; forgotten first";
  if (!verdict.cache_problem.empty()) what += "; " + EscapeForDisplay(verdict.cache_problem);
  std::printf("cache: %zu files trusted unread, %zu directory listings trusted (%s)%s\n",
              verdict.cache_trusted, verdict.cache_listings,
              EscapeForDisplay(verdict.cache_directory).c_str(), what.c_str());
}

// The --explain line of rollback protection.
void PrintRollback(const api::RollbackInfo& rollback) {
  const std::string now = rollback.advanced
                              ? "; now " + issuing::FormatDate(rollback.time_of_signing)
                          : rollback.read_only ? "; the store is read-only: not recorded"
                                               : "";
  std::printf(
      "rollback: %s %s, the newest time of signing verified before: %s%s\n",
      rollback.named ? "package" : "the package at", EscapeForDisplay(rollback.package).c_str(),
      rollback.recorded ? issuing::FormatDate(*rollback.recorded).c_str() : "none", now.c_str());
}

}  // namespace

int RunVerify(const Args& args) {
  const char* kName = "verify";
  Options options(kName);
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  if (options.positional().size() != 1) return UsageError(kName, "one PKGDIR is required");
  Config config;
  std::string store, store_from;
  std::string tag_text;
  if (int exit = ReadStoreAndTag(options, kName, &config, &store, &store_from, &tag_text);
      exit != kExitOk) {
    return exit;
  }
  QuietIfAsked(options);
  api::PackageRequest request;
  request.package = options.positional()[0];
  request.manifest = options.Get("manifest").value_or(request.package + "/manifest");
  request.tag = tag_text;
  request.allow_extra = options.Has("allow-extra");
  request.allow_older = options.Has("allow-older");
  request.incremental = options.Has("incremental");
  request.forget_cache = options.Has("no-cache");
  if (int exit = ReadPatterns(options, kName, &request.ignore); exit != kExitOk) return exit;
  request.explain = ShowsReasons(options);
  // Files are hashed by one thread per core unless told otherwise.
  request.threads = config.jobs.value_or(std::max(1u, std::thread::hardware_concurrency()));
  if (std::optional<std::string> text = options.Get("jobs")) {
    if (text->empty() || text->size() > 3 ||
        text->find_first_not_of("0123456789") != std::string::npos || std::stoul(*text) == 0 ||
        std::stoul(*text) > 64) {
      return UsageError(kName, "--jobs takes a number of threads from 1 to 64");
    }
    request.threads = static_cast<unsigned>(std::stoul(*text));
  }
  api::Tag tag;
  if (Result r = api::ReadTag(tag_text, &tag); r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, "cannot read the tag", r);
  }
  int64_t* times[2] = {&request.not_before, &request.not_after};
  const char* const fields[] = {"not-before", "not-after"};
  for (int i = 0; i < 2; ++i) {
    if (int exit = ReadDateOption(options, kName, fields[i], times[i]); exit != kExitOk) {
      return exit;
    }
  }
  if (request.not_before != 0 && request.not_after != 0 && request.not_before > request.not_after) {
    return UsageError(kName, "--not-before is after --not-after");
  }
  // One date alone is paired with the time of signing, which only the
  // manifest tells: a period that then ends before it starts asks nothing,
  // and is refused before any file is read or any record written.
  if ((request.not_before != 0) != (request.not_after != 0)) {
    api::ManifestInfo manifest;
    int64_t signed_at = 0;
    if (api::DescribeManifest(request.manifest, &manifest) == VELK2_SUCCESS &&
        issuing::ParseDate(manifest.time_of_signing, &signed_at) == VELK2_SUCCESS &&
        (request.not_before > signed_at ||
         (request.not_after != 0 && request.not_after < signed_at))) {
      return UsageError(kName,
                        "the period asked about ends before it starts: the manifest was signed " +
                            manifest.time_of_signing + "; give both --not-before and --not-after");
    }
  }
  if (options.Has("progress") && options.Has("no-progress")) {
    return UsageError(kName, "--progress and --no-progress exclude each other");
  }
  Progress progress(!options.Has("no-progress") && !options.Has("quiet"));
  if (progress.shown()) {
    request.on_start = [&progress](size_t files, uint64_t bytes) { progress.Start(files, bytes); };
    request.counters = progress.counters();
  }

  const bool json = options.Has("json");
  // Lines are printed only for what is not valid; --json lists everything.
  request.list_valid = json;
  api::PackageVerdict verdict;
  const Result result = api::VerifyPackage(request, &verdict);
  progress.Stop();
  for (const api::SkippedFile& file : verdict.signer.skipped) SaySkipped(kName, file);
  // A mistake in the question is no verdict on the package.
  if (!verdict.input_problem.empty()) {
    const std::string& what = verdict.input_problem;
    if (what == "not a manifest") {
      return FailWith(kExitUsage, kName, EscapeForDisplay(request.manifest) + " is not a manifest",
                      result);
    }
    if (what == "no package directory" || what == "not a directory") {
      return Fail(
          kExitUsage, kName,
          EscapeForDisplay(request.package) +
              (what == "no package directory" ? ": no such directory" : ": not a directory"));
    }
    return Fail(kExitUsage, kName, EscapeForDisplay(what));
  }
  if (!verdict.manifest_read) {
    return FailWith(kExitUsage, kName,
                    "cannot read the manifest " + EscapeForDisplay(request.manifest), result);
  }
  const api::RollbackInfo& rollback = verdict.rollback;
  if (rollback.checked && rollback.refused.empty() && result == VELK2_ERR_READ_FILE) {
    return FailWith(kExitUsage, kName,
                    "the rollback record " + EscapeForDisplay(rollback.record_path) +
                        " of this package cannot be read (remove it to start again)",
                    result);
  }
  const std::string refusal = RollbackRefusal(rollback);
  const api::Explanation& signer = verdict.signer.explanation;
  // The order check's code names the order; when revocation took the
  // signer's certificate out, that is what happened and what is said.
  const bool revoked = !verdict.verified && verdict.has_signer && result == verdict.signer.result &&
                       signer.revocation_explains_order;
  Json out;
  if (json) {
    out = Json{{"result", static_cast<int32_t>(result)},
               {"message", revoked            ? signer.revocation_cause
                           : !refusal.empty() ? refusal
                                              : StatusMessage(result)},
               {"manifest_verified", verdict.verified}};
    if (verdict.has_signer) out["signer"] = VerdictJson(verdict.signer);
    out["store"] = Json{{"path", store}, {"from", store_from}};
    out["revocation_lists"] =
        Json{{"store", verdict.lists_from_store}, {"embedded", verdict.lists_embedded}};
    out["rollback"] = RollbackJson(rollback);
    out["cache"] = CacheJson(verdict, request.incremental);
  } else if (!refusal.empty()) {
    std::printf("manifest: refused: %s\n", refusal.c_str());
  } else if (revoked) {
    std::printf("manifest: not verified (result %u): %s\n", result,
                signer.revocation_cause.c_str());
  } else {
    std::printf("manifest: %s\n", verdict.verified ? "verified" : StatusText(result).c_str());
    // The certificates that the revocation check left out, said beside the
    // code, which does not claim they were the cause.
    if (!verdict.verified && verdict.has_signer && result == verdict.signer.result &&
        !signer.revocation_cause.empty()) {
      std::printf("revocation: %s\n", signer.revocation_cause.c_str());
    }
  }
  if (!json && options.Has("explain")) {
    std::printf("store: %s (from %s)\n", EscapeForDisplay(store).c_str(),
                EscapeForDisplay(store_from).c_str());
  }
  if (!json && options.Has("explain") && verdict.has_signer) {
    std::printf("revocation lists: %zu from the store, %zu from the manifest\n",
                verdict.lists_from_store, verdict.lists_embedded);
    std::fputs(VerdictText(verdict.signer, true).c_str(), stdout);
  }
  if (verdict.verified) {
    Json listed = Report(verdict.report, json);
    if (json) {
      out["entries"] = listed["entries"];
      out["moves"] = listed["moves"];
      out["counts"] = listed["counts"];
    }
  }
  if (json) std::printf("%s\n", out.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
  if (!json && options.Has("explain") && rollback.checked) PrintRollback(rollback);
  if (!json && options.Has("explain") && (request.incremental || request.forget_cache)) {
    PrintCache(verdict);
  }
  if (!refusal.empty()) return Fail(kExitFailure, kName, "the manifest is refused: " + refusal);
  if (revoked) {
    return Fail(kExitFailure, kName,
                "the manifest does not verify: revocation left its chain short (result " +
                    std::to_string(result) + ")");
  }
  if (!verdict.verified) {
    HintAtTag(kName, tag_text, result);
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
  Options options(kName);
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  if (options.positional().size() != 2)
    return UsageError(kName, "two manifests A and B are required");
  QuietIfAsked(options);
  std::vector<std::string> patterns;
  if (int exit = ReadPatterns(options, kName, &patterns); exit != kExitOk) return exit;
  api::TreeReport report;
  const Result r =
      api::CompareManifests(options.positional()[0], options.positional()[1], patterns, &report);
  if (r != VELK2_SUCCESS && r != VELK2_ERR_HASH_MISMATCH && r != VELK2_ERR_FILE_NOT_FOUND &&
      r != VELK2_ERR_EXTRA_FILES) {
    return FailWith(kExitUsage, kName, "cannot read both manifests", r);
  }
  const bool json = options.Has("json");
  Json listed = Report(report, json);
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
