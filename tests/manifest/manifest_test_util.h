// What the manifest tests share: manifest bodies written by hand, work run
// where blocking cannot hang the tests, and the fixture of a package and a
// store whose ACL trusts the root key, with packages signed by the toolkit
// (as `velk2 manifest sign` signs them) and verified as a caller does it.
#ifndef VELK2_TESTS_MANIFEST_MANIFEST_TEST_UTIL_H_
#define VELK2_TESTS_MANIFEST_MANIFEST_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "acl/acl_test_util.h"
#include "credentials/certificate_sequence.h"
#include "credentials/credentials_test_util.h"  // Atom
#include "frame/file_item.h"
#include "manifest/body.h"
#include "manifest/package.h"
#include "platform/utf.h"
#include "platform/zcry.h"
#include "tools/issuing/acl_entry.h"
#include "tools/issuing/manifest.h"
#include "tools/issuing/revocation.h"
#include "velk2.h"

namespace velk2::testing {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

constexpr int kRoot = 0, kSigner = 1, kStranger = 2, kVendor = 3;
constexpr const char* kInstall = "(pkg install)";
constexpr int64_t kJan2026 = 1767225600;
constexpr int64_t kJan2027 = 1798761600;
constexpr int64_t kJan2030 = 1893456000;
constexpr int64_t kSigned = 1782000000;  // the fixture's time of signing, 2026-06-21

// Each file's digest in a body written here is the SHA-256 of the content it
// stands for, computed with OpenSSL rather than by the library under test.
inline std::string Sha256(std::string_view content) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EXPECT_EQ(EVP_Digest(content.data(), content.size(), digest, &length, EVP_sha256(), nullptr), 1);
  return std::string(reinterpret_cast<const char*>(digest), length);
}

inline std::array<uint8_t, 32> DigestOf(std::string_view content) {
  const std::string bytes = Sha256(content);
  std::array<uint8_t, 32> digest{};
  std::copy(bytes.begin(), bytes.end(), digest.begin());
  return digest;
}

inline std::string HexOf(std::string_view content) {
  const std::string bytes = Sha256(content);
  return HexString(bytes.data(), bytes.size());
}

// "(4:file NAME SIZE DIGEST)" for a file holding |content|.
inline std::string FileEntry(std::string_view name, std::string_view content) {
  return "(4:file" + Atom(name) + Atom(std::to_string(content.size())) + Atom(Sha256(content)) +
         ")";
}

inline std::string DirEntry(std::string_view name, std::initializer_list<std::string> entries) {
  std::string out = "(3:dir" + Atom(name) + "0:";
  for (const std::string& entry : entries) out += entry;
  return out + ")";
}

inline std::string BodyText(std::initializer_list<std::string> entries,
                            std::string_view token = "tokn") {
  std::string out = "(4:body(12:random-token" + Atom(token) + ")";
  for (const std::string& entry : entries) out += entry;
  return out + ")";
}

// The tree of |body| with the root path |path|; the test fails when it does
// not read.
inline ManifestDirectory Tree(const std::string& body, const std::string& path = "",
                              const std::vector<std::string>& ignored = {}) {
  ManifestDirectory root;
  root.path = Utf8ToUtf16(path);
  std::vector<std::u16string> wide;
  for (const std::string& item : ignored) wide.push_back(Utf8ToUtf16(item));
  EXPECT_EQ(ReadManifestBody(&root, body, &wide), VELK2_SUCCESS) << body;
  return root;
}

