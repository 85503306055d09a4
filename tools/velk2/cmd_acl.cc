// velk2 acl add / acl list: the entry files of an ACL directory.
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "acl/acl_entry.h"
#include "frame/paths.h"
#include "platform/utf.h"
#include "sexp/display.h"
#include "tools/issuing/acl_entry.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "tools/velk2/support_acl.h"

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
  Options options({"subject", "subject-hash", "tag", "not-before", "not-after", "comment", "out"},
                  {"propagate", "force"});
  if (!options.Parse(args)) return UsageError(kName, options.error());
  std::optional<std::string> out = options.Get("out");
  if (!options.Get("tag") || !out) return UsageError(kName, "--tag and --out are required");
  // The ACL is read from the "*.acl" files of a directory; any other name would never be read.
  if (!EndsWithAcl(*out)) return UsageError(kName, "--out must name a file NAME.acl");
  const size_t slash = out->find_last_of('/');
  const std::string parent = slash == std::string::npos ? "." : out->substr(0, slash + 1);
  if (!IsDirectory(parent)) return Fail(kExitUsage, kName, "no directory " + parent);
  const bool force = options.Has("force");
  if (!force && FileExists(*out)) {
    return Fail(kExitUsage, kName, *out + " exists (use --force to replace it)");
  }

  issuing::AclEntryRequest request;
  if (int exit = ReadGrantOptions(options, kName, &request); exit != kExitOk) return exit;
  if (int exit = ReadSubjectOption(options, kName, &request.subject); exit != kExitOk) return exit;

  Ref<SexpList> entry;
  Result r = issuing::MakeAclEntry(request, &entry);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot build the entry", r);
  r = issuing::WriteAclEntry(*out, *entry, force);
  if (r == VELK2_ERR_PARAM_NOT_NULL) {
    return Fail(kExitUsage, kName, *out + " exists (use --force to replace it)");
  }
  if (r == VELK2_ERR_INVALID_S_EXPRESSION) {
    return FailWith(kExitUsage, kName,
                    "the tag nests deeper than the authorization engine goes; such an entry "
                    "would make every question against " +
                        *out + "'s directory fail",
                    r);
  }
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot write " + *out, r);
  std::printf("%s\n", out->c_str());
  return kExitOk;
}

namespace {

void PrintEntry(const AclEntry& entry, const std::string& file) {
  std::printf("%s\n", file.c_str());
  std::printf("  subject:    %s\n",
              entry.subject() ? DescribePrincipal(*entry.subject()).c_str() : "(none)");
  std::printf("  propagate:  %s\n", entry.propagate() ? "yes (may delegate)" : "no");
  std::printf("  tag:        %s\n", ReadableTag(entry.tag()).c_str());
  if (entry.not_before() == nullptr && entry.not_after() == nullptr) {
    std::printf("  valid:      always\n");
  } else {
    if (entry.not_before()) std::printf("  not-before: %s\n", AtomText(entry.not_before()).c_str());
    if (entry.not_after()) std::printf("  not-after:  %s\n", AtomText(entry.not_after()).c_str());
  }
  if (entry.generation() != 0) std::printf("  generation: %u\n", entry.generation());
  if (entry.comment())
    std::printf("  comment:    %s\n", FormatReadableLine(*entry.comment()).c_str());
  if (!issuing::FitsTheEngine(entry)) {
    std::printf(
        "  refused:    nested deeper than the authorization engine goes; every question "
        "against this directory fails (-130)\n");
  }
}

}  // namespace

int RunAclList(const Args& args) {
  const char* kName = "acl list";
  if (args.size() != 1) return UsageError(kName, "expected one DIR");
  const std::u16string directory = Utf8ToUtf16(args[0]);
  DirectoryEnumerator files;
  if (!IsDirectory(args[0])) return Fail(kExitUsage, kName, "no directory " + args[0]);
  Result r = files.Open(directory.c_str(), u"*.acl");
  if (r != VELK2_SUCCESS) return Fail(kExitUsage, kName, args[0] + " holds no *.acl file");
  int loaded = 0, skipped = 0, too_deep = 0;
  Result last = VELK2_SUCCESS;
  std::string last_file;
  bool first = true;
  for (const char16_t* path = files.Next(true); path != nullptr; path = files.Next(true)) {
    const std::string file = EscapeForDisplay(Utf16ToUtf8(path));
    Ref<AclEntry> entry = AclEntry::New();
    last = LoadAclEntryFile(entry.get(), path);
    last_file = file;
    if (last != VELK2_SUCCESS) {
      std::fprintf(stderr, "velk2 acl list: skipped %s: %s\n", file.c_str(),
                   StatusText(last).c_str());
      ++skipped;
      continue;
    }
    if (!first) std::printf("\n");
    first = false;
    PrintEntry(*entry, file);
    ++loaded;
    if (!issuing::FitsTheEngine(*entry)) ++too_deep;
  }
  std::fflush(stdout);
  if (last != VELK2_SUCCESS) {
    // The library keeps the result of the last file: without an extra
    // directory, a bad last file discards the whole ACL.
    std::fprintf(stderr,
                 "velk2 acl list: the last file, %s, does not load, so the library refuses this "
                 "ACL as a whole when it is the only ACL directory (%s)\n",
                 last_file.c_str(), StatusText(VELK2_ERR_FILE_NOT_FOUND).c_str());
  }
  std::fprintf(stderr, "velk2 acl list: %d %s loaded, %d skipped\n", loaded,
               loaded == 1 ? "entry" : "entries", skipped);
  if (too_deep != 0) {
    std::fprintf(stderr,
                 "velk2 acl list: %d %s nested deeper than the authorization engine goes, so "
                 "every question against this directory fails\n",
                 too_deep, too_deep == 1 ? "entry is" : "entries are");
  }
  return skipped == 0 && too_deep == 0 ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
