// The scheduler against raw libevent doing the same work, in one run.
//
// Dispatch: N tasks (1, 100, 10,000) reschedule themselves round-robin; each
// loop pass runs one task (or up to 64 in throughput mode). The peer is raw
// libevent on a default base (two priorities, no flags): one zero-delay timer
// re-armed from its own callback pops a FIFO of function objects and pushes
// each back after calling it. Every dispatch benchmark runs on a fresh thread
// with a base of its own, so that the variants can differ in the base:
//   Tolan              our scheduler on the library's base (as shipped)
//   TolanDefaultBase   our scheduler on a default base (what our code costs)
//   Tolan64            throughput mode, 64 tasks per callback, library base
//   Raw                the peer on a default base
//   RawLibraryBase     the peer on a base made like the library's
// One iteration is one loop call broken after 10,000 task runs; the summary
// divides by the runs actually made. CPU time of that thread.
//
// Also: scheduleTask + unscheduleTask of a registered task (ns, heap
// allocations counted by the replaced operator new below), the cost per run
// with 10 to 100,000 registered idle tasks, and the bytes of one Task.
//
//   TaskSchedulerBench --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "BenchReporter.h"
#include "Tolan/LibeventFactory.h"
#include "Tolan/TaskScheduler.h"

namespace {
std::atomic<long> allocations{0};
std::atomic<long> allocatedBytes{0};
}  // namespace

// Replaced here, called by inlined library code: the pairing is ours.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  allocatedBytes.fetch_add(static_cast<long>(size), std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

using namespace Tolan;

namespace {

constexpr long kRunsPerIteration = 10000;

enum class Base { library, plain };

// A base like the peer's: two priorities, no flags.
event_base* plainBase() {
  event_base* base = event_base_new();
  event_base_priority_init(base, 2);
  return base;
}

// Runs `body` on a new thread whose event base is `kind`; the benchmark's
// timer then reads that thread's CPU time.
template <typename F>
void onFreshThread(Base kind, F&& body) {
  std::thread([&] {
    if (kind == Base::plain) leRegisterBase(plainBase());
    body();
    leFree();
  }).join();
}

// ---- ours ----

struct Spinner : Task {
  Spinner(const std::shared_ptr<TaskSchedulerRoot>& root, long* left, long* runs)
      : Task(root, TaskPriority::normal, "spinner"), left(left), runs(runs) {}
  void taskExecute() override {
    ++*runs;
    if (--*left == 0) {
      *left = kRunsPerIteration;
      event_base_loopbreak(leInit());
    }
    scheduleTask();
  }
  long* left;
  long* runs;
};

void dispatchTolan(benchmark::State& state, Base kind, unsigned tasksPerCallback, long busyTasks, long idleTasks = 0) {
  onFreshThread(kind, [&] {
    auto root = TaskSchedulerRootIs("bench");
    root->tasksPerCallbackIs(tasksPerCallback);
    long left = kRunsPerIteration, runs = 0;
    std::vector<std::shared_ptr<Task>> tasks;
    struct Idle : Task {
      using Task::Task;
      void taskExecute() override {}
    };
    for (long i = 0; i < idleTasks; ++i)
      tasks.push_back(std::make_shared<Idle>(root, TaskPriority::normal, "idle"));
    for (long i = 0; i < busyTasks; ++i) {
      auto spinner = std::make_shared<Spinner>(root, &left, &runs);
      spinner->scheduleTask();
      tasks.push_back(std::move(spinner));
    }
    Platform::doEventLoop();  // warm-up: one iteration's worth
    runs = 0;
    const long before = allocations.load();
    for (auto _ : state) Platform::doEventLoop();
    const long allocated = allocations.load() - before;
    state.counters["runsPerIter"] = static_cast<double>(runs) / static_cast<double>(state.iterations());
    state.counters["allocsPerRun"] = static_cast<double>(allocated) / static_cast<double>(runs);
    for (auto& t : tasks) std::static_pointer_cast<TaskImpl>(t)->unscheduleTask();
  });
}

void BM_Dispatch_Tolan(benchmark::State& state) { dispatchTolan(state, Base::library, 1, state.range(0)); }
void BM_Dispatch_TolanDefaultBase(benchmark::State& state) { dispatchTolan(state, Base::plain, 1, state.range(0)); }
void BM_Dispatch_Tolan64(benchmark::State& state) { dispatchTolan(state, Base::library, 64, state.range(0)); }

// ---- the peer ----

struct RawLoop {
  explicit RawLoop(event_base* base) : base(base) {
    event_assign(&timer, base, -1, 0, &RawLoop::fire, this);
    event_priority_set(&timer, 1);
  }
  ~RawLoop() { event_del(&timer); }
  static void fire(evutil_socket_t, short, void* arg) {
    auto* self = static_cast<RawLoop*>(arg);
    std::function<void()> job = std::move(self->fifo.front());
    self->fifo.pop_front();
    self->again = false;
    job();
    if (self->again) self->fifo.push_back(std::move(job));
    if (!self->fifo.empty()) event_add(&self->timer, &kZero);
  }
  static constexpr timeval kZero{0, 0};
  event_base* base;
  event timer;
  std::deque<std::function<void()>> fifo;
  bool again = false;
  long left = kRunsPerIteration;
  long runs = 0;
};

void dispatchRaw(benchmark::State& state, Base kind) {
  event_base* base = kind == Base::plain ? plainBase() : leCreateBase();
  std::thread([&] {
    RawLoop loop(base);
    for (long i = 0; i < state.range(0); ++i) {
      loop.fifo.push_back([&loop] {
        ++loop.runs;
        if (--loop.left == 0) {
          loop.left = kRunsPerIteration;
          event_base_loopbreak(loop.base);
        }
        loop.again = true;
      });
    }
    event_add(&loop.timer, &RawLoop::kZero);
    event_base_dispatch(base);  // warm-up
    loop.runs = 0;
    for (auto _ : state) event_base_dispatch(base);
    state.counters["runsPerIter"] = static_cast<double>(loop.runs) / static_cast<double>(state.iterations());
  }).join();
  event_base_free(base);
}

void BM_Dispatch_Raw(benchmark::State& state) { dispatchRaw(state, Base::plain); }
void BM_Dispatch_RawLibraryBase(benchmark::State& state) { dispatchRaw(state, Base::library); }

// ---- flat in the number of registered tasks ----

// Four busy tasks among `range(0)` registered tasks that never run.
void BM_Registered(benchmark::State& state) { dispatchTolan(state, Base::library, 1, 4, state.range(0)); }

// ---- schedule + unschedule ----

void BM_ScheduleUnschedule(benchmark::State& state) {
  auto root = TaskSchedulerRootIs("bench");
  struct Idle : Task {
    using Task::Task;
    void taskExecute() override {}
  };
  auto task = std::make_shared<Idle>(root, TaskPriority::normal, "idle");
  task->scheduleTask();  // the idle-to-runnable edge, once
  task->unscheduleTask();
  const long before = allocations.load();
  for (auto _ : state) {
    task->scheduleTask();
    task->unscheduleTask();
  }
  state.counters["allocs/op"] =
      static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations());
}

