// Throughput of Util::hash / Util::hash64 next to byte-wise FNV-1a of the
// same width, XXH32/XXH64/XXH3 and std::hash<std::string_view>, on 16 B,
// 64 B and 4 KiB inputs. After the usual table it prints, per size, how many
// times faster ours is than each peer (peer CPU time / ours).
#include <benchmark/benchmark.h>
#include <xxhash.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Tolan/HashMix.h"
#include "BenchReporter.h"

namespace {

// Out of line like every peer here (all are calls into a library), so that
// the comparison is of the loops, not of inlining.
__attribute__((noinline)) uint32_t fnv1a32(const void* data, size_t len) {
  const auto* p = static_cast<const unsigned char*>(data);
  uint32_t h = 0x811c9dc5u;
  for (size_t i = 0; i < len; ++i) h = (h ^ p[i]) * 16777619u;
  return h;
}

__attribute__((noinline)) uint64_t fnv1a64(const void* data, size_t len) {
  const auto* p = static_cast<const unsigned char*>(data);
  uint64_t h = 0xcbf29ce484222325ull;
  for (size_t i = 0; i < len; ++i) h = (h ^ p[i]) * 0x100000001b3ull;
  return h;
}

const std::vector<char>& input() {
  static const std::vector<char> buffer = [] {
    std::vector<char> b(4096 + 64);
    uint32_t x = 12345;
    for (char& c : b) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    return b;
  }();
  return buffer;
}

template <typename Fn>
void run(benchmark::State& state, Fn fn) {
  const size_t len = static_cast<size_t>(state.range(0));
  const char* data = input().data();
  for (auto _ : state) {
    const char* p = data;
    benchmark::DoNotOptimize(p);  // the input is opaque: nothing may be hoisted
    benchmark::DoNotOptimize(fn(p, len));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(len));
}

void BM_TolanHash32(benchmark::State& s) { run(s, [](const char* p, size_t n) { return Tolan::Util::hash(p, n); }); }
void BM_TolanHash64(benchmark::State& s) { run(s, [](const char* p, size_t n) { return Tolan::Util::hash64(p, n); }); }
void BM_Fnv1a32(benchmark::State& s) { run(s, [](const char* p, size_t n) { return fnv1a32(p, n); }); }
void BM_Fnv1a64(benchmark::State& s) { run(s, [](const char* p, size_t n) { return fnv1a64(p, n); }); }
void BM_XXH32(benchmark::State& s) { run(s, [](const char* p, size_t n) { return XXH32(p, n, 0); }); }
void BM_XXH64(benchmark::State& s) { run(s, [](const char* p, size_t n) { return XXH64(p, n, 0); }); }
void BM_XXH3(benchmark::State& s) { run(s, [](const char* p, size_t n) { return XXH3_64bits(p, n); }); }
void BM_StdHash(benchmark::State& s) {
  run(s, [](const char* p, size_t n) { return std::hash<std::string_view>()(std::string_view(p, n)); });
}

#define HASH_SIZES ->Arg(16)->Arg(64)->Arg(4096)
BENCHMARK(BM_TolanHash32) HASH_SIZES;
BENCHMARK(BM_TolanHash64) HASH_SIZES;
BENCHMARK(BM_Fnv1a32) HASH_SIZES;
BENCHMARK(BM_Fnv1a64) HASH_SIZES;
BENCHMARK(BM_XXH32) HASH_SIZES;
BENCHMARK(BM_XXH64) HASH_SIZES;
BENCHMARK(BM_XXH3) HASH_SIZES;
BENCHMARK(BM_StdHash) HASH_SIZES;

}  // namespace

int main(int argc, char** argv) {
  // CPU rather than wall time: the machines we share are often busy.
  TolanBench::KeepingReporter reporter;
  if (!TolanBench::runBenchmarks(argc, argv, reporter)) return 1;
  benchmark::Shutdown();

  const struct {
    const char* ours;
    const char* peers[4];
  } rows[] = {{"BM_TolanHash32", {"BM_Fnv1a32", "BM_StdHash", "BM_XXH32", "BM_XXH3"}},
              {"BM_TolanHash64", {"BM_Fnv1a64", "BM_StdHash", "BM_XXH64", "BM_XXH3"}}};
  std::printf("\nSpeed-up of ours over each peer (peer CPU time / ours; > 1 means ours is faster):\n");
  for (const auto& row : rows) {
    for (const char* size : {"16", "64", "4096"}) {
      const double ours = reporter.cpuNs(std::string(row.ours) + "/" + size);
      if (ours <= 0) continue;
      std::printf("  %-15s %5s B:", row.ours + 3, size);
      for (const char* peer : row.peers) {
        const double theirs = reporter.cpuNs(std::string(peer) + "/" + size);
        if (theirs > 0) std::printf("  %s %.2fx", peer + 3, theirs / ours);
      }
      std::printf("\n");
    }
  }
  return 0;
}
