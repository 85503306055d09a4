// HashFile against `openssl dgst -sha256` on the same file: both read a
// 1 GiB file from the page cache and hash it with SHA-256, so their ratio
// shows what the read loop costs on top of the hash.
//
// Usage: hash_file_bench [benchmark flags]. The file is made in $TMPDIR (or
// /tmp) and deleted at the end; VELK2_BENCH_FILE_MIB sets its size in MiB.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "credentials/hash_value.h"
#include "platform/utf.h"

namespace {

std::string g_path;
uint64_t g_size = 0;
std::string g_hashfile_hex;
std::string g_openssl_hex;
// Seconds of each timed run, per contender; the best of them is reported.
std::vector<double> g_hashfile_seconds;
std::vector<double> g_openssl_seconds;

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
    const auto start = std::chrono::steady_clock::now();
    const velk2::Result result = velk2::HashFile(wide.c_str(), digest, &length, nullptr);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    if (result != VELK2_SUCCESS) {
      state.SkipWithError("HashFile failed");
      return;
    }
    g_hashfile_seconds.push_back(elapsed.count());
    g_hashfile_hex = velk2::HexString(digest, length);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_size));
}

void BM_OpensslDgst(benchmark::State& state) {
  const std::string command = "openssl dgst -sha256 -r '" + g_path + "'";
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
      state.SkipWithError("cannot run openssl");
      return;
    }
    char line[256] = {};
    const bool read = std::fgets(line, sizeof(line), pipe) != nullptr;
    const int status = pclose(pipe);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    if (!read || status != 0) {
      state.SkipWithError("openssl dgst failed");
      return;
    }
    state.SetIterationTime(elapsed.count());
    g_openssl_seconds.push_back(elapsed.count());
    g_openssl_hex = std::string(line, std::min<size_t>(64, std::char_traits<char>::length(line)));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_size));
}

double BestMegabytesPerSecond(const std::vector<double>& seconds) {
  if (seconds.empty()) return 0;
  return static_cast<double>(g_size) / 1e6 / *std::min_element(seconds.begin(), seconds.end());
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

  // One timed run is a whole pass over the file; the best of three counts.
  benchmark::RegisterBenchmark("HashFile", BM_HashFile)
      ->Iterations(1)
      ->Repetitions(3)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("OpensslDgstSha256", BM_OpensslDgst)
      ->Iterations(1)
      ->Repetitions(3)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::remove(g_path.c_str());

  const double ours = BestMegabytesPerSecond(g_hashfile_seconds);
  const double theirs = BestMegabytesPerSecond(g_openssl_seconds);
  std::printf("\nfile: %llu MiB\n", static_cast<unsigned long long>(mebibytes));
  std::printf("HashFile:               %9.1f MB/s (best of %zu)\n", ours,
              g_hashfile_seconds.size());
  std::printf("openssl dgst -sha256:   %9.1f MB/s (best of %zu)\n", theirs,
              g_openssl_seconds.size());
  if (ours > 0 && theirs > 0) std::printf("ratio HashFile/openssl: %9.3f\n", ours / theirs);
  if (!g_openssl_hex.empty() && g_openssl_hex != g_hashfile_hex) {
    std::fprintf(stderr, "digests differ: %s vs %s\n", g_hashfile_hex.c_str(),
                 g_openssl_hex.c_str());
    return 1;
  }
  return 0;
}
