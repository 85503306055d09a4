// velk2 crl import and velk2 crl verify: revocation lists against a store.
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "acl/acl_entry.h"
#include "trust/revocation.h"
#include "platform/utf.h"
#include "sexp/object.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "tools/velk2/support_acl.h"
#include "velk2.h"

namespace velk2::cli {
namespace {

std::string Shown(const std::u16string& path) {
  return EscapeForDisplay(Utf16ToUtf8(path));
}

std::string Issued(const std::string& date) {
  return date.empty() ? std::string("at no stated time") : EscapeForDisplay(date);
}

}  // namespace

int RunCrlImport(const Args& args) {
  const char* kName = "crl import";
  Options options({"store"}, {});
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  std::optional<std::string> store = options.Get("store");
  if (options.positional().size() != 1 || !store) {
    return UsageError(kName, "one DIR and --store are required");
  }
  if (int exit = UseStore(kName, *store); exit != kExitOk) return exit;
  // The library imports nothing, and says nothing, without an ACL: say it here.
  Ref<SexpList> acl;
  Result r = LoadAcl(&acl, nullptr, nullptr);
  if (r != VELK2_SUCCESS) {
    return FailWith(
        kExitUsage, kName,
        "no ACL loads from " + EscapeForDisplay(*store + "/acl") + "; nothing is imported", r);
  }
  std::vector<ImportRecord> records;
  r = ImportRevocationLists(Utf8ToUtf16(options.positional()[0]).c_str(), nullptr, &records);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName,
                    "no revocation list reads from " + EscapeForDisplay(options.positional()[0]),
                    r);
  }
  bool refused = false;
  for (const ImportRecord& record : records) {
    const std::string from = Shown(record.source), to = Shown(record.store_path);
    switch (record.outcome) {
      case ImportOutcome::kImported:
        std::printf("imported %s -> %s\n", from.c_str(), to.c_str());
        break;
      case ImportOutcome::kAlreadyStored:
        std::printf("kept %s: it is the same list as %s\n", to.c_str(), from.c_str());
        break;
      case ImportOutcome::kOlderThanStored:
        refused = true;
        std::printf("refused %s: older than the stored list %s (issued %s, the stored list %s)\n",
                    from.c_str(), to.c_str(), Issued(record.issued).c_str(),
                    Issued(record.stored_issued).c_str());
        break;
      case ImportOutcome::kSameIssueTime:
        refused = true;
        std::printf(
            "refused %s: issued at the same time as the stored list %s (%s) but different\n",
            from.c_str(), to.c_str(), Issued(record.issued).c_str());
        break;
      case ImportOutcome::kStoredIsNewer:
        // Issued later, yet not taken: whoever issued it must hear of it.
        refused = true;
        std::printf(
            "refused %s: it %s, and the stored list %s ends %s: a list replaces the stored one "
            "only when it lasts at least as long\n",
            from.c_str(),
            record.ends.empty() ? "names no end"
                                : ("ends " + EscapeForDisplay(record.ends)).c_str(),
            to.c_str(), Issued(record.stored_ends).c_str());
        break;
      case ImportOutcome::kLockFailed:
        refused = true;
        std::printf("refused %s: cannot take the store's lock %s: %s\n", from.c_str(),
                    EscapeForDisplay(*store + "/cert/store.lock").c_str(),
                    StatusText(record.code).c_str());
        break;
      case ImportOutcome::kNotYetValid:
        std::printf("kept %s: the period of %s has not begun\n", to.c_str(), from.c_str());
        break;
      case ImportOutcome::kUnreadable:
        refused = true;
        std::printf("refused %s: not a revocation list: %s\n", from.c_str(),
                    StatusText(record.code).c_str());
        break;
      case ImportOutcome::kNoStoreName:
        refused = true;
        std::printf("refused %s: its tag names no file in the store\n", from.c_str());
        break;
      case ImportOutcome::kUnverified:
        refused = true;
        std::printf("refused %s: it does not verify against the ACL: %s\n", from.c_str(),
                    StatusText(record.code).c_str());
        break;
      case ImportOutcome::kWriteFailed:
        refused = true;
        std::printf("refused %s: cannot write %s: %s\n", from.c_str(), to.c_str(),
                    StatusText(record.code).c_str());
        break;
    }
  }
  return refused ? kExitFailure : kExitOk;
}

int RunCrlVerify(const Args& args) {
  const char* kName = "crl verify";
  Options options({"store", "tag"}, {});
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  std::optional<std::string> store = options.Get("store");
  if (options.positional().size() != 1 || !store) {
    return UsageError(kName, "one FILE and --store are required");
  }
  if (int exit = UseStore(kName, *store); exit != kExitOk) return exit;
  // The tag as the list's record writes it, so spacing never decides.
  std::optional<std::string> tag;
  if (std::optional<std::string> text = options.Get("tag")) {
    Ref<SexpList> list;
    Result r = issuing::ParseTag(*text, &list);
    CBuffer<char> readable = r == VELK2_SUCCESS ? ToAdvancedText(list.get(), "tag") : nullptr;
    if (readable == nullptr) return FailWith(kExitUsage, kName, "cannot read the tag", r);
    tag = readable.get();
  }
  const std::string& file = options.positional()[0];
  Velk2CrlRecord* record = nullptr;
  Result r = Velk2CrlReadA(&record, file.c_str(), nullptr);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, "cannot read " + EscapeForDisplay(file), r);
  }
  // A list is asked about now: is it good to use today?
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  r = Velk2CrlVerify(record, tag ? tag->c_str() : nullptr, now, now);
  std::printf("scope: %s\n", record->tag ? EscapeForDisplay(record->tag).c_str() : "(none)");
  std::printf("period: %s to %s\n", issuing::FormatDate(record->not_before).c_str(),
              issuing::FormatDate(record->not_after).c_str());
  std::printf("result: %s\nverified: %s\n", StatusText(r).c_str(),
              r == VELK2_SUCCESS ? "yes" : "no");
  Velk2CrlFree(record);
  if (r == VELK2_ERR_NOT_AFTER || r == VELK2_ERR_NOT_BEFORE) {
    return Fail(
        kExitFailure, kName,
        r == VELK2_ERR_NOT_AFTER ? "the list's period has not begun" : "the list's period is over");
  }
  return r == VELK2_SUCCESS ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
