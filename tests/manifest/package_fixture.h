// The fixture of the manifest tests: a package directory and a store whose
// ACL trusts the root key, packages signed by the toolkit (as `velk2
// manifest sign` signs them), and verification as a caller does it.
#ifndef VELK2_TESTS_MANIFEST_PACKAGE_FIXTURE_H_
#define VELK2_TESTS_MANIFEST_PACKAGE_FIXTURE_H_

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "acl/acl_test_util.h"
#include "credentials/certificate_sequence.h"
#include "frame/file_item.h"
#include "manifest/body.h"
#include "manifest/package.h"
#include "platform/zcry.h"
#include "tools/issuing/acl_entry.h"
#include "tools/issuing/manifest.h"
#include "tools/issuing/revocation.h"
#include "velk2.h"

namespace velk2::testing {

namespace fs = std::filesystem;
constexpr int kRoot = 0, kSigner = 1, kStranger = 2, kVendor = 3;
constexpr const char* kInstall = "(pkg install)";

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
  int64_t time_of_signing = 1782000000;  // 2026-06-21
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

  // Verifies pkg/manifest: the code and the four lists (paths relative).
  struct Outcome {
    VELK2_RESULT code;
    std::set<std::string> valid, invalid, missing, extra;
  };
  Outcome Verify(std::string manifest = "", bool fail_on_extra = false,
                 const FileItem* ignored = nullptr) {
    if (manifest.empty()) manifest = Pkg("manifest");
    ManifestContext* context = nullptr;
    EXPECT_EQ(CreateManifestContextA(&context, Pkg().c_str(), manifest.c_str(), kInstall),
              VELK2_SUCCESS);
    if (fail_on_extra) FailOnExtraEntries(context);
    if (ignored != nullptr) {
      EXPECT_EQ(SetIgnoredEntries(context, ignored), VELK2_SUCCESS);
    }
    Outcome out{VerifyManifest(context, 0, 0), {}, {}, {}, {}};
    out.valid = Paths(GetValidEntries(context), Pkg());
    out.invalid = Paths(GetInvalidEntries(context), Pkg());
    out.missing = Paths(GetMissingEntries(context), Pkg());
    out.extra = Paths(GetExtraEntries(context), Pkg());
    EXPECT_EQ(DeleteManifestContext(context), VELK2_SUCCESS);
    return out;
  }

  TempDir dir_;
  int chains_ = 0;
};

}  // namespace velk2::testing

#endif  // VELK2_TESTS_MANIFEST_PACKAGE_FIXTURE_H_
