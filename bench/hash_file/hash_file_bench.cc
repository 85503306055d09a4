// HashFile's throughput inside one warm process: a 1 GiB file read from the
// page cache and hashed with SHA-256. Comparing it with another program means
// comparing whole processes: bench/whole/compare_hash.sh does that.
//
// Usage: hash_file_bench [benchmark flags]. The file is made in $TMPDIR (or
// /tmp) and deleted at the end; VELK2_BENCH_FILE_MIB sets its size in MiB.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "credentials/hash_value.h"

namespace {

std::string g_path;
uint64_t g_size = 0;

bool MakeFile(const std::string& path, uint64_t size) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return false;
  std::vector<uint8_t> block(1 << 20);
  std::mt19937_64 random(2024);
  bool ok = true;
  for (uint64_t written = 0; ok && written < size; written += block.size()) {
    for (size_t i = 0; i < block.size(); i += 8) {
      const uint64_t value = random();
      std::copy_n(reinterpret_cast<const uint8_t*>(&value), 8, block.data() + i);
    }
    const size_t count = static_cast<size_t>(std::min<uint64_t>(block.size(), size - written));
    ok = std::fwrite(block.data(), 1, count, file) == count;
  }
  return std::fclose(file) == 0 && ok;
}

void BM_HashFile(benchmark::State& state) {
  const std::u16string wide(g_path.begin(), g_path.end());
  for (auto _ : state) {
    uint8_t digest[32];
    uint32_t length = 0;
    if (velk2::HashFile(wide.c_str(), digest, &length, nullptr) != VELK2_SUCCESS) {
      state.SkipWithError("HashFile failed");
      return;
    }
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_size));
}

}  // namespace

int main(int argc, char** argv) {
  const char* directory = std::getenv("TMPDIR");
  if (directory == nullptr || *directory == '\0') directory = "/tmp";
  uint64_t mebibytes = 1024;
  if (const char* text = std::getenv("VELK2_BENCH_FILE_MIB")) {
    mebibytes = std::max<uint64_t>(1, std::strtoull(text, nullptr, 10));
  }
  g_size = mebibytes << 20;
  g_path = std::string(directory) + "/velk2_hash_file_bench_" + std::to_string(getpid()) + ".bin";
  if (!MakeFile(g_path, g_size)) {
    std::fprintf(stderr, "cannot create %s\n", g_path.c_str());
    std::remove(g_path.c_str());
    return 1;
  }

  // One timed run is a whole pass over the file; Google Benchmark reports the
  // median and spread of the repetitions.
  benchmark::RegisterBenchmark("HashFile", BM_HashFile)
      ->Iterations(1)
      ->Repetitions(5)
      ->ReportAggregatesOnly(true)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::remove(g_path.c_str());
  return 0;
}