// Runs |work| in a child process that an alarm ends, for work that must
// never block; what it returns comes back through a pipe. No value: the
// child blocked until the alarm ended it, or crashed.
inline std::optional<std::string> InChild(const std::function<std::string()>& work) {
  int fds[2];
  if (::pipe(fds) != 0) return std::nullopt;
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(fds[0]);
    ::alarm(120);
    const std::string out = work();
    for (size_t done = 0; done < out.size();) {
      const ssize_t n = ::write(fds[1], out.data() + done, out.size() - done);
      if (n <= 0) _exit(2);
      done += static_cast<size_t>(n);
    }
    _exit(0);
  }
  ::close(fds[1]);
  std::string out;
  char buffer[4096];
  for (ssize_t n; child > 0 && (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) {
    out.append(buffer, static_cast<size_t>(n));
  }
  ::close(fds[0]);
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    return std::nullopt;
  }
  return out;
}
inline std::optional<Lines> InChild(const std::function<Lines()>& work) {
  const std::optional<std::string> out = InChild([&] {
    std::string text;
    for (const std::string& line : work()) text += line + "\n";
    return text;
  });
  if (!out) return std::nullopt;
  Lines lines;
  std::istringstream in(*out);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

inline std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The paths of a result list, as a set.
inline std::set<std::string> Paths(const FileItem* list, const std::string& base = "") {
  std::set<std::string> paths;
  for (; list != nullptr; list = list->next) {
    std::string path = list->name;
    if (!base.empty() && path.rfind(base + "/", 0) == 0) path = path.substr(base.size() + 1);
    paths.insert(path + (list->is_directory ? "/" : ""));
  }
  return paths;
}

// How a test signs: the name recorded, the time of signing, the lists shipped.
struct SignOptions {
  std::string name;
  int64_t time_of_signing = kSigned;
  std::vector<std::string> lists;
};

class Package : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(dir_.Sub("store/acl"));
    Velk2GlobalDirectoryA(dir_.Sub("store").c_str());
    Grant(kRoot, kInstall, "10");
    Grant(kRoot, "(revoke pkg)", "11");
    WriteFile(Pkg("bin/app"), "application");
    WriteFile(Pkg("bin/tool"), "tool");
    WriteFile(Pkg("share/doc/README"), "read me");
    WriteFile(Pkg("top.txt"), "top");
  }
  void TearDown() override { Velk2GlobalDirectoryA(""); }

  std::string Pkg(const std::string& path = "") const {
    return path.empty() ? dir_.Sub("pkg") : dir_.Sub("pkg/" + path);
  }

  void Grant(int key, const char* tag, const char* name) {
    issuing::AclEntryRequest request;
    request.subject = PublicKeyList(key);
    request.propagate = true;
    request.tag = TagList(tag);
    Ref<SexpList> entry;
    ASSERT_EQ(issuing::MakeAclEntry(request, &entry), VELK2_SUCCESS);
    ASSERT_EQ(
        issuing::WriteAclEntry(dir_.Sub(std::string("store/acl/") + name + ".acl"), *entry, true),
        VELK2_SUCCESS);
  }

  // Signs a certificate from |issuer| to |subject| granting (pkg install) and
  // appends it to |file|; |scope|: the revocation scope it asks for, or none.
  void Certify(const std::string& file, int issuer, int subject, bool propagate,
               const char* scope = nullptr) {
    issuing::CertificateRequest request;
    request.issuer = PublicKeyList(issuer);
    request.subject = PublicKeyList(subject);
    request.propagate = propagate;
    request.tag = TagList(kInstall);
    if (scope != nullptr) request.revocation_scope = TagList(scope);
    Ref<SexpList> body, signature;
    EXPECT_EQ(issuing::MakeCertificateBody(request, &body), VELK2_SUCCESS);
    EXPECT_EQ(
        issuing::SignObject(TestKey(issuer), *body, issuing::kRsaPss, ZCRY_HASH_SHA256, &signature),
        VELK2_SUCCESS);
    EXPECT_EQ(issuing::AppendCertificate(file, body, signature, "signer"), VELK2_SUCCESS);
  }

  Ref<CertificateSequence> ReadChain(const std::string& file) {
    Ref<CertificateSequence> chain;
    EXPECT_EQ(ReadCertificateFile(&chain, Utf8ToUtf16(file).c_str(), nullptr), VELK2_SUCCESS);
    return chain;
  }
  std::string NewChainFile() { return dir_.Sub("chain" + std::to_string(chains_++) + ".cert"); }

  // The signer's chain: one certificate from |issuer| to the signer.
  Ref<CertificateSequence> Chain(int issuer, bool propagate, const char* scope = nullptr) {
    const std::string path = NewChainFile();
    Certify(path, issuer, kSigner, propagate, scope);
    return ReadChain(path);
  }

  // Signs the package as it now is into |out| (default: pkg/manifest).
  std::string Sign(Ref<CertificateSequence> chain = nullptr, std::string out = "",
                   const SignOptions& options = {}) {
    issuing::ManifestRequest request;
    request.package = Pkg();
    request.tag = TagList(kInstall);
    request.time_of_signing = options.time_of_signing;
    request.chain = chain ? chain : Chain(kRoot, true);
    request.ignore = {"manifest"};
    request.name = options.name;
    request.lists = options.lists;
    std::string file, problem;
    EXPECT_EQ(issuing::MakeManifest(TestKey(kSigner), request, &file, nullptr, &problem),
              VELK2_SUCCESS)
        << problem;
    if (out.empty()) out = Pkg("manifest");
    WriteFile(out, file);
    return out;
  }

  // A list of (revoke pkg) signed by |issuer| for |from| to |to|.
  static std::string RevocationList(std::vector<issuing::Revoked> certificates,
                                    std::vector<issuing::Revoked> keys, int64_t from = kJan2026,
                                    int64_t to = kJan2030, int issuer = kRoot) {
    issuing::RevocationListRequest request;
    request.scope = TagList("(revoke pkg)");
    request.certificates = std::move(certificates);
    request.keys = std::move(keys);
    request.not_before = from;
    request.not_after = to;
    std::string file;
    EXPECT_EQ(issuing::MakeRevocationList(TestKey(issuer), request, &file), VELK2_SUCCESS);
    return file;
  }
  static issuing::Revoked Revoked(const SexpObject* thing, int64_t at) {
    return {Ref<SexpObject>::Share(const_cast<SexpObject*>(thing)), at};
  }
  // Puts |list| in the store, where every verification looks.
  void StoreList(const std::string& list) {
    WriteFile(dir_.Sub("store/cert/(revoke pkg).crl"), list);
  }

  // The context VerifyPackage is given for pkg/manifest.
  ManifestContext Context() const {
    ManifestContext context;
    context.package_directory = Utf8ToUtf16(Pkg());
    context.manifest_path = Utf8ToUtf16(Pkg("manifest"));
    context.tag = TagList(kInstall);
    return context;
  }

  // Verifies |manifest| (default: pkg/manifest) of |package| (default: pkg)
  // through the C interface: CreateManifestContextA's code when it fails,
  // else VerifyManifest's and the four lists (paths relative). A manifest
  // refused before the comparison leaves every list empty.
  struct Outcome {
    VELK2_RESULT created, code;
    std::set<std::string> valid, invalid, missing, extra;
  };
  Outcome Verify(std::string manifest = "", bool fail_on_extra = false,
                 const FileItem* ignored = nullptr, std::string package = "",
                 const std::string& tag = kInstall, uint32_t rollback = 0) {
    if (package.empty()) package = Pkg();
    if (manifest.empty()) manifest = Pkg("manifest");
    ManifestContext* context = nullptr;
    Outcome out{};
    out.code = out.created =
        CreateManifestContextA(&context, package.c_str(), manifest.c_str(), tag.c_str());
    if (out.created != VELK2_SUCCESS) return out;
    if (fail_on_extra) FailOnExtraEntries(context);
    if (ignored != nullptr) {
      EXPECT_EQ(SetIgnoredEntries(context, ignored), VELK2_SUCCESS);
    }
    EXPECT_EQ(SetRollbackProtection(context, rollback), VELK2_SUCCESS);
    out.code = VerifyManifest(context, 0, 0);
    out.valid = Paths(GetValidEntries(context), package);
    out.invalid = Paths(GetInvalidEntries(context), package);
    out.missing = Paths(GetMissingEntries(context), package);
    out.extra = Paths(GetExtraEntries(context), package);
    EXPECT_EQ(DeleteManifestContext(context), VELK2_SUCCESS);
    if (out.code != VELK2_SUCCESS && out.code != VELK2_ERR_HASH_MISMATCH &&
        out.code != VELK2_ERR_FILE_NOT_FOUND && out.code != VELK2_ERR_EXTRA_FILES) {
      EXPECT_TRUE(out.valid.empty() && out.invalid.empty() && out.missing.empty() &&
                  out.extra.empty())
          << "entries listed after " << out.code;
    }
    return out;
  }

  TempDir dir_;
  int chains_ = 0;
};

}  // namespace velk2::testing

#endif  // VELK2_TESTS_MANIFEST_MANIFEST_TEST_UTIL_H_
