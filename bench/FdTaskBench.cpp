// Descriptor tasks against raw libevent on the same base.
//
// (a) One readable pipe: write a byte, run the loop (EVLOOP_NONBLOCK: until
//     nothing is active) until the handler has read it. Ours: the descriptor
//     task's read half; raw: a persistent read event doing the same read.
//     Raw makes two epoll_wait() calls per delivery, ours four: the report,
//     the task's run on the scheduler's zero-delay callback, the run that
//     finds the scheduler idle, the pass that finds nothing (strace -c).
// (b) 1,000 socket pairs with a byte ready on each at once: run the loop
//     until every handler has read its byte; CPU ns per handled readiness.
//     Ours in the default one task per pass, and in throughput mode (64
//     tasks per callback); raw: 1,000 persistent read events.
#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "BenchReporter.h"
#include "Tolan/FileDescriptorTask.h"
#include "Tolan/LibeventFactory.h"

using namespace Tolan;

namespace {

double minimum(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }

inline void onePass(event_base* base) { event_base_loop(base, EVLOOP_NONBLOCK); }

struct Reader : FileDescriptorTask {
  Reader(std::shared_ptr<TaskScheduler> s, long* n) : FileDescriptorTask(std::move(s), TaskPriority::normal, "r"), n(n) {}
  void taskExecuteReadable() override {
    char c[64];
    if (::read(taskWatchFd(), c, sizeof c) > 0) ++*n;
  }
  void taskExecuteWritable() override {}
  long* n;
};

void rawRead(evutil_socket_t fd, short, void* arg) {
  char c[64];
  if (::read(fd, c, sizeof c) > 0) ++*static_cast<long*>(arg);
}

void check(benchmark::State& state, long delivered, long expected) {
  if (delivered != expected) state.SkipWithError("not every byte was delivered");
}

// Socket pairs or pipes, closed at the end: [i][0] is watched, [i][1] written.
struct Pairs {
  explicit Pairs(int n, bool pipes = false) : fds(size_t(n)) {
    for (auto& p : fds)
      if ((pipes ? ::pipe(p.data()) : ::socketpair(AF_UNIX, SOCK_STREAM, 0, p.data())) != 0) std::perror("pair");
  }
  ~Pairs() {
    for (auto& p : fds) ::close(p[0]), ::close(p[1]);
  }
  void sendAll() {
    for (auto& p : fds)
      if (::write(p[1], "x", 1) != 1) std::perror("write");
  }
  std::vector<std::array<int, 2>> fds;
};

// ---- (a) one pipe ----

void BM_Pipe_Task(benchmark::State& state) {
  event_base* base = leInit();
  Pairs p(1, true);
  long n = 0;
  auto reader = std::make_shared<Reader>(schedulerRootTolan(), &n);
  reader->taskWatchFdIs(p.fds[0][0]);
  reader->taskWatchReadableIs(true);
  for (auto _ : state) {
    const long before = n;
    p.sendAll();
    while (n == before) onePass(base);
  }
  reader->taskWatchFdDel();
  check(state, n, long(state.iterations()));
}
BENCHMARK(BM_Pipe_Task)->ComputeStatistics("min", minimum);

void BM_Pipe_Raw(benchmark::State& state) {
  event_base* base = leInit();
  Pairs p(1, true);
  long n = 0;
  event ev;
  event_assign(&ev, base, p.fds[0][0], EV_READ | EV_PERSIST, &rawRead, &n);
  event_priority_set(&ev, Platform::eventPriorityDefault);
  event_add(&ev, nullptr);
  for (auto _ : state) {
    const long before = n;
    p.sendAll();
    while (n == before) onePass(base);
  }
  event_del(&ev);
  check(state, n, long(state.iterations()));
}
BENCHMARK(BM_Pipe_Raw)->ComputeStatistics("min", minimum);

// ---- (b) 1,000 ready sockets ----

constexpr int kSockets = 1000;

void raiseDescriptorLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

// Per iteration: a byte on every socket (not timed), then the loop until all are read.
template <typename Setup>
void readyRound(benchmark::State& state, Setup&& setup) {
  raiseDescriptorLimit();
  event_base* base = leInit();
  Pairs p(kSockets);
  long n = 0;
  auto teardown = setup(p, &n);
  for (auto _ : state) {
    state.PauseTiming();
    const long target = n + kSockets;
    p.sendAll();
    state.ResumeTiming();
    while (n != target) onePass(base);
  }
  teardown();
  check(state, n, long(state.iterations()) * kSockets);
  state.SetItemsProcessed(int64_t(state.iterations()) * kSockets);
}

auto taskReaders(unsigned tasksPerCallback) {
  return [tasksPerCallback](Pairs& p, long* n) {
    auto root = schedulerRootTolan();
    root->tasksPerCallbackIs(tasksPerCallback);
    auto readers = std::make_shared<std::vector<std::shared_ptr<Reader>>>();
    for (auto& fds : p.fds) {
      readers->push_back(std::make_shared<Reader>(root, n));
      readers->back()->taskWatchFdIs(fds[0]);
      readers->back()->taskWatchReadableIs(true);
    }
    return [root, readers] {
      readers->clear();
      root->tasksPerCallbackIs(1);
    };
  };
}

void BM_Ready1000_Task(benchmark::State& state) { readyRound(state, taskReaders(1)); }
BENCHMARK(BM_Ready1000_Task)->ComputeStatistics("min", minimum)->Unit(benchmark::kMicrosecond);

void BM_Ready1000_TaskThroughput(benchmark::State& state) { readyRound(state, taskReaders(64)); }
BENCHMARK(BM_Ready1000_TaskThroughput)->ComputeStatistics("min", minimum)->Unit(benchmark::kMicrosecond);

void BM_Ready1000_Raw(benchmark::State& state) {
  readyRound(state, [](Pairs& p, long* n) {
    auto events = std::make_shared<std::vector<event>>(p.fds.size());
    for (size_t i = 0; i < p.fds.size(); ++i) {
      event_assign(&(*events)[i], leInit(), p.fds[i][0], EV_READ | EV_PERSIST, &rawRead, n);
      event_priority_set(&(*events)[i], Platform::eventPriorityDefault);
      event_add(&(*events)[i], nullptr);
    }
    return [events] {
      for (event& ev : *events) event_del(&ev);
    };
  });
}
BENCHMARK(BM_Ready1000_Raw)->ComputeStatistics("min", minimum)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  TolanBench::KeepingReporter reporter;
  if (!TolanBench::runBenchmarks(argc, argv, reporter)) return 1;
  std::printf("\nDescriptor tasks / raw libevent, CPU ns per delivery (goal <= 1.30):\n");
  const struct {
    const char *label, *ours, *raw;
    double per;
  } rows[] = {{"one pipe", "BM_Pipe_Task", "BM_Pipe_Raw", 1},
              {"1,000 ready, one task per pass", "BM_Ready1000_Task", "BM_Ready1000_Raw", kSockets},
              {"1,000 ready, 64 tasks per callback", "BM_Ready1000_TaskThroughput", "BM_Ready1000_Raw", kSockets}};
  for (const auto& row : rows) {
    const double ours = reporter.cpuNs(row.ours, "min") / row.per;
    const double raw = reporter.cpuNs(row.raw, "min") / row.per;
    if (ours < 0 || raw <= 0) continue;
    std::printf("  %-36s %9.1f ns vs %8.1f ns  ratio %.2f\n", row.label, ours, raw, ours / raw);
  }
  benchmark::Shutdown();
  return 0;
}
