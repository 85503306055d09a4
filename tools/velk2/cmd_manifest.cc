// velk2 manifest sign and velk2 manifest show.
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/utf.h"
#include "tools/issuing/issuer.h"
#include "tools/issuing/manifest.h"
#include "tools/issuing/private_key.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/progress.h"
#include "tools/velk2/support.h"
#include "trust/tool_api.h"

namespace velk2::cli {
namespace {

namespace fs = std::filesystem;

// |path| relative to |package| when it lies inside it ("/"-separated), else empty.
std::string InsidePackage(const std::string& package, const std::string& path) {
  std::error_code error;
  const fs::path base = fs::weakly_canonical(package, error);
  const fs::path full = fs::weakly_canonical(path, error);
  if (error) return std::string();
  const fs::path relative = full.lexically_relative(base);
  if (relative.empty() || *relative.begin() == "..") return std::string();
  return relative.generic_string();
}

// With --store DIR, the store's current list of every scope that the chain's
// certificates name goes into the manifest; a scope with no current list is
// said on stderr, since the package then verifies only where the device
// holds one.
int AddStoreLists(const Options& options, const char* command, issuing::ManifestRequest* request) {
  std::optional<std::string> store = options.Get("store");
  if (!store) return kExitOk;
  if (int exit = UseStore(command, *store); exit != kExitOk) return exit;
  std::vector<issuing::ScopeList> scopes;
  const Result r = issuing::StoreListsForChain(*request->chain, request->time_of_signing, &scopes);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, command, "cannot look for lists", r);
  for (const issuing::ScopeList& scope : scopes) {
    if (scope.code == VELK2_SUCCESS) {
      request->lists.push_back(scope.bytes);
      continue;
    }
    std::string why = scope.code == VELK2_ERR_FILE_NOT_FOUND ? "none is stored"
                      : scope.code == VELK2_ERR_NOT_BEFORE
                          ? "the stored one is over"
                          : "the stored one does not verify: " + StatusText(scope.code);
    std::fprintf(stderr,
                 "velk2 %s: warning: certificate %zu asks for a revocation list of %s and %s "
                 "(%s); the package verifies only where a current one is at hand\n",
                 command, scope.certificate + 1, EscapeForDisplay(scope.scope).c_str(), why.c_str(),
                 EscapeForDisplay(scope.list_path).c_str());
  }
  return kExitOk;
}

}  // namespace

int RunManifestSign(const Args& args) {
  const char* kName = "manifest sign";
  Options options(kName);
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  std::optional<std::string> key_path = options.Get("key"), chain_path = options.Get("chain"),
                             tag_text = options.Get("tag"), out = options.Get("out");
  if (options.positional().size() != 1 || !key_path || !chain_path || !tag_text || !out) {
    return UsageError(kName, "PKGDIR, --key, --chain, --tag and --out are required");
  }
  issuing::ManifestRequest request;
  request.package = options.positional()[0];
  if (int exit = ReadPatterns(options, kName, &request.patterns); exit != kExitOk) return exit;
  request.owners = options.Has("owners");
  // The manifest is not part of the package it describes: left out, and
  // recorded as left out, so a verification never counts it extra.
  if (std::string inside = InsidePackage(request.package, *out); !inside.empty()) {
    request.ignore.insert(inside);
    std::string pattern = "/";
    for (char c : inside) {
      if (c == '*' || c == '?' || c == '[' || c == '\\') pattern.push_back('\\');
      pattern.push_back(c);
    }
    request.patterns.push_back(pattern);
  }
  if (std::optional<std::string> name = options.Get("name")) request.name = *name;
  request.time_of_signing = static_cast<int64_t>(std::time(nullptr));
  if (int exit = ReadDateOption(options, kName, "time-of-signing", &request.time_of_signing);
      exit != kExitOk) {
    return exit;
  }
  Result r = issuing::ParseTag(*tag_text, &request.tag);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read the tag", r);
  r = issuing::ReadChainFile(*chain_path, &request.chain);
  if (r != VELK2_SUCCESS) {
    return FailReading(kExitUsage, kName, *chain_path, r);
  }
  if (request.chain->entry_count() == 0) {
    return UsageError(kName, EscapeForDisplay(*chain_path) +
                                 " holds no certificate: a manifest needs at least the signing "
                                 "key's own certificate");
  }
  for (const std::string& path : options.GetAll("crl")) {
    std::string list;
    r = issuing::ReadListFile(path, &list);
    if (r != VELK2_SUCCESS) {
      return FailWith(kExitUsage, kName,
                      "cannot read the revocation list " + EscapeForDisplay(path), r);
    }
    request.lists.push_back(std::move(list));
  }
  if (int exit = AddStoreLists(options, kName, &request); exit != kExitOk) return exit;
  issuing::PrivateKey key;
  std::string key_problem;
  r = issuing::LoadKeyFile(*key_path, PassphraseFileOption(options, kName), &key, &key_problem);
  if (!key_problem.empty()) return Fail(kExitUsage, kName, key_problem);
  if (r != VELK2_SUCCESS) {
    return FailReading(kExitUsage, kName, *key_path, r);
  }
  // A DSA key signs SHA-1 digests only.
  if (key.type() == issuing::KeyType::kDsa) {
    std::fprintf(stderr, "velk2 %s: warning: %s\n", kName, issuing::kSha1Warning);
  }
  std::string file, problem;
  size_t entries = 0;
  Progress progress(!options.Has("no-progress"));
  request.counters = progress.counters();
  progress.Start(0, 0);  // the sizes are learnt as the walk goes
  r = issuing::MakeManifest(key, request, &file, &entries, &problem);
  progress.Stop();
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, problem.empty() ? "cannot sign" : EscapeForDisplay(problem),
                    r);
  }
  r = issuing::WriteFile(*out, file, 0644, true);
  if (r != VELK2_SUCCESS) {
    return FailWriting(kExitUsage, kName, *out, r);
  }
  std::printf("%s: %zu entries", EscapeForDisplay(*out).c_str(), entries);
  if (!request.lists.empty()) std::printf(", %zu revocation lists", request.lists.size());
  std::printf("\n");
  return kExitOk;
}

