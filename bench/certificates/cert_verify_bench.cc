// Velk2CertVerifyFile as a caller asks it: a chain of 10 certificates (each
// naming a revocation scope) against an ACL of 1,000 entry files, with a
// revocation list of 0 or 100,000 revoked certificates in the store. Each
// call reads the chain, checks 10 signatures, loads the ACL, reads and
// verifies the list, looks every certificate and subject key up in it and
// reduces the chain.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "credentials/date.h"
#include "platform/zcry.h"
#include "sexp/reader.h"
#include "sexp/source.h"
#include "tools/issuing/acl_entry.h"
#include "tools/issuing/issuer.h"
#include "tools/issuing/private_key.h"
#include "tools/issuing/revocation.h"
#include "velk2.h"

namespace {

using velk2::Ref;
using velk2::SexpList;
namespace issuing = velk2::issuing;

constexpr int kChain = 10;
constexpr int kAclEntries = 1000;

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

// A store with the ACL, the chain and (when |revoked| > 0) the list.
class Store {
 public:
  explicit Store(int revoked) {
    char pattern[] = "/tmp/velk2_bench_XXXXXX";
    dir_ = mkdtemp(pattern);
    std::filesystem::create_directories(dir_ + "/acl");
    std::filesystem::create_directories(dir_ + "/cert");
    for (int i = 0; i <= kChain; ++i) {
      issuing::PrivateKey key;
      Check(issuing::PrivateKey::Generate(issuing::KeyType::kRsa, 2048, &key), "key");
      keys_.push_back(std::move(key));
      Ref<SexpList> pub;
      Check(issuing::MakePublicKey(keys_.back(), &pub), "public key");
      public_.push_back(pub);
    }
    // The root grants the chain's tag and speaks for the list; the other
    // entries grant hash principals, as a device's ACL grants many keys.
    for (int i = 0; i < kAclEntries; ++i) {
      issuing::AclEntryRequest request;
      request.propagate = i == 0;
      request.tag = Tag(i == 1 ? "(revoke pkg)" : "(pkg install)");
      if (i < 2) {
        request.subject = public_[0];
      } else {
        char digest[33];
        std::snprintf(digest, sizeof digest, "%032d", i);
        request.subject = Parsed(std::string("(4:hash6:sha25632:") + digest + ")");
      }
      Ref<SexpList> entry;
      Check(issuing::MakeAclEntry(request, &entry), "entry");
      char name[32];
      std::snprintf(name, sizeof name, "/acl/%04d.acl", i);
      Check(issuing::WriteAclEntry(dir_ + name, *entry, true), "write entry");
    }
    for (int i = 0; i < kChain; ++i) {
      issuing::CertificateRequest request;
      request.issuer = public_[i];
      request.subject = public_[i + 1];
      request.propagate = true;
      request.tag = Tag("(pkg install)");
      Ref<SexpList> body, signature;
      Check(issuing::MakeCertificateBody(request, &body), "certificate");
      Check(body->Append(Parsed("(10:revocation(6:revoke3:pkg))")), "scope");
      Check(issuing::SignObject(keys_[i], *body, issuing::kRsaPss, ZCRY_HASH_SHA256, &signature),
            "sign");
      Check(issuing::AppendCertificate(dir_ + "/chain.cert", body, signature, "bench"), "append");
    }
    WriteList(revoked);
  }
  ~Store() { std::filesystem::remove_all(dir_); }

  std::string chain() const { return dir_ + "/chain.cert"; }
  const std::string& dir() const { return dir_; }

 private:
  void WriteList(int revoked) {
    issuing::RevocationListRequest request;
    request.scope = Tag("(revoke pkg)");
    request.not_before = 0;
    request.not_after = 4102444800;  // 2100
    for (int i = 0; i < revoked; ++i) {
      Ref<velk2::SexpAtom> thing = velk2::SexpAtom::New();
      const std::string name = "revoked " + std::to_string(i);
      Check(thing->SetAtomValue(name.data(), static_cast<uint32_t>(name.size())), "thing");
      request.certificates.push_back({thing, 1767225600});  // 2026
    }
    std::string file;
    Check(issuing::MakeRevocationList(keys_[0], request, &file), "list");
    Write(dir_ + "/cert/(revoke pkg).crl", file);
  }

  std::string dir_;
  std::vector<issuing::PrivateKey> keys_;
  std::vector<Ref<SexpList>> public_;
};

void BM_CertVerifyFile(benchmark::State& state) {
  const Store store(static_cast<int>(state.range(0)));
  Velk2GlobalDirectoryA(store.dir().c_str());
  const int64_t now = velk2::CurrentTime();
  for (auto _ : state) {
    const VELK2_RESULT result =
        Velk2CertVerifyFileA(store.chain().c_str(), "(pkg install)", now, now);
    if (result != VELK2_SUCCESS) {
      state.SkipWithError(("verification failed: " + std::to_string(result)).c_str());
      break;
    }
  }
  Velk2GlobalDirectoryA("");
}
BENCHMARK(BM_CertVerifyFile)
    ->ArgName("revoked")
    ->Arg(0)
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
  return 0;
}
