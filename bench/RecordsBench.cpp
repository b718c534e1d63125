// Hot paths of the scheduler's records: recording one history event for a
// name that is already interned, and copying an interned name reference.
// Both must not touch the heap; this binary replaces the global operator
// new/delete with counting versions and reports allocations per operation.
// A plain std::string copy of the same name runs alongside as a baseline.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <string>

#include "Tolan/ConstStringCache.h"
#include "Tolan/TaskSchedulerHistory.h"

namespace {
std::atomic<uint64_t> gAllocations{0};
}  // namespace

// GCC cannot see that these deletes pair with the news above them.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size ? size : 1);
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace {

using namespace Tolan;

// Longer than the small-string buffer, like most real task names.
const char* const kTaskName = "ConnectionReaderTask;eth0";

void reportAllocations(benchmark::State& state, uint64_t before) {
  const uint64_t allocations = gAllocations.load(std::memory_order_relaxed) - before;
  state.counters["allocs/op"] =
      benchmark::Counter(static_cast<double>(allocations) / static_cast<double>(state.iterations()));
}

void BM_HistoryRecordEvent(benchmark::State& state) {
  TaskSchedulerHistory history(100);
  const ConstStringRef name = history.stringCache().intern(kTaskName);
  TaskTimePoint when = std::chrono::steady_clock::now();
  // Fill it first: the steady state overwrites (and releases) the oldest event.
  for (int i = 0; i < 200; ++i) history.insertTaskEvent(when, TaskSchedulerEventType::runStart, name);
  const uint64_t before = gAllocations.load(std::memory_order_relaxed);
  for (auto _ : state) {
    when += std::chrono::nanoseconds(100);
    history.insertTaskEvent(when, TaskSchedulerEventType::runStart, name);
    benchmark::ClobberMemory();
  }
  reportAllocations(state, before);
}
BENCHMARK(BM_HistoryRecordEvent);

void BM_ConstStringRefCopy(benchmark::State& state) {
  ConstStringCache cache;
  const ConstStringRef name = cache.intern(kTaskName);
  const uint64_t before = gAllocations.load(std::memory_order_relaxed);
  for (auto _ : state) {
    ConstStringRef copy(name);
    benchmark::DoNotOptimize(copy);
  }
  reportAllocations(state, before);
}
BENCHMARK(BM_ConstStringRefCopy);

void BM_StdStringCopy(benchmark::State& state) {
  const std::string name = kTaskName;
  const uint64_t before = gAllocations.load(std::memory_order_relaxed);
  for (auto _ : state) {
    std::string copy(name);
    benchmark::DoNotOptimize(copy);
  }
  reportAllocations(state, before);
}
BENCHMARK(BM_StdStringCopy);

// Prints the usual table, then a verdict against the goals.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      // With repetitions the median (reported after the single runs) wins.
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type != Run::RT_Iteration && !median) continue;
      auto allocs = run.counters.find("allocs/op");
      results_[run.run_name.function_name] = {run.GetAdjustedCPUTime(),
                                              allocs == run.counters.end() ? -1.0 : double(allocs->second)};
    }
  }
  int summarize() const {
    auto get = [&](const char* name) {
      auto found = results_.find(name);
      return found == results_.end() ? Result{-1, -1} : found->second;
    };
    const Result record = get("BM_HistoryRecordEvent");
    const Result refCopy = get("BM_ConstStringRefCopy");
    const Result strCopy = get("BM_StdStringCopy");
    if (record.ns < 0 || refCopy.ns < 0) return 0;  // filtered out: nothing to judge
    const bool ok = record.ns < 10.0 && record.allocs == 0 && refCopy.allocs == 0;
    std::printf("\nSummary (CPU time per operation):\n");
    std::printf("  history event recorded: %.2f ns/op, %.3f allocations/op (goal: < 10 ns, 0)\n", record.ns,
                record.allocs);
    std::printf("  ConstStringRef copied:  %.2f ns/op, %.3f allocations/op (goal: 0)\n", refCopy.ns,
                refCopy.allocs);
    if (strCopy.ns > 0)
      std::printf("  std::string copied:     %.2f ns/op, %.3f allocations/op (ConstStringRef is %.1fx faster)\n",
                  strCopy.ns, strCopy.allocs, strCopy.ns / refCopy.ns);
    std::printf("  goals %s\n", ok ? "met" : "NOT MET");
    return ok ? 0 : 1;
  }

 private:
  struct Result {
    double ns;
    double allocs;
  };
  std::map<std::string, Result> results_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return reporter.summarize();
}
