// Snapshot and JSON rendering of a scheduler with 10,000 tasks (half of them
// in 10 task groups), side by side
// with a bare RapidJSON Writer that writes the same fields from a plain vector
// into its own StringBuffer, in the same run. The summary prints ns per task
// and the ratio of JSON throughput (goal: ours >= 0.5x the bare writer's).
//
// Ours pays for what the bare writer does not: copying the records out of the
// live tasks, interning their names in the snapshot's own cache (so that the
// snapshot can cross threads), sorting by run time, and handing the text to a
// std::ostream.
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <thread>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "BenchReporter.h"
#include "Tolan/LibeventFactory.h"
#include "Tolan/TaskGroup.h"
#include "Tolan/TaskScheduler.h"
#include "Tolan/TaskSchedulerPrintContext.h"
#include "Tolan/TaskSchedulerRenderJsonAsync.h"
#include "Tolan/TaskSchedulerSnapshot.h"

namespace {

using namespace Tolan;

constexpr int kTasks = 10000;
constexpr int kGroups = 10;

struct Quiet : Task {
  using Task::Task;
  void taskExecute() override {}
};

// A root with kTasks tasks of distinct names, each run once.
struct Population {
  // Every other task in one of kGroups task groups (their documents are
  // sub-schedulers of the root's).
  Population() {
    for (int g = 0; g < kGroups; ++g)
      groups.push_back(TaskGroupIs("group-" + std::to_string(g), TaskPriority::normal, root));
    for (int i = 0; i < kTasks; ++i) {
      char name[32];
      std::snprintf(name, sizeof name, "worker-%05d", i);
      if (i % 2)
        tasks.push_back(std::make_shared<Quiet>(groups[(i / 2) % kGroups], TaskPriority::normal, name));
      else
        tasks.push_back(std::make_shared<Quiet>(root, TaskPriority::fromNumber(1 + i % 3), name));
      tasks.back()->scheduleTask();
    }
    Platform::doEventLoop();
  }
  std::shared_ptr<TaskSchedulerRoot> root = TaskSchedulerRootIs("bench");
  std::vector<std::shared_ptr<TaskGroup>> groups;
  std::vector<std::shared_ptr<Quiet>> tasks;
};

Population& population() {
  static Population p;
  return p;
}

// Both sides write into memory that is reused from one iteration to the
// next (the peer's StringBuffer keeps its capacity too): growing a fresh
// multi-megabyte buffer costs more in page faults on this kind of machine
// than formatting the whole document, and would drown what is compared.
class StringSink : public std::streambuf {
 public:
  std::string text;

