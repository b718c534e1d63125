// Timer tasks and task groups, side by side with their peers in one run.
//
//   Rearm/N       - with N timer tasks armed (random delays up to an hour),
//                   arm one more to a random delay and stop it again;
//   LibeventAddDel - the same on raw libevent timer events (event_add and
//                   event_del) with 1,000,000 armed;
//   Expiry        - 100,000 timer tasks due over one virtual minute run out
//                   under fast-forward (per fired task; order and never-early
//                   are checked, a violation fails the benchmark);
//   Root / Group  - 1,000 self-rescheduling tasks on the root, and the same
//                   inside a task group on the root (per task run).
// The summary prints the ratios and bytes per armed timer task.
#include <benchmark/benchmark.h>
#include <event2/event.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchReporter.h"
#include "Tolan/LibeventFactory.h"
#include "Tolan/TaskScheduler.h"

namespace {

using namespace Tolan;

constexpr double kHour = 3600.0;
// armed tasks -> heap bytes per armed timer task (object, shared count, malloc's header)
std::map<int64_t, double> bytesPerTask;

using TolanBench::heapInUse;
using TolanBench::randomDelays;

// Notes when it ran, and whether that was before its due time.
struct Expiring : TimerTask {
  Expiring(std::shared_ptr<TaskScheduler> s) : TimerTask(std::move(s), TaskPriority::normal, "expiring") {}
  void taskExecute() override {
    const double now = Tolan::time();
    if (now < due || due < *lastDue) ++*violations;
    *lastDue = due;
    ++*fired;
  }
  double due = 0;
  double* lastDue = nullptr;
  size_t* fired = nullptr;
  size_t* violations = nullptr;
};

// A timer task with nothing of its own, as small as one can be.
struct Bare : TimerTask {
  explicit Bare(std::shared_ptr<TaskScheduler> s) : TimerTask(std::move(s), TaskPriority::normal, "bare") {}
  void taskExecute() override {}
};

// A wheel event alone, for the wheel's share of a re-arm.
struct BareEvent : TimerWheelEvent {
  void timeout() override {}
};

// `n` armed timer tasks on the root (heap bytes per task recorded), kept
// for the length of one benchmark.
struct Armed {
  explicit Armed(size_t n) : root(schedulerRootTolan()) {
    const auto delays = randomDelays(n, kHour, 1);
    tasks.reserve(n);
    const size_t before = heapInUse();
    for (size_t i = 0; i < n; ++i) {
      tasks.push_back(std::make_shared<Bare>(root));
      tasks.back()->scheduleTaskDelay(delays[i]);
    }
    bytesPerTask[n] = static_cast<double>(heapInUse() - before) / n - sizeof(tasks[0]);  // minus our vector
  }
  ~Armed() {
    tasks.clear();
    root->clearHistory();
  }
  std::shared_ptr<TaskSchedulerRoot> root;
  std::vector<std::shared_ptr<Bare>> tasks;
  const std::vector<double> rearm = randomDelays(4096, kHour, 2);
};

void BM_TimerTask_Rearm(benchmark::State& state) {
  Armed armed(state.range(0));
  Bare extra(armed.root);
  size_t i = 0;
  for (auto _ : state) {
    extra.scheduleTaskDelay(armed.rearm[i++ & 4095]);
    extra.stopTimerTask();
  }
}

// The same on the same wheel, without the task: what the wheel costs.
void BM_WheelEvent_Rearm(benchmark::State& state) {
  Armed armed(state.range(0));
  BareEvent extra;
  const auto& wheel = armed.root->timerWheel();
  size_t i = 0;
  for (auto _ : state) {
    extra.setTimeout(wheel, armed.rearm[i++ & 4095]);
    extra.delTimeout(wheel);
  }
}

void onEvent(evutil_socket_t, short, void*) {}

void BM_Libevent_AddDel(benchmark::State& state) {
  const size_t n = state.range(0);
  event_base* base = event_base_new();
  const auto delays = randomDelays(n, kHour, 1);
  std::vector<event*> events;
  events.reserve(n);
  const auto tv = [](double s) {
    return timeval{static_cast<time_t>(s), static_cast<suseconds_t>((s - static_cast<time_t>(s)) * 1e6)};
  };
  for (size_t i = 0; i < n; ++i) {
    events.push_back(evtimer_new(base, onEvent, nullptr));
    const timeval t = tv(delays[i]);
    evtimer_add(events.back(), &t);
  }
  const auto rearm = randomDelays(4096, kHour, 2);
  event* extra = evtimer_new(base, onEvent, nullptr);
  size_t i = 0;
  for (auto _ : state) {
    const timeval t = tv(rearm[i++ & 4095]);
    event_add(extra, &t);
    event_del(extra);
  }
  event_free(extra);
  for (event* ev : events) event_free(ev);
  event_base_free(base);
}

void BM_TimerTask_Expiry(benchmark::State& state) {
  const size_t n = state.range(0);
  auto root = schedulerRootTolan();
  std::vector<std::unique_ptr<Expiring>> tasks;
  for (size_t i = 0; i < n; ++i) tasks.push_back(std::make_unique<Expiring>(root));
  const auto delays = randomDelays(n, 60.0, 3);
  size_t fired = 0, violations = 0;
  root->tasksPerCallbackIs(static_cast<unsigned>(state.range(1)));
  Platform::setFastForward(true);
  for (auto _ : state) {
    state.PauseTiming();
    double lastDue = 0;
    for (size_t i = 0; i < n; ++i) {
      Expiring& t = *tasks[i];
      t.lastDue = &lastDue, t.fired = &fired, t.violations = &violations;
      t.scheduleTaskDelay(delays[i]);
      t.due = t.currentExpirationTime();
    }
    state.ResumeTiming();
    Platform::doEventLoop();
  }
  Platform::setFastForward(false);
  root->tasksPerCallbackIs(1);
  tasks.clear();
  root->clearHistory();
  if (fired != n * state.iterations()) state.SkipWithError("not every timer task fired");
  if (violations) state.SkipWithError("a timer task fired early or out of order");
  state.counters["tasks"] = static_cast<double>(n);
}

// Reschedules itself while the shared budget lasts.
struct Spinner : Task {
  Spinner(std::shared_ptr<TaskScheduler> s, long* left, long* runs)
      : Task(std::move(s), TaskPriority::normal, "spinner"), left(left), runs(runs) {}
  void taskExecute() override {
    ++*runs;
    if (--*left > 0) scheduleTask();
  }
  long* left;
  long* runs;
};

void runSpinners(benchmark::State& state, const std::shared_ptr<TaskScheduler>& scheduler) {
  long left = 0, runs = 0;
  std::vector<std::shared_ptr<Spinner>> tasks;
  for (int i = 0; i < 1000; ++i) tasks.push_back(std::make_shared<Spinner>(scheduler, &left, &runs));
  for (auto _ : state) {
    left = 100000;
    for (auto& t : tasks) t->scheduleTask();
    Platform::doEventLoop();
  }
  state.counters["runs"] = static_cast<double>(runs) / static_cast<double>(state.iterations());
}

void BM_Tasks_Root(benchmark::State& state) { runSpinners(state, schedulerRootTolan()); }
void BM_Tasks_Group(benchmark::State& state) {
  runSpinners(state, TaskGroupIs("bench", TaskPriority::normal, schedulerRootTolan()));
}

}  // namespace

