// Reader and writer throughput on a certificate-like file of just under 1 MiB
// (the largest file the source loads): a sequence of certificates with RSA
// keys, hash subjects, tags, validity dates and signatures.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/utf.h"
#include "sexp/object.h"
#include "sexp/reader.h"
#include "sexp/source.h"

namespace velk2 {
namespace {

std::string Atom(const std::string& bytes) {
  return std::to_string(bytes.size()) + ":" + bytes;
}

std::string Bytes(size_t count, unsigned seed) {
  std::string bytes(count, '\0');
  for (size_t i = 0; i < count; ++i) {
    seed = seed * 1103515245u + 12345u;
    bytes[i] = static_cast<char>(seed >> 16);
  }
  return bytes;
}

std::string PublicKey(unsigned seed) {
  return "(10:public-key(3:rsa(1:e" + Atom(std::string("\x01\x00\x01", 3)) + ")(1:n" +
         Atom(Bytes(257, seed)) + ")))";
}

std::string Certificate(unsigned seed) {
  return "(4:cert(7:version1:1)(6:issuer" + PublicKey(seed) + ")(7:subject(4:hash6:sha256" +
         Atom(Bytes(32, seed + 1)) +
         "))(9:propagate)(3:tag(3:pkg(1:*6:prefix12:com.example.)(7:install(1:*3:set2:rw2:ro))))"
         "(5:valid(10:not-before19:2006-03-01_12:00:00)(9:not-after19:2030-12-31_23:59:59))"
         "(7:comment[utf-8]" +
         Atom("certificate number " + std::to_string(seed)) + "))(9:signature(4:hash6:sha256" +
         Atom(Bytes(32, seed + 2)) + ")" + PublicKey(seed) + "(7:rsa-pss[bin]" +
         Atom(Bytes(256, seed + 3)) + "))";
}

// The sequence of as many certificates as fit into kMaxSourceFileSize bytes.
const std::string& CertificateFile() {
  static const std::string file = [] {
    std::string text = "(8:sequence";
    for (unsigned seed = 1;; ++seed) {
      std::string next = Certificate(seed);
      if (text.size() + next.size() + 1 > kMaxSourceFileSize) break;
      text += next;
    }
    return text + ")";
  }();
  return file;
}

// The file in a source made once; each run reads it again from the start.
// (A source made and freed around each run put a megabyte block through the
// allocator between runs, and the merge of the tree's freed blocks that it
// set off fell outside the clock.)
std::unique_ptr<SexpMemorySource> FileSource(benchmark::State& state) {
  const std::string& file = CertificateFile();
  auto source = std::make_unique<SexpMemorySource>();
  if (source->AttachCopy(file.data(), file.size()) != VELK2_SUCCESS) state.SkipWithError("attach");
  return source;
}

Ref<SexpList> ParseFromStart(benchmark::State& state, SexpMemorySource& source) {
  Ref<SexpList> list;
  if (source.Seek(0, kSeekSet) != 0 ||
      ParseCanonicalList(&list, &source, nullptr) != VELK2_SUCCESS) {
    state.SkipWithError("parse");
  }
  return list;
}

void CountFileBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(CertificateFile().size()));
}

// Parsing each run, the tree's release inside the clock or not.
void ParseEachRun(benchmark::State& state, bool time_release) {
  auto source = FileSource(state);
  for (auto _ : state) {
    Ref<SexpList> list = ParseFromStart(state, *source);
    benchmark::DoNotOptimize(list.get());
    if (!time_release) state.PauseTiming();
    list.reset();
    if (!time_release) state.ResumeTiming();
  }
  CountFileBytes(state);
}

// Parsing alone; the tree is released with the clock stopped.
void BM_ParseCanonical(benchmark::State& state) {
  ParseEachRun(state, false);
}
BENCHMARK(BM_ParseCanonical)->Unit(benchmark::kMillisecond);

// Releasing a parsed tree alone; bytes are those of the file it was read from.
void BM_ReleaseTree(benchmark::State& state) {
  auto source = FileSource(state);
  for (auto _ : state) {
    state.PauseTiming();
    Ref<SexpList> list = ParseFromStart(state, *source);
    state.ResumeTiming();
    list.reset();
  }
  CountFileBytes(state);
}
BENCHMARK(BM_ReleaseTree)->Unit(benchmark::kMillisecond);

// Parse and release together: whatever work the allocator puts off from one
// to the other is inside the clock.
void BM_ParseAndRelease(benchmark::State& state) {
  ParseEachRun(state, true);
}
BENCHMARK(BM_ParseAndRelease)->Unit(benchmark::kMillisecond);

// What a reader of a credential file pays: load, parse and release.
void BM_LoadFileParseAndRelease(benchmark::State& state) {
  const std::string& file = CertificateFile();
  const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("velk2_bench_sexp_" + std::to_string(::getpid()));
  {
    std::FILE* out = std::fopen(path.c_str(), "wb");
    std::fwrite(file.data(), 1, file.size(), out);
    std::fclose(out);
  }
  const std::u16string wide = Utf8ToUtf16(path.string());
  for (auto _ : state) {
    SexpMemorySource source;
    if (source.LoadFile(wide.c_str()) != VELK2_SUCCESS) state.SkipWithError("load");
    Ref<SexpList> list;
    if (ParseCanonicalList(&list, &source, nullptr) != VELK2_SUCCESS) state.SkipWithError("parse");
    benchmark::DoNotOptimize(list.get());
  }
  std::filesystem::remove(path);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(file.size()));
}
BENCHMARK(BM_LoadFileParseAndRelease)->Unit(benchmark::kMillisecond);

Ref<SexpList> ParsedFile() {
  const std::string& file = CertificateFile();
  SexpMemorySource source;
  (void)source.AttachCopy(file.data(), file.size());
  Ref<SexpList> list;
  (void)ParseCanonicalList(&list, &source, nullptr);
  return list;
}

void BM_WriteCanonicalBuffer(benchmark::State& state) {
  Ref<SexpList> list = ParsedFile();
  for (auto _ : state) {
    CBuffer<uint8_t> buffer;
    uint32_t size = 0;
    if (ToCanonicalBuffer(list.get(), &buffer, &size) != VELK2_SUCCESS)
      state.SkipWithError("write");
    benchmark::DoNotOptimize(buffer.get());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(list->CanonicalLength()));
}
BENCHMARK(BM_WriteCanonicalBuffer)->Unit(benchmark::kMillisecond);

void BM_HashStoredForm(benchmark::State& state) {
  Ref<SexpList> list = ParsedFile();
  for (auto _ : state) {
    CBuffer<uint8_t> digest;
    uint32_t size = 0;
    if (ComputeHash(list.get(), &digest, &size, 2, false) != VELK2_SUCCESS) {
      state.SkipWithError("hash");
    }
    benchmark::DoNotOptimize(digest.get());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(CertificateFile().size()));
}
BENCHMARK(BM_HashStoredForm)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace velk2

BENCHMARK_MAIN();
