// velk2 manifest sign and velk2 manifest show.
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "credentials/certificate_sequence.h"
#include "credentials/date.h"
#include "manifest/body.h"
#include "manifest/read.h"
#include "platform/files.h"
#include "platform/utf.h"
#include "tools/issuing/issuer.h"
#include "tools/issuing/manifest.h"
#include "tools/issuing/private_key.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "tools/velk2/support_acl.h"

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

void PrintTree(const ManifestDirectory& level, int indent) {
  for (const ManifestFileEntry& file : level.files) {
    std::printf("%*s%s  %s\n", indent, "",
                HexString(file.digest.data(), file.digest_length).c_str(),
                EscapeForDisplay(Utf16ToUtf8(file.name)).c_str());
  }
  for (const ManifestDirectory& directory : level.directories) {
    std::printf("%*s%s/\n", indent, "", EscapeForDisplay(Utf16ToUtf8(directory.name)).c_str());
    PrintTree(directory, indent + 2);
  }
}

size_t CountEntries(const ManifestDirectory& level) {
  size_t count = level.files.size() + level.directories.size();
  for (const ManifestDirectory& directory : level.directories) count += CountEntries(directory);
  return count;
}

}  // namespace

int RunManifestSign(const Args& args) {
  const char* kName = "manifest sign";
  Options options({"key", "chain", "tag", "out"}, {}, {"ignore"});
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  std::optional<std::string> key_path = options.Get("key"), chain_path = options.Get("chain"),
                             tag_text = options.Get("tag"), out = options.Get("out");
  if (options.positional().size() != 1 || !key_path || !chain_path || !tag_text || !out) {
    return UsageError(kName, "PKGDIR, --key, --chain, --tag and --out are required");
  }
  issuing::ManifestRequest request;
  request.package = options.positional()[0];
  for (std::string path : options.GetAll("ignore")) {
    while (!path.empty() && path.back() == '/') path.pop_back();
    request.ignore.insert(path);
  }
  // The manifest is not part of the package it describes.
  if (std::string inside = InsidePackage(request.package, *out); !inside.empty()) {
    request.ignore.insert(inside);
  }
  Result r = issuing::ParseTag(*tag_text, &request.tag);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read the tag", r);
  r = ReadCertificateFile(&request.chain, Utf8ToUtf16(*chain_path).c_str(), nullptr);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, "cannot read " + EscapeForDisplay(*chain_path), r);
  }
  if (request.chain->entry_count() == 0) {
    return UsageError(kName, EscapeForDisplay(*chain_path) +
                                 " holds no certificate: a manifest needs at least the signing "
                                 "key's own certificate");
  }
  issuing::PrivateKey key;
  r = issuing::PrivateKey::LoadPem(*key_path, &key);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, "cannot read " + EscapeForDisplay(*key_path), r);
  }
  request.time_of_signing = static_cast<int64_t>(std::time(nullptr));
  std::string file, problem;
  size_t entries = 0;
  r = issuing::MakeManifest(key, request, &file, &entries, &problem);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, problem.empty() ? "cannot sign" : EscapeForDisplay(problem),
                    r);
  }
  r = WriteFileAtomically(*out, file, 0644, true);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, "cannot write " + EscapeForDisplay(*out), r);
  }
  std::printf("%s: %zu entries\n", EscapeForDisplay(*out).c_str(), entries);
  return kExitOk;
}

int RunManifestShow(const Args& args) {
  const char* kName = "manifest show";
  if (args.size() != 1) return UsageError(kName, "one FILE is required");
  ManifestContext context;
  context.manifest_path = Utf8ToUtf16(args[0]);
  ManifestFile file;
  ManifestReport report;
  Result r = ReadManifest(&context, false, 0, 0, &file, &report);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, "cannot read " + EscapeForDisplay(args[0]), r);
  }
  ManifestDirectory root;
  r = ReadManifestBody(&root, file.body(), nullptr);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName, "cannot read the body of " + EscapeForDisplay(args[0]), r);
  }
  std::printf("version: %s\n", ReadableTag(context.version.get()).c_str());
  std::printf("type: %s\n", ReadableTag(context.type.get()).c_str());
  std::printf("time of signing: %s\n", AtomText(context.time_of_signing.get()).c_str());
  std::printf("signatures: every one verified, and the body is the one signed\n");
  for (size_t i = 0; i < report.chain->entry_count(); ++i) {
    const Certificate& c = *report.chain->entry(i).certificate;
    std::printf("certificate %zu%s\n", i + 1, i == 0 ? " (the object certificate)" : "");
    std::printf("  issuer: %s\n", DescribePrincipal(*c.issuer()).c_str());
    std::printf("  subject: %s\n", DescribePrincipal(*c.subject()).c_str());
    std::printf("  tag: %s\n", ReadableTag(c.tag()).c_str());
    std::printf("  propagate: %s\n", c.propagate() ? "yes" : "no");
    if (c.not_before() || c.not_after()) {
      std::printf("  period: %s to %s\n", AtomText(c.not_before()).c_str(),
                  AtomText(c.not_after()).c_str());
    }
  }
  std::printf("entries: %zu\n", CountEntries(root));
  PrintTree(root, 2);
  return kExitOk;
}

}  // namespace velk2::cli
