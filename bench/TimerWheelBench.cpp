// Timers at scale: our TimerWheel behind a TimerControl, the timing wheel
// alone, and one raw libevent timer event per timer, side by side.
//
// For 1,000, 100,000 and 1,000,000 live timers with random delays up to an
// hour:
//   StartStop   - start and stop one more timer while the others are held;
//   StartExpire - start every timer, then run them all out (per timer).
// A summary at the end prints ns per timer, bytes per live timer and the
// ratios the design aims at.
//
// libevent's clock cannot be advanced, so its StartExpire uses random delays
// up to 1 ms and sleeps (untimed) until all are due; the heap work of
// inserting and popping random keys is the same at any scale of delay.
// TimerWheel's StartExpire runs the real event loop under fast-forward.
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Tolan/Platform.h"
#include "Tolan/TimerWheel.h"
#include "Tolan/Impl/Timeouts.h"
#include "BenchReporter.h"

namespace {

constexpr int64_t kSizes[] = {1000, 100000, 1000000};
constexpr double kHour = 3600.0;
constexpr timeout_t kHourTicks = 360000;

std::map<std::string, double> bytesPerTimer;  // "wheel/1000" -> bytes

using TolanBench::heapInUse;
using TolanBench::randomDelays;

// ---- (b) the timing wheel alone ----

struct WheelFixture {
  explicit WheelFixture(size_t n) {
    const auto delays = randomDelays(n, kHourTicks, 1);
    const size_t before = heapInUse();
    T = timeouts_open(100, nullptr);
    links.resize(n);
    for (size_t i = 0; i < n; ++i) {
      timeout_init(&links[i], 0);
      timeouts_add(T, &links[i], 1 + static_cast<timeout_t>(delays[i]));
    }
    bytes = static_cast<double>(heapInUse() - before) / n;
  }
  ~WheelFixture() { timeouts_close(T); }
  timeouts* T;
  std::vector<timeout> links;
  double bytes;
};

void BM_Wheel_StartStop(benchmark::State& state) {
  WheelFixture f(state.range(0));
  bytesPerTimer["wheel/" + std::to_string(state.range(0))] = f.bytes;
  const auto delays = randomDelays(4096, kHourTicks, 2);
  timeout extra;
  timeout_init(&extra, 0);
  size_t i = 0;
  for (auto _ : state) {
    timeouts_add(f.T, &extra, 1 + static_cast<timeout_t>(delays[i++ & 4095]));
    timeouts_del(f.T, &extra);
  }
  state.counters["timers"] = 1;
}

void BM_Wheel_StartExpire(benchmark::State& state) {
  const size_t n = state.range(0);
  const auto delays = randomDelays(n, kHourTicks, 3);
  std::vector<timeout> links(n);
  for (auto& l : links) timeout_init(&l, 0);
  timeouts* T = timeouts_open(100, nullptr);
  size_t fired = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < n; ++i) timeouts_add(T, &links[i], 1 + static_cast<timeout_t>(delays[i]));
    // As an event loop would: sleep for timeouts_timeout(), update, drain.
    while (timeouts_pending(T) || timeouts_expired(T)) {
      timeouts_update(T, timeouts_current(T) + timeouts_timeout(T));
      while (timeouts_get(T)) ++fired;
    }
  }
  timeouts_close(T);
  if (fired != n * state.iterations()) state.SkipWithError("not every timer fired");
  state.counters["timers"] = n;
}

// ---- (c) raw libevent timer events ----

timeval toTimeval(double s) {
  timeval tv;
  tv.tv_sec = static_cast<time_t>(s);
  tv.tv_usec = static_cast<suseconds_t>((s - tv.tv_sec) * 1e6);
  return tv;
}

void onEvent(evutil_socket_t, short, void* arg) { ++*static_cast<size_t*>(arg); }

