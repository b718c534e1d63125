// The reporter every benchmark here runs with: Google Benchmark's console
// table as usual, and each run kept by name for the summary of ratios and
// goals that the benchmark prints at the end; and the helpers the benchmarks
// share (heap in use, random delays).
#pragma once

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdint>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <vector>

namespace TolanBench {

class KeepingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    static const std::regex iterations("/iterations:[0-9]+");
    for (const Run& run : runs)
      if (!run.error_occurred) runs_[std::regex_replace(run.benchmark_name(), iterations, "")] = run;
  }

  // The run that stands for benchmark `name`, spelt as benchmark_name() does
  // but without any "/iterations:N" ("BM_Hash/64"): its `aggregate`
  // ("median", "min", ...) when repetitions made one, else the run itself
  // (the last, with repetitions). Null when it did not run.
  const Run* find(const std::string& name, const std::string& aggregate = "median") const {
    auto it = runs_.find(name + "_" + aggregate);
    if (it == runs_.end()) it = runs_.find(name);
    return it == runs_.end() ? nullptr : &it->second;
  }

  // CPU nanoseconds per iteration of find(name, aggregate), or -1.
  double cpuNs(const std::string& name, const std::string& aggregate = "median") const {
    const Run* run = find(name, aggregate);
    return run ? run->GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run->time_unit) * 1e9 : -1.0;
  }

  // Counter `key` of find(name), or `otherwise` when it has none.
  double counter(const std::string& name, const std::string& key, double otherwise = -1.0) const {
    const Run* run = find(name);
    if (!run) return otherwise;
    const auto it = run->counters.find(key);
    return it == run->counters.end() ? otherwise : static_cast<double>(it->second);
  }

 private:
  std::map<std::string, Run> runs_;
};

// Parses the benchmark flags and runs the selected benchmarks into
// `reporter`; false (after saying so) when a flag is unknown.
inline bool runBenchmarks(int& argc, char** argv, KeepingReporter& reporter) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return false;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return true;
}

// Bytes of heap in use (small and mmap()ed blocks), for memory-per-item figures.
inline size_t heapInUse() { return mallinfo2().uordblks + mallinfo2().hblkhd; }

// `n` delays drawn evenly from [0, max), the same for the same seed.
inline std::vector<double> randomDelays(size_t n, double max, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> d(0.0, max);
  std::vector<double> v(n);
  for (auto& x : v) x = d(rng);
  return v;
}

}  // namespace TolanBench