 protected:
  int_type overflow(int_type c) override {
    if (c != traits_type::eof()) text.push_back(static_cast<char>(c));
    return c;
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    text.append(s, static_cast<size_t>(n));
    return n;
  }
};

size_t render(const TaskSchedulerSnapshot& snapshot, StringSink& sink) {
  sink.text.clear();
  std::ostream out(&sink);
  TaskSchedulerPrintContext context(out);
  snapshot.renderJson(context);
  context.closeJson();
  return sink.text.size();
}

void BM_SnapshotAndRender(benchmark::State& state) {
  auto& p = population();
  StringSink sink;
  size_t bytes = 0;
  for (auto _ : state) {
    const auto snapshot = p.root->snapshot(true, true, true, ~0u, false);
    bytes += render(*snapshot, sink);
    benchmark::DoNotOptimize(sink.text.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.counters["bytes"] = static_cast<double>(bytes) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_SnapshotAndRender)->Unit(benchmark::kMillisecond);

void BM_SnapshotOnly(benchmark::State& state) {
  auto& p = population();
  for (auto _ : state) benchmark::DoNotOptimize(p.root->snapshot(true, true, true, ~0u, false));
}
BENCHMARK(BM_SnapshotOnly)->Unit(benchmark::kMillisecond);

void BM_RenderOnly(benchmark::State& state) {
  const auto snapshot = population().root->snapshot(true, true, true, ~0u, false);
  StringSink sink;
  size_t bytes = 0;
  for (auto _ : state) bytes += render(*snapshot, sink);
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_RenderOnly)->Unit(benchmark::kMillisecond);

// ---- the peer: the same fields from a plain vector ----

struct PlainTask {
  std::string name, address;
  const char* priority;
  bool onRunQueue, running, suspended, timer, timerRunning;
  unsigned runCount, qv200, qv500, maxMs;
  double total, lastLatency, maxLatency;
};

std::vector<PlainTask> plainTasks() {
  std::vector<PlainTask> out;
  for (const auto& task : population().tasks) {
    const TaskStat s = task->getStats();
    out.push_back({s.taskName(), s.taskKey().toStrep(), s.taskPriority().toStrep(), false, false, false, false,
                   false, s.taskRunCount(), 0, 0, 0, static_cast<double>(s.taskTotalRunTime().count()) / 1e9,
                   static_cast<double>(s.taskLastSchedulingLatency().count()) / 1e9,
                   static_cast<double>(s.taskSchedulingLatencyHighWaterMark().count()) / 1e9});
  }
  return out;
}

void BM_BareRapidJson(benchmark::State& state) {
  const auto tasks = plainTasks();
  size_t bytes = 0;
  rapidjson::StringBuffer buffer;
  for (auto _ : state) {
    buffer.Clear();
    rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
    w.StartObject();
    w.Key("schedulers");
    w.StartObject();
    w.Key("bench");
    w.StartObject();
    w.Key("schedulerName");
    w.String("bench");
    w.Key("isRootScheduler");
    w.Bool(true);
    w.Key("tasks");
    w.StartObject();
    w.Key("tasks");
    w.StartArray();
    for (const PlainTask& t : tasks) {
      w.StartObject();
      w.Key("name");
      w.String(t.name.data(), static_cast<rapidjson::SizeType>(t.name.size()));
      w.Key("address");
      w.String(t.address.data(), static_cast<rapidjson::SizeType>(t.address.size()));
      w.Key("priority");
      w.String(t.priority);
      w.Key("onRunQueue");
      w.Bool(t.onRunQueue);
      w.Key("currentlyRunning");
      w.Bool(t.running);
      w.Key("suspended");
      w.Bool(t.suspended);
      w.Key("hasTimer");
      w.Bool(t.timer);
      w.Key("timerRunning");
      w.Bool(t.timerRunning);
      w.Key("runCount");
      w.Uint(t.runCount);
      w.Key("totalRunTime");
      w.Double(t.total);
      w.Key("lastSchedulingLatency");
      w.Double(t.lastLatency);
      w.Key("schedulingLatencyHighWaterMark");
      w.Double(t.maxLatency);
      w.Key("qv200");
      w.Uint(t.qv200);
      w.Key("qv500");
      w.Uint(t.qv500);
      w.Key("maxMs");
      w.Uint(t.maxMs);
      w.EndObject();
    }
    w.EndArray();
    w.Key("skipped");
    w.Uint(0);
    w.EndObject();
    w.EndObject();
    w.EndObject();
    w.EndObject();
    bytes += buffer.GetSize();
    benchmark::DoNotOptimize(buffer.GetString());
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.counters["bytes"] = static_cast<double>(bytes) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_BareRapidJson)->Unit(benchmark::kMillisecond);

// The asynchronous path on the same population: the document goes to a
// pipe drained by another thread. What matters is not its speed but that no
// single run of its tasks holds the loop longer than the quantum.
struct AsyncFigures {
  double seconds = 0, longestRenderMs = 0, longestWriteMs = 0;
  size_t bytes = 0;
  bool ok = false;
};

AsyncFigures asyncOutput() {
  auto& p = population();
  int fds[2];
  if (pipe2(fds, O_NONBLOCK) != 0) return {};
  fcntl(fds[0], F_SETFL, 0);
  std::thread reader([fd = fds[0]] {
    char buffer[65536];
    while (read(fd, buffer, sizeof buffer) > 0) {
    }
  });
  AsyncFigures f;
  bool done = false;
  auto ms = [](TaskTimeDuration d) { return static_cast<double>(d.count()) / 1e6; };
  const auto start = std::chrono::steady_clock::now();
  // Read in `done`, while the tasks still exist (the final run of the render
  // task, which calls it, is not counted; it only unwatches the descriptor).
  p.root->snapshotRenderJsonAsync(fds[1], {p.root->snapshot(true, true, true)},
                                  [&](TaskScheduler::SnapshotRenderJsonTask& output) {
                                    done = true;
                                    f.ok = !output.writeFailed();
                                    f.bytes = output.bytesWritten();
                                    f.longestRenderMs = ms(output.taskRunTimeHighWaterMark());
                                    if (const TaskImpl* half = output.writeTask().writeTask())
                                      f.longestWriteMs = ms(half->taskRunTimeHighWaterMark());
                                  });
  while (!done) Platform::doEventLoop(0.01);
  f.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  close(fds[1]);
  reader.join();
  close(fds[0]);
  return f;
}

}  // namespace

int main(int argc, char** argv) {
  TolanBench::KeepingReporter reporter;
  if (!TolanBench::runBenchmarks(argc, argv, reporter)) return 1;
  const double ours = reporter.cpuNs("BM_SnapshotAndRender"), bare = reporter.cpuNs("BM_BareRapidJson");
  const double snap = reporter.cpuNs("BM_SnapshotOnly"), rend = reporter.cpuNs("BM_RenderOnly");
  const double bytes = reporter.counter("BM_SnapshotAndRender", "bytes");
  const double bareBytes = reporter.counter("BM_BareRapidJson", "bytes");
  if (ours > 0 && bare > 0) {
    std::printf("\n%d tasks in the root and %d groups, %.0f bytes of JSON (bare writer: %.0f), CPU time:\n", kTasks, kGroups, bytes, bareBytes);
    std::printf("  snapshot + render %8.0f ns/task (snapshot %.0f, render %.0f)\n", ours / kTasks, snap / kTasks,
                rend / kTasks);
    std::printf("  bare RapidJSON    %8.0f ns/task\n", bare / kTasks);
    // Bytes per CPU second, ours over the bare writer's.
    std::printf("  JSON throughput ours / bare: %.2fx (goal >= 0.5x)\n", (bytes / ours) / (bareBytes / bare));
  }
  const AsyncFigures a = asyncOutput();
  std::printf("\nasynchronous output to a pipe: %zu bytes in %.1f ms%s; longest single run: render %.2f ms, "
              "write %.2f ms (quantum %.0f ms)\n",
              a.bytes, a.seconds * 1e3, a.ok ? "" : " (FAILED)", a.longestRenderMs, a.longestWriteMs,
              static_cast<double>(kDefaultTaskQuantum.count()) / 1e6);
  benchmark::Shutdown();
  return 0;
}
