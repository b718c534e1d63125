// Trace call cost, side by side with spdlog in one run.
//
//   Disabled: a TOLAN_TRACE call whose level is off, in a loop, against the
//   same loop without it and against spdlog's runtime-disabled debug() call.
//   Enabled:  whole trace lines written to a file and flushed, lines per
//   second, against spdlog's synchronous basic_file_sink with a comparable
//   prefix, flushed on every line.
//
// After the runs a summary prints nanoseconds per call and the ratios, and
// checks that each file holds exactly as many lines as were written. Use
// --benchmark_repetitions=N for stable figures (the summary then uses medians),
// with --benchmark_enable_random_interleaving=true on a busy machine. Figures
// are per CPU second of the benchmark thread (system time of write(2)
// included), which a shared machine disturbs less than wall time.
// TRACEFORMAT, if set, replaces our default prefix, to see what a field costs.
#include <benchmark/benchmark.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>

#include "Tolan/Debug.h"
#include "Tolan/DebugOutput.h"
#include "BenchReporter.h"

namespace {

// Calls per benchmark iteration in the disabled loops, so that the harness's
// own per-iteration cost is spread thin.
constexpr int kCallsPerIteration = 1000;

const std::string kText = "some task name";

struct Files {
  std::string dir;
  std::string tolan;
  std::string spdlog;
};
Files gFiles;

std::shared_ptr<Tolan::Platform::DebugHandler> gHandler;
std::shared_ptr<spdlog::logger> gDisabledLogger;
std::shared_ptr<spdlog::logger> gFileLogger;

// Lines each enabled benchmark has written, to check against the files.
long gTolanLines = 0;
long gSpdlogLines = 0;

// Level 9 is off on this handler, 5 is on.
constexpr unsigned kOffLevel = 9;
constexpr unsigned kOnLevel = 5;

void BM_Loop_Empty(benchmark::State& state) {
  Tolan::Platform::DebugHandler* h = gHandler.get();
  for (auto _ : state) {
    for (int i = 0; i < kCallsPerIteration; ++i) {
      // The same barrier as in the loops below: the handler may have changed.
      benchmark::DoNotOptimize(h);
      benchmark::DoNotOptimize(i);
    }
  }
  state.SetItemsProcessed(state.iterations() * kCallsPerIteration);
}

void BM_Disabled_Tolan(benchmark::State& state) {
  Tolan::Platform::DebugHandler* h = gHandler.get();
  if (h->enabled(kOffLevel)) state.SkipWithError("level 9 is enabled; unset TRACE");
  for (auto _ : state) {
    for (int i = 0; i < kCallsPerIteration; ++i) {
      // Hides the handler from the optimiser, so the mask is loaded through
      // levelsPtr on every call rather than tested once before the loop.
      benchmark::DoNotOptimize(h);
      benchmark::DoNotOptimize(i);
      TOLAN_TRACE(h, kOffLevel, "x {} {}", i, kText);
    }
  }
  state.SetItemsProcessed(state.iterations() * kCallsPerIteration);
}

void BM_Disabled_Spdlog(benchmark::State& state) {
  spdlog::logger* logger = gDisabledLogger.get();
  if (logger->should_log(spdlog::level::debug)) state.SkipWithError("spdlog debug level is enabled");
  for (auto _ : state) {
    for (int i = 0; i < kCallsPerIteration; ++i) {
      benchmark::DoNotOptimize(logger);
      benchmark::DoNotOptimize(i);
      logger->debug("x {} {}", i, kText);
    }
  }
  state.SetItemsProcessed(state.iterations() * kCallsPerIteration);
}

void BM_FileLine_Tolan(benchmark::State& state) {
  Tolan::Platform::DebugHandler* h = gHandler.get();
  if (!h->enabled(kOnLevel)) state.SkipWithError("level 5 is not enabled");
  int i = 0;
  for (auto _ : state) {
    TOLAN_TRACE(h, kOnLevel, "Running task {} for {} ms", kText, ++i);
  }
  gTolanLines += static_cast<long>(state.iterations());
  state.SetItemsProcessed(state.iterations());
}

void BM_FileLine_Spdlog(benchmark::State& state) {
  spdlog::logger* logger = gFileLogger.get();
  int i = 0;
  for (auto _ : state) {
    logger->info("Running task {} for {} ms", kText, ++i);
  }
  gSpdlogLines += static_cast<long>(state.iterations());
  state.SetItemsProcessed(state.iterations());
}

// Rules: n prefix rules of one family added one by one, a handler obtained
// for a name under each (matching), and the family cleared again. Reported
// as time per rule; flat from 10,000 to 100,000 rules when adding and
// matching are O(log n) each.
void BM_PrefixRules(benchmark::State& state) {
  const long n = state.range(0);
  int family = 0;
  for (auto _ : state) {
    const std::string base = "BenchRules" + std::to_string(++family) + "_";
    for (long i = 0; i < n; ++i) Tolan::Platform::setupTolanDebug((base + std::to_string(i) + "*/1").c_str());
    for (long i = 0; i < n; ++i) benchmark::DoNotOptimize(Tolan::Platform::getDebugHandler(base + std::to_string(i) + "x"));
    Tolan::Platform::clearTolanDebug((base + "*/*").c_str());
  }
  state.SetItemsProcessed(state.iterations() * n);
}

BENCHMARK(BM_Loop_Empty);
BENCHMARK(BM_Disabled_Tolan);
BENCHMARK(BM_Disabled_Spdlog);
BENCHMARK(BM_FileLine_Tolan);
BENCHMARK(BM_FileLine_Spdlog);
BENCHMARK(BM_PrefixRules)->Arg(10000)->Arg(30000)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

// Nanoseconds per item of a run (median with repetitions), or -1 when it did
// not run.
double nsPerItem(const TolanBench::KeepingReporter& r, const std::string& name) {
  const double items = r.counter(name, "items_per_second", 0.0);
  return items > 0 ? 1e9 / items : -1.0;
}

long countLines(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  long lines = 0;
  char buffer[1 << 16];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    for (std::streamsize k = 0; k < in.gcount(); ++k) lines += buffer[k] == '\n';
  }
  return lines;
}

