// velk2 acl add / acl list: the entry files of an ACL directory.
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "platform/utf.h"
#include "tools/issuing/acl_entry.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "trust/tool_api.h"

namespace velk2::cli {
namespace {

bool IsDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool EndsWithAcl(const std::string& path) {
  if (path.size() < 5) return false;
  std::string tail = path.substr(path.size() - 4);
  for (char& c : tail) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  const size_t slash = path.find_last_of('/');
  const size_t name_start = slash == std::string::npos ? 0 : slash + 1;
  return tail == ".acl" && path.size() - name_start > 4;
}

}  // namespace

int RunAclAdd(const Args& args) {
  const char* kName = "acl add";
  Options options(kName);
  if (!options.Parse(args)) return UsageError(kName, options.error());
  std::optional<std::string> out = options.Get("out");
  if (!options.Get("tag") || !out) return UsageError(kName, "--tag and --out are required");
  // The ACL is read from the "*.acl" files of a directory; any other name would never be read.
  if (!EndsWithAcl(*out)) return UsageError(kName, "--out must name a file NAME.acl");
  const size_t slash = out->find_last_of('/');
  const std::string parent = slash == std::string::npos ? "." : out->substr(0, slash + 1);
  if (!IsDirectory(parent))
    return Fail(kExitUsage, kName, "no directory " + EscapeForDisplay(parent));
  const bool force = options.Has("force");
  if (!force && FileExists(*out)) {
    return Fail(kExitUsage, kName, EscapeForDisplay(*out) + " exists (use --force to replace it)");
  }

  issuing::AclEntryRequest request;
  if (int exit = ReadGrantOptions(options, kName, &request); exit != kExitOk) return exit;
  if (int exit = ReadSubjectOption(options, kName, &request.subject); exit != kExitOk) return exit;

  Ref<SexpList> entry;
  Result r = issuing::MakeAclEntry(request, &entry);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot build the entry", r);
  r = issuing::WriteAclEntry(*out, *entry, force);
  if (r == VELK2_ERR_PARAM_NOT_NULL) {
    return Fail(kExitUsage, kName, EscapeForDisplay(*out) + " exists (use --force to replace it)");
  }
  if (r == VELK2_ERR_INVALID_S_EXPRESSION) {
    return FailWith(kExitUsage, kName,
                    "the tag nests deeper than the authorization engine goes; such an entry "
                    "would make every question against " +
                        *out + "'s directory fail",
                    r);
  }
  if (r != VELK2_SUCCESS) return FailWriting(kExitUsage, kName, *out, r);
  std::printf("%s\n", EscapeForDisplay(*out).c_str());
  return kExitOk;
}

namespace {

void PrintEntry(const api::AclEntryInfo& entry) {
  std::printf("%s\n", EscapeForDisplay(entry.file).c_str());
  std::printf("  subject:    %s\n", entry.subject.empty() ? "(none)" : entry.subject.c_str());
  std::printf("  propagate:  %s\n", entry.propagate ? "yes (may delegate)" : "no");
  std::printf("  tag:        %s\n", entry.tag.empty() ? "(none)" : entry.tag.c_str());
  if (entry.not_before.empty() && entry.not_after.empty()) {
    std::printf("  valid:      always\n");
  } else {
    if (!entry.not_before.empty()) {
      std::printf("  not-before: %s\n", EscapeForDisplay(entry.not_before).c_str());
    }
    if (!entry.not_after.empty()) {
      std::printf("  not-after:  %s\n", EscapeForDisplay(entry.not_after).c_str());
    }
  }
  if (entry.generation != 0) std::printf("  generation: %u\n", entry.generation);
  if (!entry.comment.empty()) std::printf("  comment:    %s\n", entry.comment.c_str());
  if (entry.too_deep) {
    std::printf(
        "  refused:    nested deeper than the authorization engine goes; every question "
        "against this directory fails (-130)\n");
  }
}

}  // namespace

int RunAclList(const Args& args) {
  const char* kName = "acl list";
  if (args.size() != 1) return UsageError(kName, "expected one DIR");
  api::AclListing listing;
  const Result r = api::ListAcl(args[0], &listing);
  if (r == VELK2_ERR_FIND_DIR)
    return Fail(kExitUsage, kName, "no directory " + EscapeForDisplay(args[0]));
  if (r != VELK2_SUCCESS) return Fail(kExitUsage, kName, args[0] + " holds no *.acl file");
  // Entries and refusals in the order the library reads the files.
  size_t skipped = 0, too_deep = 0;
  bool first = true;
  for (const api::AclEntryInfo& entry : listing.entries) {
    if (!first) std::printf("\n");
    first = false;
    PrintEntry(entry);
    if (entry.too_deep) ++too_deep;
  }
  for (const auto& [file, code] : listing.skipped) {
    std::fprintf(stderr, "velk2 acl list: skipped %s: %s\n", EscapeForDisplay(file).c_str(),
                 StatusText(code).c_str());
    ++skipped;
  }
  std::fflush(stdout);
  if (listing.last_file_failed) {
    // The library keeps the result of the last file: without an extra
    // directory, a bad last file discards the whole ACL.
    std::fprintf(stderr,
                 "velk2 acl list: the last file, %s, does not load, so the library refuses this "
                 "ACL as a whole when it is the only ACL directory (%s)\n",
                 EscapeForDisplay(listing.last_file).c_str(),
                 StatusText(VELK2_ERR_FILE_NOT_FOUND).c_str());
  }
  std::fprintf(stderr, "velk2 acl list: %zu %s loaded, %zu skipped\n", listing.entries.size(),
               listing.entries.size() == 1 ? "entry" : "entries", skipped);
  if (too_deep != 0) {
    std::fprintf(stderr,
                 "velk2 acl list: %zu %s nested deeper than the authorization engine goes, so "
                 "every question against this directory fails\n",
                 too_deep, too_deep == 1 ? "entry is" : "entries are");
  }
  return skipped == 0 && too_deep == 0 ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