struct LibeventFixture {
  explicit LibeventFixture(size_t n) : base(event_base_new()) {
    const auto delays = randomDelays(n, kHour, 4);
    const size_t before = heapInUse();
    events.reserve(n);
    for (size_t i = 0; i < n; ++i) {
      events.push_back(evtimer_new(base, onEvent, &fired));
      const timeval tv = toTimeval(delays[i]);
      evtimer_add(events.back(), &tv);
    }
    bytes = static_cast<double>(heapInUse() - before) / n - sizeof(event*);  // minus our own vector
  }
  ~LibeventFixture() {
    for (event* ev : events) event_free(ev);
    event_base_free(base);
  }
  event_base* base;
  std::vector<event*> events;
  size_t fired = 0;
  double bytes;
};

void BM_Libevent_StartStop(benchmark::State& state) {
  LibeventFixture f(state.range(0));
  bytesPerTimer["libevent/" + std::to_string(state.range(0))] = f.bytes;
  const auto delays = randomDelays(4096, kHour, 5);
  event* extra = evtimer_new(f.base, onEvent, &f.fired);
  size_t i = 0;
  for (auto _ : state) {
    const timeval tv = toTimeval(delays[i++ & 4095]);
    evtimer_add(extra, &tv);
    evtimer_del(extra);
  }
  event_free(extra);
  state.counters["timers"] = 1;
}

void BM_Libevent_StartExpire(benchmark::State& state) {
  const size_t n = state.range(0);
  event_base* base = event_base_new();
  size_t fired = 0;
  std::vector<event*> events(n);
  for (auto& ev : events) ev = evtimer_new(base, onEvent, &fired);
  const auto delays = randomDelays(n, 0.001, 6);
  for (auto _ : state) {
    for (size_t i = 0; i < n; ++i) {
      const timeval tv = toTimeval(delays[i]);
      evtimer_add(events[i], &tv);
    }
    state.PauseTiming();
    usleep(1100);
    state.ResumeTiming();
    const size_t target = fired + n;
    while (fired < target) event_base_loop(base, EVLOOP_NONBLOCK);
  }
  for (event* ev : events) event_free(ev);
  event_base_free(base);
  state.counters["timers"] = n;
}

// ---- (a) TimerWheel through getTimerControl(handler, wheel) ----

struct Count : Tolan::Platform::TimeoutHandler {
  void timeout() override { ++fired; }
  size_t fired = 0;
};

void BM_TimerWheel_StartStop(benchmark::State& state) {
  const size_t n = state.range(0);
  auto wheel = Tolan::getTimerWheelForTaskScheduler(Tolan::Platform::eventPriorityDefault);
  Count handler;
  const auto delays = randomDelays(n, kHour, 7);
  const size_t before = heapInUse();
  std::vector<std::shared_ptr<Tolan::Platform::TimerControl>> timers;
  timers.reserve(n);
  for (size_t i = 0; i < n; ++i) {
    timers.push_back(Tolan::Platform::getTimerControl(&handler, wheel));
    timers.back()->setTimeout(delays[i]);
  }
  bytesPerTimer["TimerWheel/" + std::to_string(n)] =
      static_cast<double>(heapInUse() - before) / n - sizeof(timers[0]);  // minus our own vector
  const auto extraDelays = randomDelays(4096, kHour, 8);
  auto extra = Tolan::Platform::getTimerControl(&handler, wheel);
  size_t i = 0;
  for (auto _ : state) {
    extra->setTimeout(extraDelays[i++ & 4095]);
    extra->delTimeout();
  }
  timers.clear();
  state.counters["timers"] = 1;
}

void BM_TimerWheel_StartExpire(benchmark::State& state) {
  const size_t n = state.range(0);
  Tolan::Platform::setFastForward(true);
  auto wheel = Tolan::getTimerWheelForTaskScheduler(Tolan::Platform::eventPriorityDefault);
  Count handler;
  std::vector<std::shared_ptr<Tolan::Platform::TimerControl>> timers(n);
  for (auto& t : timers) t = Tolan::Platform::getTimerControl(&handler, wheel);
  const auto delays = randomDelays(n, kHour, 9);
  for (auto _ : state) {
    for (size_t i = 0; i < n; ++i) timers[i]->setTimeout(delays[i]);
    Tolan::Platform::doEventLoop(kHour + 1);
  }
  if (handler.fired != n * state.iterations()) state.SkipWithError("not every timer fired");
  timers.clear();
  Tolan::Platform::setFastForward(false);
  state.counters["timers"] = n;
}

}  // namespace

