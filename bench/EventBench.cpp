// The event platform's controls against raw libevent doing the same work on
// the same base, driven by the same loop call; and the cost of one
// fast-forward step. Prints the Tolan/raw ratio of each pair at the end, on
// CPU time (real time on a shared machine mostly measures other processes);
// with --benchmark_repetitions the fastest repetitions are compared, e.g.
//   EventBench --benchmark_repetitions=10 --benchmark_enable_random_interleaving=true
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Tolan/LibeventFactory.h"
#include "Tolan/Platform.h"
#include "BenchReporter.h"

using namespace Tolan;
using namespace Tolan::Platform;

namespace {

// One non-blocking pass: what is due is delivered.
inline void onePass(event_base* base) { event_base_loop(base, EVLOOP_NONBLOCK); }

struct Counter : CallbackHandler, TimeoutHandler {
  void callback() override { ++n; }
  void timeout() override { ++n; }
  long n = 0;
};

// The least disturbed repetition: on a shared machine the fairest estimate of
// what the code itself costs.
double minimum(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }

void rawCount(evutil_socket_t, short, void* arg) { ++*static_cast<long*>(arg); }

void checkDelivered(benchmark::State& state, long delivered) {
  if (delivered != static_cast<long>(state.iterations())) state.SkipWithError("not every event was delivered");
}

// ---- (a) deferred callback ----

void BM_Callback_Tolan(benchmark::State& state) {
  event_base* base = leInit();
  Counter h;
  auto c = getCallbackControl(&h);
  for (auto _ : state) {
    c->requestCallback();
    onePass(base);
  }
  checkDelivered(state, h.n);
}
BENCHMARK(BM_Callback_Tolan)->ComputeStatistics("min", minimum);

void BM_Callback_Raw(benchmark::State& state) {
  event_base* base = leInit();
  long n = 0;
  event ev;
  event_assign(&ev, base, -1, 0, &rawCount, &n);
  event_priority_set(&ev, eventPriorityDefault);
  const timeval zero{0, 0};
  for (auto _ : state) {
    event_add(&ev, &zero);
    onePass(base);
  }
  checkDelivered(state, n);
}
BENCHMARK(BM_Callback_Raw)->ComputeStatistics("min", minimum);

// The same raw work on a default libevent base: what our base's configuration
// costs per loop pass. (It keeps libevent's coarse clock: under strace, 1,000
// passes take 1,000 epoll_wait and no timerfd_settime on either base, 1,210
// system calls in all; a precise-timer base adds a timerfd_settime per pass,
// 2,208.)
void BM_Callback_DefaultBase(benchmark::State& state) {
  event_base* base = event_base_new();
  long n = 0;
  event ev;
  event_assign(&ev, base, -1, 0, &rawCount, &n);
  const timeval zero{0, 0};
  for (auto _ : state) {
    event_add(&ev, &zero);
    onePass(base);
  }
  checkDelivered(state, n);
  event_base_free(base);
}
BENCHMARK(BM_Callback_DefaultBase)->ComputeStatistics("min", minimum);

// ---- (b) arm and disarm a timer ----

void BM_Timer_Tolan(benchmark::State& state) {
  leInit();
  Counter h;
  auto t = getTimerControl(&h);
  for (auto _ : state) {
    t->setTimeout(1.0);
    t->delTimeout();
  }
}
BENCHMARK(BM_Timer_Tolan)->ComputeStatistics("min", minimum);

void BM_Timer_Raw(benchmark::State& state) {
  event_base* base = leInit();
  long n = 0;
  event ev;
  event_assign(&ev, base, -1, 0, &rawCount, &n);
  event_priority_set(&ev, eventPriorityDefault);
  const timeval second{1, 0};
  for (auto _ : state) {
    event_add(&ev, &second);
    event_del(&ev);
  }
}
BENCHMARK(BM_Timer_Raw)->ComputeStatistics("min", minimum);

// ---- (c) a readable pipe ----

struct Pipe {
  Pipe() {
    if (::pipe(fds) != 0) std::perror("pipe");
  }
  ~Pipe() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  int fds[2];
};

struct PipeReader : FdEventHandler {
  void readFdEvent(int fd) override {
    char c;
    n += ::read(fd, &c, 1);
  }
  void writeFdEvent(int) override {}
  long n = 0;
};

void BM_Pipe_Tolan(benchmark::State& state) {
  event_base* base = leInit();
  Pipe p;
  PipeReader h;
  auto c = getFdControl(&h);
  c->setFd(p.fds[0]);
  for (auto _ : state) {
    if (::write(p.fds[1], "x", 1) != 1) state.SkipWithError("write");
    onePass(base);
  }
  c->delFd();
  checkDelivered(state, h.n);
}
BENCHMARK(BM_Pipe_Tolan)->ComputeStatistics("min", minimum);

void rawRead(evutil_socket_t fd, short, void* arg) {
  char c;
  *static_cast<long*>(arg) += ::read(fd, &c, 1);
}

void BM_Pipe_Raw(benchmark::State& state) {
  event_base* base = leInit();
  Pipe p;
  long n = 0;
  event ev;
  event_assign(&ev, base, p.fds[0], EV_READ | EV_PERSIST, &rawRead, &n);
  event_priority_set(&ev, eventPriorityDefault);
  event_add(&ev, nullptr);
  for (auto _ : state) {
    if (::write(p.fds[1], "x", 1) != 1) state.SkipWithError("write");
    onePass(base);
  }
  event_del(&ev);
  checkDelivered(state, n);
}
BENCHMARK(BM_Pipe_Raw)->ComputeStatistics("min", minimum);

// ---- one fast-forward step with many pending timers ----

void BM_FastForwardStep(benchmark::State& state) {
  leInit();
  setFastForward(true);
  const int count = static_cast<int>(state.range(0));
  Counter h;
  std::vector<std::shared_ptr<TimerControl>> timers;
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> far(1e6, 2e6);  // never due during the run
  for (int i = 0; i < count; ++i) {
    timers.push_back(getTimerControl(&h));
    timers.back()->setTimeout(far(rng));
  }
  for (auto _ : state) {
    // Find the first timer, advance 1 ms (it lies further), run one pass.
    eventLoopFastForwardToFirstTimer(0.001);
  }
  if (h.n != 0) state.SkipWithError("a far timer fired");
  state.counters["pendingTimers"] = count;
  timers.clear();
  setFastForward(false);
}
BENCHMARK(BM_FastForwardStep)->Arg(10000)->ComputeStatistics("min", minimum)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  TolanBench::KeepingReporter reporter;
  if (!TolanBench::runBenchmarks(argc, argv, reporter)) return 1;
  std::printf("\nTolan / raw libevent, CPU time per operation (goal <= 1.20):\n");
  for (const char* pair : {"Callback", "Timer", "Pipe"}) {
    const double ours = reporter.cpuNs(std::string("BM_") + pair + "_Tolan", "min");
    const double raw = reporter.cpuNs(std::string("BM_") + pair + "_Raw", "min");
    if (ours < 0 || raw <= 0) continue;
    std::printf("  %-9s %8.1f ns vs %8.1f ns  ratio %.3f\n", pair, ours, raw, ours / raw);
  }
  const double ourBase = reporter.cpuNs("BM_Callback_Raw", "min");
  const double defaultBase = reporter.cpuNs("BM_Callback_DefaultBase", "min");
  if (ourBase >= 0 && defaultBase > 0)
    std::printf("Raw callback pass, library's base / default base: %.3f\n", ourBase / defaultBase);
  const double step = reporter.cpuNs("BM_FastForwardStep/10000", "min");
  if (step >= 0) std::printf("One fast-forward step with 10000 pending timers: %.1f us\n", step / 1e3);
  benchmark::Shutdown();
  return 0;
}