int RunManifestShow(const Args& args) {
  const char* kName = "manifest show";
  if (args.size() != 1) return UsageError(kName, "one FILE is required");
  api::ManifestInfo manifest;
  const Result r = api::DescribeManifest(args[0], &manifest);
  if (r != VELK2_SUCCESS) {
    return FailReading(kExitUsage, kName, args[0], r);
  }
  std::printf("version: %s\n", manifest.version.c_str());
  std::printf("type: %s\n", manifest.type.c_str());
  if (!manifest.name.empty()) {
    std::printf("package name: %s\n", EscapeForDisplay(manifest.name).c_str());
  }
  std::printf("time of signing: %s\n", EscapeForDisplay(manifest.time_of_signing).c_str());
  std::printf("signatures: every one verified, and the body is the one signed\n");
  for (size_t i = 0; i < manifest.chain.size(); ++i) {
    const api::CertificateInfo& c = manifest.chain[i];
    std::printf("certificate %zu%s\n", i + 1, i == 0 ? " (the object certificate)" : "");
    std::printf("  issuer: %s\n", c.issuer.c_str());
    std::printf("  subject: %s\n", c.subject.c_str());
    std::printf("  tag: %s\n", c.tag.empty() ? "(none)" : c.tag.c_str());
    std::printf("  propagate: %s\n", c.propagate ? "yes" : "no");
    if (!c.not_before.empty() || !c.not_after.empty()) {
      std::printf("  period: %s to %s\n", EscapeForDisplay(c.not_before).c_str(),
                  EscapeForDisplay(c.not_after).c_str());
    }
  }
  std::printf("revocation lists: %zu\n", manifest.lists.size());
  for (const api::ManifestInfo::ShippedList& list : manifest.lists) {
    std::printf("  scope %s, %s to %s (checked against the ACL when verified)\n",
                list.scope.empty() ? "(none)" : list.scope.c_str(),
                EscapeForDisplay(list.not_before).c_str(),
                EscapeForDisplay(list.not_after).c_str());
  }
  std::printf("entries: %zu\n", manifest.entries);
  for (const std::string& pattern : manifest.ignore) {
    std::printf("ignore: %s\n", EscapeForDisplay(pattern).c_str());
  }
  for (const api::TreeLine& line : manifest.tree) {
    std::string what = line.mode.empty() ? std::string() : " mode " + line.mode;
    if (!line.owner.empty()) what += " owner " + line.owner;
    const int indent = 2 + 2 * line.depth;
    if (line.directory) {
      std::printf("%*s%s/%s\n", indent, "", EscapeForDisplay(line.name).c_str(), what.c_str());
    } else if (line.link) {
      std::printf("%*s%s  %s -> %s%s\n", indent, "", line.digest.c_str(),
                  EscapeForDisplay(line.name).c_str(), EscapeForDisplay(line.target).c_str(),
                  what.c_str());
    } else {
      std::printf("%*s%s  %s%s\n", indent, "", line.digest.c_str(),
                  EscapeForDisplay(line.name).c_str(), what.c_str());
    }
  }
  return kExitOk;
}

}  // namespace velk2::cli
