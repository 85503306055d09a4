// VerifyManifest as a caller asks it, to show what the revocation lists cost
// each verification: a package of 10 files of 1 KiB, signed by a key whose
// chain is one certificate from the root, against an ACL of about 100
// entries. Every call reads the manifest, checks its two signatures, loads
// the ACL, loads and verifies the store's lists that the ACL's "(revoke ...)"
// entries name, looks the chain up in them (and in the manifest's own
// lists), authorizes the signer, checks the digest and hashes the package.
//
//   NoList        no "(revoke ...)" entry and an unscoped certificate
//   StoreList     a "(revoke pkg)" list in the store of |revoked| items
//   EmbeddedList  the same list shipped in the manifest, none in the store
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "credentials/certificate_sequence.h"
#include "platform/utf.h"
#include "platform/zcry.h"
#include "sexp/reader.h"
#include "sexp/source.h"
#include "tools/issuing/acl_entry.h"
#include "tools/issuing/issuer.h"
#include "tools/issuing/manifest.h"
#include "tools/issuing/private_key.h"
#include "tools/issuing/revocation.h"
#include "velk2.h"

namespace {

using velk2::Ref;
using velk2::SexpList;
namespace issuing = velk2::issuing;

constexpr int kFiles = 10;
constexpr size_t kFileSize = 1024;
constexpr int kOtherEntries = 100;
constexpr int64_t kTimeOfSigning = 1782000000;  // 2026-06-21
constexpr const char* kInstall = "(pkg install)";
constexpr const char* kScope = "(revoke pkg)";

void Check(velk2::Result result, const char* what) {
  if (result != VELK2_SUCCESS) {
    std::fprintf(stderr, "setup failed: %s: %u\n", what, result);
    std::exit(1);
  }
}

void Write(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

Ref<SexpList> Parsed(const std::string& text) {
  velk2::SexpMemorySource source;
  Check(source.AttachCopy(text.data(), text.size()), "attach");
  Ref<SexpList> list;
  Check(velk2::ParseCanonicalList(&list, &source, nullptr), "parse");
  return list;
}

Ref<SexpList> Tag(const char* text) {
  Ref<SexpList> tag;
  Check(issuing::ParseTag(text, &tag), "tag");
  return tag;
}

// The root and the signer, made once for every case.
struct Keys {
  Keys() {
    Check(issuing::PrivateKey::Generate(issuing::KeyType::kRsa, 2048, &root), "root key");
    Check(issuing::PrivateKey::Generate(issuing::KeyType::kRsa, 2048, &signer), "signer key");
    Check(issuing::MakePublicKey(root, &root_public), "root public key");
    Check(issuing::MakePublicKey(signer, &signer_public), "signer public key");
  }
  issuing::PrivateKey root, signer;
  Ref<SexpList> root_public, signer_public;
};

const Keys& SharedKeys() {
  static const Keys keys;
  return keys;
}

// How a case is set up.
struct Layout {
  bool scoped = false;      // the ACL names (revoke pkg) and the certificate asks for it
  int store_items = -1;     // the store's list of that many items; -1: none
  int embedded_items = -1;  // the manifest's own list; -1: none
};

// A store (ACL, and the list when there is one), a package and its manifest.
class Setup {
 public:
  explicit Setup(const Layout& layout) {
    const Keys& keys = SharedKeys();
    char pattern[] = "/tmp/velk2_bench_XXXXXX";
    if (mkdtemp(pattern) == nullptr) Check(VELK2_FAILURE, "temporary directory");
    dir_ = pattern;
    std::filesystem::create_directories(store() + "/acl");
    std::filesystem::create_directories(store() + "/cert");
    std::filesystem::create_directories(package());

    // The root grants the tag (and speaks for the list); the other entries
    // grant hash principals, as a device's ACL grants many keys.
    Grant("root", keys.root_public, kInstall, true);
    if (layout.scoped) Grant("root_revoke", keys.root_public, kScope, false);
    for (int i = 0; i < kOtherEntries; ++i) {
      char digest[33];
      std::snprintf(digest, sizeof digest, "%032d", i);
      char name[16];
      std::snprintf(name, sizeof name, "%04d", i);
      Grant(name, Parsed(std::string("(4:hash6:sha25632:") + digest + ")"), kInstall, false);
    }

    for (int i = 0; i < kFiles; ++i) {
      std::string bytes(kFileSize, static_cast<char>('a' + i));
      Write(package() + "/file" + std::to_string(i), bytes);
    }

    // The signer's chain: one certificate from the root.
    issuing::CertificateRequest certificate;
    certificate.issuer = keys.root_public;
    certificate.subject = keys.signer_public;
    certificate.propagate = true;
    certificate.tag = Tag(kInstall);
    if (layout.scoped) certificate.revocation_scope = Tag(kScope);
    Ref<SexpList> body, signature;
    Check(issuing::MakeCertificateBody(certificate, &body), "certificate");
    Check(issuing::SignObject(keys.root, *body, issuing::kRsaPss, ZCRY_HASH_SHA256, &signature),
          "sign certificate");
    const std::string chain_path = dir_ + "/chain.cert";
    Check(issuing::AppendCertificate(chain_path, body, signature, "bench"), "append");
    Ref<velk2::CertificateSequence> chain;
    Check(velk2::ReadCertificateFile(&chain, velk2::Utf8ToUtf16(chain_path).c_str(), nullptr),
          "read chain");

    if (layout.store_items >= 0) {
      Write(store() + "/cert/" + kScope + ".crl", List(layout.store_items));
    }
    issuing::ManifestRequest request;
    request.package = package();
    request.tag = Tag(kInstall);
    request.time_of_signing = kTimeOfSigning;
    request.chain = chain;
    if (layout.embedded_items >= 0) request.lists.push_back(List(layout.embedded_items));
    std::string file, problem;
    const velk2::Result signed_result =
        issuing::MakeManifest(keys.signer, request, &file, nullptr, &problem);
    if (signed_result != VELK2_SUCCESS) std::fprintf(stderr, "%s\n", problem.c_str());
    Check(signed_result, "manifest");
    Write(manifest(), file);
  }
  ~Setup() { std::filesystem::remove_all(dir_); }
  Setup(const Setup&) = delete;
  Setup& operator=(const Setup&) = delete;

  std::string store() const { return dir_ + "/store"; }
  std::string package() const { return dir_ + "/pkg"; }
  std::string manifest() const { return dir_ + "/manifest"; }

 private:
  void Grant(const std::string& name, Ref<SexpList> subject, const char* tag, bool propagate) {
    issuing::AclEntryRequest request;
    request.subject = std::move(subject);
    request.propagate = propagate;
    request.tag = Tag(tag);
    Ref<SexpList> entry;
    Check(issuing::MakeAclEntry(request, &entry), "entry");
    Check(issuing::WriteAclEntry(store() + "/acl/" + name + ".acl", *entry, true), "write entry");
  }

  // A (revoke pkg) list signed by the root, covering the time of signing,
  // that revokes |items| certificates the chain does not hold.
  static std::string List(int items) {
    issuing::RevocationListRequest request;
    request.scope = Tag(kScope);
    request.not_before = kTimeOfSigning - 86400;
    request.not_after = kTimeOfSigning + 365 * 86400;
    for (int i = 0; i < items; ++i) {
      Ref<velk2::SexpAtom> thing = velk2::SexpAtom::New();
      const std::string name = "revoked " + std::to_string(i);
      Check(thing->SetAtomValue(name.data(), static_cast<uint32_t>(name.size())), "thing");
      request.certificates.push_back({thing, 1767225600});  // 2026-01-01
    }
    std::string file;
    Check(issuing::MakeRevocationList(SharedKeys().root, request, &file), "list");
    return file;
  }

  std::string dir_;
};

// Each case is set up once, when first run, and removed at exit.
std::map<std::string, std::unique_ptr<Setup>>& Setups() {
  static std::map<std::string, std::unique_ptr<Setup>> setups;
  return setups;
}

const Setup& SetupFor(const std::string& name, const Layout& layout) {
  std::unique_ptr<Setup>& setup = Setups()[name];
  if (setup == nullptr) setup = std::make_unique<Setup>(layout);
  return *setup;
}

void Run(benchmark::State& state, const Setup& setup) {
  Velk2GlobalDirectoryA(setup.store().c_str());
  for (auto _ : state) {
    ManifestContext* context = nullptr;
    VELK2_RESULT result = CreateManifestContextA(&context, setup.package().c_str(),
                                                 setup.manifest().c_str(), kInstall);
    if (result == VELK2_SUCCESS) result = VerifyManifest(context, 0, 0);
    DeleteManifestContext(context);
    if (result != VELK2_SUCCESS) {
      state.SkipWithError(("verification failed: " + std::to_string(result)).c_str());
      break;
    }
  }
  Velk2GlobalDirectoryA("");
}

void BM_VerifyManifest_NoList(benchmark::State& state) {
  Run(state, SetupFor("none", Layout{}));
}
BENCHMARK(BM_VerifyManifest_NoList)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_VerifyManifest_StoreList(benchmark::State& state) {
  const int items = static_cast<int>(state.range(0));
  Run(state, SetupFor("store " + std::to_string(items), Layout{true, items, -1}));
}
BENCHMARK(BM_VerifyManifest_StoreList)
    ->ArgName("revoked")
    ->Arg(0)
    ->Arg(1000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_VerifyManifest_EmbeddedList(benchmark::State& state) {
  const int items = static_cast<int>(state.range(0));
  Run(state, SetupFor("embedded " + std::to_string(items), Layout{true, -1, items}));
}
BENCHMARK(BM_VerifyManifest_EmbeddedList)
    ->ArgName("revoked")
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  // Fixed allocator thresholds, so no case runs on a heap shaped by another.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  Setups().clear();
  return 0;
}
