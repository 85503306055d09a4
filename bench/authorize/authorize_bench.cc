// An authorization query for certificate chains of 1, 10 and 100 links
// against ACLs of 1, 100, 1000 and 10000 entries: the engine's part alone
// (ReduceCanonical: parse, reduce, print), and the whole AuthorizeKey on the
// library's objects (each written as canonical text for the engine, the
// first result entry's tag read back and compared). Only one ACL entry
// starts the chain; the others grant other keys, as a device's ACL does.
//
// Each case runs on the same allocator policy whatever ran before it: glibc
// raises its mmap threshold when a large block is freed and trims the heap
// as it shrinks, so without fixed thresholds a case ran on a heap shaped by
// the cases before it (the 1000-entry cases took up to twice as long after
// the small ones as alone).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <string>
#include <string_view>

#include "trust/authorize.h"
#include "engine/query.h"
#include "sexp/reader.h"
#include "sexp/source.h"

namespace {

std::string Atom(std::string_view bytes) {
  return std::to_string(bytes.size()) + ":" + std::string(bytes);
}

// A fake RSA key: the engine digests keys, it never checks a signature.
std::string Key(const std::string& name) {
  return "(10:public-key(3:rsa(1:e1:\x03)(1:n" + Atom("modulus-of-" + name) + ")))";
}

const std::string kTag = "(3:tag(7:install(1:*3:set8:packages7:updates)))";
const std::string kValid =
    "(5:valid(10:not-before19:2004-01-01_00:00:00)(9:not-after19:2030-12-31_23:59:59))";

std::string Acl(int entries) {
  std::string acl = "(3:acl";
  for (int i = 0; i < entries; ++i) {
    std::string subject = i == 0 ? Key("C0") : Key("other" + std::to_string(i));
    acl += "(5:entry(7:subject" + subject + ")(9:propagate)" + kTag + kValid + ")";
  }
  return acl + ")";
}

// C0 -> C1 -> ... -> Cn, each certificate followed by its signature.
std::string Chain(int links) {
  std::string sequence = "(8:sequence";
  for (int i = 0; i < links; ++i) {
    std::string issuer = Key(std::string("C").append(std::to_string(i)));
    std::string subject = Key(std::string("C").append(std::to_string(i + 1)));
    sequence += "(4:cert(7:version1:1)(6:issuer" + issuer + ")(7:subject" + subject +
                ")(9:propagate)" + kTag + kValid + ")";
    sequence += "(9:signature(4:hash6:sha25632:01234567890123456789012345678901)" + issuer +
                "(3:rsa256:" + std::string(256, 's') + "))";
  }
  return sequence + ")";
}

void BM_ReduceCanonical(benchmark::State& state) {
  const int links = static_cast<int>(state.range(0));
  const int entries = static_cast<int>(state.range(1));
  const std::string acl = Acl(entries);
  const std::string sequence = Chain(links);
  const std::string key = Key(std::string("C").append(std::to_string(links)));
  const std::string tag = "(3:tag(7:install8:packages))";
  const std::string_view tag_view = tag;
  std::string result;
  for (auto _ : state) {
    int32_t status =
        velk2::engine::ReduceCanonical(0, acl, sequence, key, &tag_view, nullptr, &result);
    if (status != 0 || result == "(3:acl)") {
      state.SkipWithError("the chain did not reach the key");
      break;
    }
    benchmark::DoNotOptimize(result.data());
  }
  state.counters["input_bytes"] = static_cast<double>(acl.size() + sequence.size());
}
BENCHMARK(BM_ReduceCanonical)
    ->ArgNames({"links", "acl"})
    ->ArgsProduct({{1, 10, 100}, {1, 100, 1000, 10000}})
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);

velk2::Ref<velk2::SexpList> Parsed(const std::string& text) {
  velk2::SexpMemorySource source;
  velk2::Ref<velk2::SexpList> list;
  if (source.AttachCopy(text.data(), text.size()) != VELK2_SUCCESS ||
      velk2::ParseCanonicalList(&list, &source, nullptr) != VELK2_SUCCESS) {
    return nullptr;
  }
  return list;
}

void BM_AuthorizeKey(benchmark::State& state) {
  const int links = static_cast<int>(state.range(0));
  const int entries = static_cast<int>(state.range(1));
  const auto acl = Parsed(Acl(entries));
  const auto sequence = Parsed(Chain(links));
  const auto key = Parsed(Key(std::string("C").append(std::to_string(links))));
  const auto tag = Parsed("(3:tag(7:install8:packages))");
  if (!acl || !sequence || !key || !tag) {
    state.SkipWithError("the inputs did not parse");
    return;
  }
  for (auto _ : state) {
    const velk2::Result result =
        velk2::AuthorizeKey(nullptr, acl.get(), sequence.get(), key.get(), tag.get(), nullptr);
    if (result != VELK2_SUCCESS) {
      state.SkipWithError(("not authorized: " + std::to_string(result)).c_str());
      break;
    }
  }
}
BENCHMARK(BM_AuthorizeKey)
    ->ArgNames({"links", "acl"})
    ->ArgsProduct({{1, 100}, {1000, 10000}})
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  // Fixed thresholds: no block is mapped or trimmed because of an earlier case.
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  mallopt(M_TRIM_THRESHOLD, 128 << 20);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