BENCHMARK(BM_TimerTask_Rearm)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(BM_WheelEvent_Rearm)->Arg(1000000);
BENCHMARK(BM_Libevent_AddDel)->Arg(1000000);
// Second argument: tasks per root callback (1: one loop pass per task run).
BENCHMARK(BM_TimerTask_Expiry)->Args({100000, 1})->Args({100000, 64})->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Tasks_Root)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Tasks_Group)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
  TolanBench::KeepingReporter reporter;
  if (!TolanBench::runBenchmarks(argc, argv, reporter)) return 1;
  const auto ratio = [](double a, double b) { return a > 0 && b > 0 ? a / b : 0.0; };
  const auto perRun = [&](const std::string& name) {
    return reporter.cpuNs(name) / reporter.counter(name, "runs", 1.0);
  };
  std::printf("\nSummary (CPU ns)\n");
  for (int64_t n : {1000, 100000, 1000000})
    std::printf("re-arm + stop one more timer task, %7lld armed: %6.1f ns, %.0f bytes per armed timer task\n",
                static_cast<long long>(n), reporter.cpuNs("BM_TimerTask_Rearm/" + std::to_string(n)),
                bytesPerTask[n]);
  std::printf("the same on a bare wheel event,     1000000 armed: %6.1f ns\n",
              reporter.cpuNs("BM_WheelEvent_Rearm/1000000"));
  std::printf("libevent event_add + event_del,    1000000 armed: %6.1f ns\n",
              reporter.cpuNs("BM_Libevent_AddDel/1000000"));
  std::printf("re-arm 1,000,000 vs 1,000: %.2fx (goal <= 1.5x)\n",
              ratio(reporter.cpuNs("BM_TimerTask_Rearm/1000000"), reporter.cpuNs("BM_TimerTask_Rearm/1000")));
  std::printf("re-arm vs libevent at 1,000,000: %.2fx (goal <= 0.6x)\n",
              ratio(reporter.cpuNs("BM_TimerTask_Rearm/1000000"), reporter.cpuNs("BM_Libevent_AddDel/1000000")));
  std::printf("sizeof(TimerTask) %zu, sizeof(Task) %zu: goal <= %zu bytes per armed timer task\n",
              sizeof(TimerTask), sizeof(Task), sizeof(Task) + 64);
  for (const char* perCallback : {"1", "64"}) {
    const std::string name = std::string("BM_TimerTask_Expiry/100000/") + perCallback;
    std::printf("expiry of 100,000 under fast-forward, %2s task runs per loop pass: %.1f ns per fired task\n",
                perCallback, reporter.cpuNs(name) / reporter.counter(name, "tasks", 1.0));
  }
  std::printf("task run in a group vs on the root: %.1f / %.1f ns, %.2fx (goal <= 0.3x)\n", perRun("BM_Tasks_Group"),
              perRun("BM_Tasks_Root"), ratio(perRun("BM_Tasks_Group"), perRun("BM_Tasks_Root")));
  benchmark::Shutdown();
  return 0;
}