#define TOLAN_SIZES ->Arg(1000)->Arg(100000)->Arg(1000000)
BENCHMARK(BM_TimerWheel_StartStop) TOLAN_SIZES;
BENCHMARK(BM_Wheel_StartStop) TOLAN_SIZES;
BENCHMARK(BM_Libevent_StartStop) TOLAN_SIZES;
// A whole run per iteration: many of the small ones, so that their figure is
// not one run's noise, and few of the large ones.
#define TOLAN_RUNS(bm, small) \
  BENCHMARK(bm)->Arg(1000)->Iterations(small)->Unit(benchmark::kMillisecond); \
  BENCHMARK(bm)->Arg(100000)->Iterations(small / 10 + 1)->Unit(benchmark::kMillisecond); \
  BENCHMARK(bm)->Arg(1000000)->Iterations(3)->Unit(benchmark::kMillisecond)
TOLAN_RUNS(BM_TimerWheel_StartExpire, 10);
TOLAN_RUNS(BM_Wheel_StartExpire, 200);
TOLAN_RUNS(BM_Libevent_StartExpire, 50);

int main(int argc, char** argv) {
  TolanBench::KeepingReporter reporter;
  if (!TolanBench::runBenchmarks(argc, argv, reporter)) return 1;
  // CPU ns per timer, 0 when it did not run.
  auto ns = [&](const std::string& name, int64_t n) {
    const std::string key = name + "/" + std::to_string(n);
    const double perRun = reporter.cpuNs(key);
    return perRun < 0 ? 0.0 : perRun / reporter.counter(key, "timers", 1.0);
  };
  std::printf("\nSummary (CPU ns per timer; bytes per live timer)\n");
  std::printf("%-10s %-28s %12s %12s %12s\n", "timers", "", "TimerWheel", "wheel alone", "libevent");
  for (int64_t n : kSizes) {
    std::printf("%-10lld %-28s %12.1f %12.1f %12.1f\n", static_cast<long long>(n), "start+stop one more",
                ns("BM_TimerWheel_StartStop", n), ns("BM_Wheel_StartStop", n), ns("BM_Libevent_StartStop", n));
    std::printf("%-10s %-28s %12.1f %12.1f %12.1f\n", "", "start+expire", ns("BM_TimerWheel_StartExpire", n),
                ns("BM_Wheel_StartExpire", n), ns("BM_Libevent_StartExpire", n));
    const std::string k = std::to_string(n);
    std::printf("%-10s %-28s %12.1f %12.1f %12.1f\n", "", "bytes per live timer", bytesPerTimer["TimerWheel/" + k],
                bytesPerTimer["wheel/" + k], bytesPerTimer["libevent/" + k]);
  }
  const auto ratio = [](double a, double b) { return b > 0 ? a / b : 0.0; };
  std::printf("\nwheel alone, 1,000,000 vs 1,000: start+stop %.2fx, start+expire %.2fx (goal <= 1.5x)\n",
              ratio(ns("BM_Wheel_StartStop", 1000000), ns("BM_Wheel_StartStop", 1000)),
              ratio(ns("BM_Wheel_StartExpire", 1000000), ns("BM_Wheel_StartExpire", 1000)));
  std::printf("TimerWheel vs libevent start+stop at 1,000,000: %.3fx (goal <= 0.1x)\n",
              ratio(ns("BM_TimerWheel_StartStop", 1000000), ns("BM_Libevent_StartStop", 1000000)));
  std::printf("wheel alone bytes per live timer at 1,000,000: %.1f (goal <= 64)\n", bytesPerTimer["wheel/1000000"]);
  benchmark::Shutdown();
  return 0;
}
