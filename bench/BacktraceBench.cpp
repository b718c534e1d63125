// Stack capture and exception cost, side by side with their peers.
//
// Capture: Tolan::Backtrace(true) against libunwind's unw_backtrace (its
// fastest capture), glibc's backtrace() and a plain libunwind cursor walk
// (unw_init_local / unw_step / unw_get_reg), all on the same stack, 20 frames
// deep at the point of capture. Exceptions: constructing, and throwing and
// catching, a Tolan::RuntimeException against a std::runtime_error at the
// same depth. A summary with the ratios is printed at the end.
//
// The peers are looked up in their own objects with dlsym rather than linked:
// libunwind's shared object exports a backtrace() (and the _Unwind_*
// functions) too, and linked into this executable it could stand in for the
// glibc backtrace() measured here.

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "Tolan/Backtrace.h"
#include "Tolan/Exception.h"
#include "BenchReporter.h"

namespace {

constexpr int kStackFrames = 20;
constexpr int kBufferFrames = 128;

template <typename F>
F lookup(void* handle, const char* name) {
  void* symbol = dlsym(handle, name);
  if (!symbol) {
    std::fprintf(stderr, "symbol %s not found: %s\n", name, dlerror());
    std::abort();
  }
  return reinterpret_cast<F>(symbol);
}

struct Peers {
  int (*unwBacktrace)(void**, int);
  int (*glibcBacktrace)(void**, int);
  decltype(&unw_tdep_getcontext) getContext;
  decltype(&unw_init_local) initLocal;
  decltype(&unw_step) step;
  decltype(&unw_get_reg) getReg;
};

const Peers& peers() {
  static const Peers p = [] {
    // libTolan has loaded libunwind already.
    void* unwind = dlopen("libunwind.so.8", RTLD_LAZY | RTLD_NOLOAD);
    void* libc = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
    if (!unwind || !libc) std::abort();
    Peers r;
    r.unwBacktrace = lookup<int (*)(void**, int)>(unwind, "unw_backtrace");
    r.glibcBacktrace = lookup<int (*)(void**, int)>(libc, "backtrace");
    r.getContext = lookup<decltype(&unw_tdep_getcontext)>(unwind, "_Ux86_64_getcontext");
    r.initLocal = lookup<decltype(&unw_init_local)>(unwind, "_ULx86_64_init_local");
    r.step = lookup<decltype(&unw_step)>(unwind, "_ULx86_64_step");
    r.getReg = lookup<decltype(&unw_get_reg)>(unwind, "_ULx86_64_get_reg");
    return r;
  }();
  return p;
}

// Calls `body` `depth` frames below the caller.
template <typename Body>
__attribute__((noinline)) void descend(int depth, Body& body) {
  if (depth > 0) {
    descend(depth - 1, body);
    asm volatile("" ::: "memory");  // a real frame per level, no tail call
    return;
  }
  body();
  asm volatile("" ::: "memory");
}

// How many levels to add below the current frame so that a capture made in
// the innermost one sees kStackFrames frames.
int levelsFor20Frames() {
  void* buffer[kBufferFrames];
  int here = 0;
  auto probe = [&] { here = peers().unwBacktrace(buffer, kBufferFrames); };
  descend(0, probe);
  return kStackFrames - here;
}

// Runs the benchmark loop 20 frames deep; `capture` returns the frames it saw.
template <typename Capture>
void runAtDepth(benchmark::State& state, Capture capture) {
  int frames = 0;
  auto loop = [&] {
    for (auto _ : state) frames = capture();
  };
  descend(levelsFor20Frames(), loop);
  state.counters["frames"] = frames;
}

void Capture_Tolan(benchmark::State& state) {
  runAtDepth(state, [] {
    Tolan::Backtrace bt(true);
    benchmark::DoNotOptimize(bt);
    return static_cast<int>(bt.frameCount());
  });
}

void Capture_unw_backtrace(benchmark::State& state) {
  runAtDepth(state, [] {
    void* buffer[Tolan::Backtrace::kMaxFrames];
    const int n = peers().unwBacktrace(buffer, Tolan::Backtrace::kMaxFrames);
    benchmark::DoNotOptimize(buffer);
    return n;
  });
}

void Capture_glibc_backtrace(benchmark::State& state) {
  runAtDepth(state, [] {
    void* buffer[Tolan::Backtrace::kMaxFrames];
    const int n = peers().glibcBacktrace(buffer, Tolan::Backtrace::kMaxFrames);
    benchmark::DoNotOptimize(buffer);
    return n;
  });
}

void Capture_unw_step_walk(benchmark::State& state) {
  runAtDepth(state, [] {
    const Peers& p = peers();
    void* buffer[Tolan::Backtrace::kMaxFrames];
    int n = 0;
    unw_context_t context;
    unw_cursor_t cursor;
    if (p.getContext(&context) == 0 && p.initLocal(&cursor, &context) == 0) {
      unw_word_t ip;
      while (n < static_cast<int>(Tolan::Backtrace::kMaxFrames) && p.step(&cursor) > 0 &&
             p.getReg(&cursor, UNW_REG_IP, &ip) == 0)
        buffer[n++] = reinterpret_cast<void*>(ip);
    }
    benchmark::DoNotOptimize(buffer);
    return n;
  });
}

void Construct_TolanRuntimeException(benchmark::State& state) {
  runAtDepth(state, [] {
    Tolan::RuntimeException e("connection refused by peer");
    benchmark::DoNotOptimize(e);
    return static_cast<int>(e.backtrace().frameCount());
  });
}

void Construct_StdRuntimeError(benchmark::State& state) {
  runAtDepth(state, [] {
    std::runtime_error e("connection refused by peer");
    benchmark::DoNotOptimize(e);
    return 0;
  });
}

void ThrowCatch_TolanRuntimeException(benchmark::State& state) {
  runAtDepth(state, [] {
    try {
      Tolan::RuntimeException::throwException("connection refused by peer");
    } catch (const Tolan::Exception& e) {
      benchmark::DoNotOptimize(&e);
      return static_cast<int>(e.backtrace().frameCount());
    }
    return 0;
  });
}

__attribute__((noinline)) void throwStd(const char* text) { throw std::runtime_error(text); }

void ThrowCatch_StdRuntimeError(benchmark::State& state) {
  runAtDepth(state, [] {
    try {
      throwStd("connection refused by peer");
    } catch (const std::exception& e) {
      benchmark::DoNotOptimize(&e);
    }
    return 0;
  });
}

BENCHMARK(Capture_Tolan);
BENCHMARK(Capture_unw_backtrace);
BENCHMARK(Capture_glibc_backtrace);
BENCHMARK(Capture_unw_step_walk);
BENCHMARK(Construct_TolanRuntimeException);
BENCHMARK(Construct_StdRuntimeError);
BENCHMARK(ThrowCatch_TolanRuntimeException);
BENCHMARK(ThrowCatch_StdRuntimeError);

void printRatio(const TolanBench::KeepingReporter& r, const char* what, const std::string& ours,
                const std::string& peer) {
  const double a = r.cpuNs(ours);
  const double b = r.cpuNs(peer);
  if (a < 0 || b <= 0) return;
  std::printf("  %-44s %8.1f ns vs %8.1f ns  ratio %.2f\n", what, a, b, a / b);
}

}  // namespace

int main(int argc, char** argv) {
  TolanBench::KeepingReporter reporter;
  if (!TolanBench::runBenchmarks(argc, argv, reporter)) return 1;
  std::printf("\nSummary (CPU time per operation, %d-frame stack):\n", kStackFrames);
  printRatio(reporter, "Tolan::Backtrace / unw_backtrace", "Capture_Tolan", "Capture_unw_backtrace");
  printRatio(reporter, "Tolan::Backtrace / glibc backtrace()", "Capture_Tolan", "Capture_glibc_backtrace");
  printRatio(reporter, "unw_step cursor walk / unw_backtrace", "Capture_unw_step_walk", "Capture_unw_backtrace");
  printRatio(reporter, "construct RuntimeException / runtime_error", "Construct_TolanRuntimeException",
             "Construct_StdRuntimeError");
  printRatio(reporter, "throw+catch RuntimeException / runtime_error", "ThrowCatch_TolanRuntimeException",
             "ThrowCatch_StdRuntimeError");
  benchmark::Shutdown();
  return 0;
}