void printFirstLine(const char* label, const std::string& path) {
  std::ifstream in(path);
  std::string line;
  if (std::getline(in, line)) std::printf("  %-7s line: %s\n", label, line.c_str());
}

// Prints the figures and ratios; returns false if a file lost or gained lines.
bool summarise(const TolanBench::KeepingReporter& r) {
  bool ok = true;
  std::printf("\nSummary\n");
  const double empty = nsPerItem(r, "BM_Loop_Empty");
  const double disabledTolan = nsPerItem(r, "BM_Disabled_Tolan");
  const double disabledSpd = nsPerItem(r, "BM_Disabled_Spdlog");
  if (empty >= 0 && disabledTolan >= 0 && disabledSpd >= 0) {
    std::printf("  disabled call, ns per loop iteration: empty loop %.3f, Tolan %.3f, spdlog %.3f\n", empty,
                disabledTolan, disabledSpd);
    std::printf("  disabled call, ns added to the loop:  Tolan %.3f, spdlog %.3f\n", disabledTolan - empty,
                disabledSpd - empty);
    std::printf("  disabled ratio Tolan/spdlog: %.3f per iteration, %.3f of added cost (goal <= 0.2, Tolan < 1 ns)\n",
                disabledTolan / disabledSpd,
                (disabledSpd - empty) > 0 ? (disabledTolan - empty) / (disabledSpd - empty) : 0.0);
  }
  const double fileTolan = nsPerItem(r, "BM_FileLine_Tolan");
  const double fileSpd = nsPerItem(r, "BM_FileLine_Spdlog");
  if (fileTolan >= 0 && fileSpd >= 0) {
    std::printf("  file lines per second: Tolan %.0f, spdlog %.0f\n", 1e9 / fileTolan, 1e9 / fileSpd);
    std::printf("  file rate ratio Tolan/spdlog: %.3f (goal >= 1.0)\n", fileSpd / fileTolan);
  }
  if (gTolanLines || gSpdlogLines) {
    gFileLogger->flush();
    const long tolanFile = countLines(gFiles.tolan);
    const long spdFile = countLines(gFiles.spdlog);
    std::printf("  lines in files: Tolan %ld of %ld written, spdlog %ld of %ld written\n", tolanFile, gTolanLines,
                spdFile, gSpdlogLines);
    printFirstLine("Tolan", gFiles.tolan);
    printFirstLine("spdlog", gFiles.spdlog);
    if (tolanFile != gTolanLines || spdFile != gSpdlogLines) {
      std::printf("  ERROR: a trace file does not hold the lines written\n");
      ok = false;
    }
  }
  const double rules10k = nsPerItem(r, "BM_PrefixRules/10000");
  const double rules100k = nsPerItem(r, "BM_PrefixRules/100000");
  if (rules10k > 0 && rules100k > 0) {
    std::printf("  prefix rules, us per rule (add + match + clear): 10k %.2f, 100k %.2f, ratio %.2f (flat: ~1)\n",
                rules10k / 1e3, rules100k / 1e3, rules100k / rules10k);
  }
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  char dirTemplate[] = "/tmp/tolan-tracebench-XXXXXX";
  if (!mkdtemp(dirTemplate)) {
    std::perror("mkdtemp");
    return 1;
  }
  gFiles.dir = dirTemplate;
  gFiles.tolan = gFiles.dir + "/tolan.trace";
  gFiles.spdlog = gFiles.dir + "/spdlog.trace";

  // Nothing has traced yet: point the trace output at our file, with the
  // default line layout "date,time,tid,handle,level" unless TRACEFORMAT
  // asks for another (to see what each field costs).
  setenv("TRACEFILE", gFiles.tolan.c_str(), 1);
  Tolan::Platform::setTraceFormat("date,time,tid,handle,level");
  Tolan::Platform::setTraceFormat(nullptr);
  Tolan::Platform::setupTolanDebug("TraceBench/5");
  gHandler = Tolan::Platform::getDebugHandler("TraceBench");

  gDisabledLogger = std::make_shared<spdlog::logger>("TraceBench", std::make_shared<spdlog::sinks::null_sink_mt>());
  gDisabledLogger->set_level(spdlog::level::info);

  // The same fields as our default prefix; "_mt" because our sink is shared
  // by all threads too.
  gFileLogger = std::make_shared<spdlog::logger>(
      "TraceBench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(gFiles.spdlog, true));
  gFileLogger->set_pattern("%Y-%m-%d %H:%M:%S.%f %t %n %l %v");
  gFileLogger->set_level(spdlog::level::trace);
  gFileLogger->flush_on(spdlog::level::trace);

  TolanBench::KeepingReporter reporter;
  if (!TolanBench::runBenchmarks(argc, argv, reporter)) return 1;
  const bool ok = summarise(reporter);
  benchmark::Shutdown();

  std::remove(gFiles.tolan.c_str());
  std::remove(gFiles.spdlog.c_str());
  rmdir(gFiles.dir.c_str());
  return ok ? 0 : 1;
}