void dispatchArgs(benchmark::internal::Benchmark* b) { b->Arg(1)->Arg(100)->Arg(10000); }

BENCHMARK(BM_Dispatch_Tolan)->Apply(dispatchArgs);
BENCHMARK(BM_Dispatch_TolanDefaultBase)->Apply(dispatchArgs);
BENCHMARK(BM_Dispatch_Tolan64)->Apply(dispatchArgs);
BENCHMARK(BM_Dispatch_Raw)->Apply(dispatchArgs);
BENCHMARK(BM_Dispatch_RawLibraryBase)->Apply(dispatchArgs);
BENCHMARK(BM_ScheduleUnschedule);
BENCHMARK(BM_Registered)->Arg(10)->Arg(1000)->Arg(100000);

// ---- summary ----

double perRun(const TolanBench::KeepingReporter& r, const std::string& name) {
  const double ns = r.cpuNs(name);
  const double runs = r.counter(name, "runsPerIter");
  return ns > 0 && runs > 0 ? ns / runs : -1;
}

}  // namespace

int main(int argc, char** argv) {
  TolanBench::KeepingReporter reporter;
  if (!TolanBench::runBenchmarks(argc, argv, reporter)) return 1;
  std::printf("\nDispatch, CPU ns per task run (median of repetitions when given):\n");
  std::printf("  %6s %9s %9s %7s | %9s %7s | %9s %9s | %9s %7s\n", "tasks", "Tolan", "raw", "ratio",
              "Tolan/db", "ratio", "rawLibB", "flag+", "Tolan64", "ratio");
  for (const char* n : {"1", "100", "10000"}) {
    const std::string s = std::string("/") + n;
    const double ours = perRun(reporter, "BM_Dispatch_Tolan" + s);
    const double oursDefault = perRun(reporter, "BM_Dispatch_TolanDefaultBase" + s);
    const double ours64 = perRun(reporter, "BM_Dispatch_Tolan64" + s);
    const double raw = perRun(reporter, "BM_Dispatch_Raw" + s);
    const double rawLib = perRun(reporter, "BM_Dispatch_RawLibraryBase" + s);
    if (ours < 0 || raw < 0) continue;
    std::printf("  %6s %9.0f %9.0f %7.2f | %9.0f %7.2f | %9.0f %9.0f | %9.0f %7.2f\n", n, ours, raw, ours / raw,
                oursDefault, oursDefault / raw, rawLib, rawLib - raw, ours64, ours64 / raw);
  }
  std::printf("  (goal: Tolan/raw <= 1.15; Tolan64 <= 150 ns; Tolan/db = ours on a default base;\n"
              "   rawLibB = the peer on a base made like ours, flag+ = what those settings add per pass)\n");
  std::printf("heap allocations per task run (goal 0): %.4f at 10000 tasks, %.4f in throughput mode\n",
              reporter.counter("BM_Dispatch_Tolan/10000", "allocsPerRun"),
              reporter.counter("BM_Dispatch_Tolan64/10000", "allocsPerRun"));
  const double su = reporter.cpuNs("BM_ScheduleUnschedule");
  if (su >= 0)
    std::printf("scheduleTask + unscheduleTask: %.1f ns, %.2f allocations (goal <= 30 ns, 0)\n", su,
                reporter.counter("BM_ScheduleUnschedule", "allocs/op"));
  const double few = perRun(reporter, "BM_Registered/10"), many = perRun(reporter, "BM_Registered/100000");
  if (few > 0 && many > 0)
    std::printf("per run with 10 / 100000 registered idle tasks: %.0f / %.0f ns, ratio %.2f (goal <= 1.2)\n", few,
                many, many / few);
  {
    auto root = TaskSchedulerRootIs("size");
    struct Idle : Task {
      using Task::Task;
      void taskExecute() override {}
    };
    const long before = allocatedBytes.load();
    auto task = std::make_shared<Idle>(root, TaskPriority::normal, "sized");
    const long heap = allocatedBytes.load() - before;
    std::printf("one Task: sizeof %zu bytes; std::make_shared allocates %ld bytes in all, its name included "
                "(goal <= 256)\n",
                sizeof(Task), heap);
  }
  benchmark::Shutdown();
  return 0;
}
