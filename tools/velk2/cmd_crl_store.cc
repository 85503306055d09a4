// velk2 crl import and velk2 crl verify: revocation lists against a store.
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "platform/utf.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "trust/tool_api.h"

namespace velk2::cli {
namespace {

std::string Date(const std::string& date) {
  return date.empty() ? std::string("at no stated time") : EscapeForDisplay(date);
}

}  // namespace

int RunCrlImport(const Args& args) {
  const char* kName = "crl import";
  Options options(kName);
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  if (options.positional().size() != 1) return UsageError(kName, "one DIR is required");
  Config config;
  std::string store, store_from;
  if (int exit = ReadDefaults(options, kName, &config, &store, &store_from); exit != kExitOk) {
    return exit;
  }
  std::vector<api::ImportedList> lists;
  const Result r = api::ImportRevocationLists(options.positional()[0], &lists);
  // The library imports nothing, and says nothing, without an ACL: say it here.
  if (r == VELK2_ERR_ACL_ENTRY_NOT_FOUND) {
    return FailWith(
        kExitUsage, kName,
        "no ACL loads from " + EscapeForDisplay(store + "/acl") + "; nothing is imported", r);
  }
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName,
                    "no revocation list reads from " + EscapeForDisplay(options.positional()[0]),
                    r);
  }
  bool refused = false;
  for (const api::ImportedList& list : lists) {
    const std::string from = EscapeForDisplay(list.source), to = EscapeForDisplay(list.store_path);
    const std::string& outcome = list.outcome;
    if (outcome == "imported") {
      std::printf("imported %s -> %s\n", from.c_str(), to.c_str());
    } else if (outcome == "already stored") {
      std::printf("kept %s: it is the same list as %s\n", to.c_str(), from.c_str());
    } else if (outcome == "not yet valid") {
      std::printf("kept %s: the period of %s has not begun\n", to.c_str(), from.c_str());
    } else {
      refused = true;
      std::printf("refused %s: ", from.c_str());
      if (outcome == "older than stored") {
        std::printf("older than the stored list %s (issued %s, the stored list %s)\n", to.c_str(),
                    Date(list.issued).c_str(), Date(list.stored_issued).c_str());
      } else if (outcome == "same issue time") {
        std::printf("issued at the same time as the stored list %s (%s) but different\n",
                    to.c_str(), Date(list.issued).c_str());
      } else if (outcome == "stored is newer") {
        // Issued later, yet not taken: whoever issued it must hear of it.
        std::printf(
            "it %s, and the stored list %s ends %s: a list replaces the stored one only when it "
            "lasts at least as long\n",
            list.ends.empty() ? "names no end" : ("ends " + EscapeForDisplay(list.ends)).c_str(),
            to.c_str(), Date(list.stored_ends).c_str());
      } else if (outcome == "lock failed") {
        std::printf("cannot take the store's lock %s: %s\n",
                    EscapeForDisplay(store + "/cert/store.lock").c_str(),
                    StatusText(list.code).c_str());
      } else if (outcome == "unreadable") {
        std::printf("not a revocation list: %s\n", StatusText(list.code).c_str());
      } else if (outcome == "no store name") {
        std::printf("its tag names no file in the store\n");
      } else if (outcome == "unverified") {
        std::printf("it does not verify against the ACL: %s\n", StatusText(list.code).c_str());
      } else {
        std::printf("cannot write %s: %s\n", to.c_str(), StatusText(list.code).c_str());
      }
    }
  }
  return refused ? kExitFailure : kExitOk;
}

int RunCrlVerify(const Args& args) {
  const char* kName = "crl verify";
  Options options(kName);
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  if (options.positional().size() != 1) return UsageError(kName, "one FILE is required");
  Config config;
  std::string store, store_from;
  if (int exit = ReadDefaults(options, kName, &config, &store, &store_from); exit != kExitOk) {
    return exit;
  }
  const std::string& file = options.positional()[0];
  std::optional<std::string> tag = options.Get("tag");
  if (tag) {
    api::Tag read;
    if (Result r = api::ReadTag(*tag, &read); r != VELK2_SUCCESS) {
      return FailWith(kExitUsage, kName, "cannot read the tag", r);
    }
  }
  // A list is asked about now: is it good to use today?
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  api::ListVerdict verdict;
  Result r = api::VerifyRevocationListFile(file, tag, now, &verdict);
  if (r != VELK2_SUCCESS) {
    return FailReading(kExitUsage, kName, file, r);
  }
  r = verdict.result;
  std::printf("scope: %s\n",
              verdict.scope.empty() ? "(none)" : EscapeForDisplay(verdict.scope).c_str());
  std::printf("period: %s to %s\n", issuing::FormatDate(verdict.not_before).c_str(),
              issuing::FormatDate(verdict.not_after).c_str());
  std::printf("result: %s\nverified: %s\n", StatusText(r).c_str(),
              r == VELK2_SUCCESS ? "yes" : "no");
  if (r == VELK2_ERR_NOT_AFTER || r == VELK2_ERR_NOT_BEFORE) {
    return Fail(
        kExitFailure, kName,
        r == VELK2_ERR_NOT_AFTER ? "the list's period has not begun" : "the list's period is over");
  }
  return r == VELK2_SUCCESS ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
