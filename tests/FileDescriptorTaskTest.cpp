// FileDescriptorTask on real kernel objects: socket pairs, pipes and
// loopback TCP connections, with the loop bounded by runUntil().
#include <sys/resource.h>

#include "Tolan/FileDescriptorTask.h"
#include "support/FdTesting.h"
#include "support/SchedulerTesting.h"

using namespace Tolan;
using namespace TolanTest;
using Type = TaskSchedulerEventType;

namespace {

// Counts the runs of its halves, then calls `onRead` / `onWrite`; by
// default a read run reads up to `chunk` bytes into `received`.
struct FdProbe : FileDescriptorTask {
  FdProbe(std::shared_ptr<TaskScheduler> scheduler, std::string name)
      : FileDescriptorTask(std::move(scheduler), TaskPriority::normal, std::move(name)) {}
  void taskExecuteReadable() override { ++reads, onRead ? onRead(*this) : (void)readSome(); }
  void taskExecuteWritable() override { ++writes, onWrite ? onWrite(*this) : void(); }
  ssize_t readSome() {
    std::string buf(chunk, '\0');
    const ssize_t n = ::read(taskWatchFd(), buf.data(), chunk);
    if (n > 0) received.append(buf.data(), size_t(n));
    return n;
  }
  std::function<void(FdProbe&)> onRead, onWrite;
  int reads = 0, writes = 0;
  size_t chunk = 65536;
  std::string received;
};

class FdTask : public SchedulerFixture {
 protected:
  std::shared_ptr<FdProbe> probe(const std::string& name, int fd = -1, bool readable = true, size_t chunk = 65536) {
    auto p = std::make_shared<FdProbe>(root, name);
    if (fd >= 0) p->taskWatchFdIs(fd);
    p->taskWatchReadableIs(readable);
    p->chunk = chunk;
    return p;
  }
};

void send(int fd, const std::string& data) { ASSERT_EQ(::write(fd, data.data(), data.size()), ssize_t(data.size())); }

}  // namespace

// Readability stays watched while data remains (one byte per run here) and
// is reported as "fdReadable"; writability is one-shot and comes back only
// when the handler asks again.
TEST_F(FdTask, ReadStaysWatchedWriteIsOneShot) {
  for (auto kind : {FdPair::socketPair, FdPair::pipe, FdPair::tcp}) {
    SCOPED_TRACE(kind);
    FdPair pair(kind);
    auto reader = probe("reader", pair.a, true, 1);
    auto writer = probe("writer", pair.b, false);
    writer->onWrite = [](FdProbe& p) {
      EXPECT_FALSE(p.taskWatchWritable());
      if (p.writes < 3) p.taskWatchWritableIs(true);
    };
    EXPECT_EQ(writer->writeTask(), nullptr);
    writer->taskWatchWritableIs(true);
    EXPECT_EQ(writer->writeTask()->taskName(), "writer:write");
    send(pair.b, "abc");
    EXPECT_TRUE(runUntil([&] { return reader->received == "abc" && writer->writes == 3; }));
    Platform::doEventLoop(0.02);
    EXPECT_EQ(reader->taskRunCountReadable(), 3u);
    EXPECT_EQ(writer->taskRunCount(), 3u);
    EXPECT_GE(count(Type::fdReadable), 3u);
    EXPECT_GE(count(Type::fdWritable), 3u);
  }
}

// A new descriptor, or none, takes both halves off their queues.
TEST_F(FdTask, DescriptorChangeAndRemovalUnscheduleBothDirections) {
  for (bool remove : {false, true}) {
    FdPair one, two;
    auto p = probe("p", one.a);
    p->taskWatchWritableIs(true);
    p->scheduleTaskReadable();
    p->scheduleTaskWritable();
    remove ? p->taskWatchFdDel() : p->taskWatchFdIs(two.a);
    EXPECT_FALSE(p->taskScheduled());
    send(one.b, "x");
    Platform::doEventLoop(0.02);
    EXPECT_EQ(p->reads, 0);
    EXPECT_EQ(p->writes, remove ? 0 : 1);  // the new descriptor is writable
  }
}

// The number of a descriptor closed while watched comes back for a new
// socket: only the new owner hears of it, whether another task or the old
// one watches it, and a report queued for the old file is dropped.
TEST_F(FdTask, ClosedWhileWatchedAndReusedNeverReachesTheOldOwner) {
  for (int row = 0; row < 4; ++row) {
    const bool sameTask = row & 1, queued = row & 2;
    SCOPED_TRACE(row);
    auto old = probe("old");
    auto pair = std::make_unique<FdPair>();
    const int number = pair->a;
    old->taskWatchFdIs(number);
    if (queued) old->scheduleTaskReadable();
    pair.reset();  // closed while watched
    FdPair fresh;
    ASSERT_EQ(fresh.a, number);
    auto owner = sameTask ? old : probe("new");
    owner->taskWatchFdIs(number);
    EXPECT_EQ(old->taskWatchFd(), sameTask ? number : -1);
    EXPECT_FALSE(old->taskScheduled());
    send(fresh.b, "new");
    EXPECT_TRUE(runUntil([&] { return owner->received == "new"; }, 2.0));
    EXPECT_EQ(old->reads, sameTask ? 1 : 0);
  }
}

// Halves share the task's settings (a later write half takes them over);
// each direction keeps its own counters, the write half's only once it exists.
TEST_F(FdTask, SettingsCountersAndAssertions) {
  FdPair pair;
  auto p = probe("p", pair.a);
  p->taskQuantumIs(TaskTimeDuration(5000000));
  p->taskTestYieldRatioIs(3);
  p->taskStatsNameIs("stats");
  EXPECT_ASSERTS(p->taskWorkPendingWritableIs(1), "WriteTask not created by taskWatchWritableIs( true )");
  EXPECT_ASSERTS(p->taskWorkCountInc(1), "outside a run");
  p->taskWatchWritableIs(true);
  for (TaskImpl* half : {p->readTask(), p->writeTask()})
    EXPECT_TRUE(half->taskQuantum().count() == 5000000 && half->taskTestYieldRatio() == 3);
  EXPECT_EQ(p->writeTask()->taskStatsName(), "stats:write");

  for (unsigned n : {10, 0, 0}) p->taskWorkCountReadableInc(n);  // average 10, 9, 8.1
  EXPECT_FLOAT_EQ(p->taskWorkCountReadableDecayAvg(), 8.1f);
  EXPECT_EQ(p->taskWorkCountReadableHighWaterMark().raw(), 10u);
  for (unsigned n : {7, 2}) p->taskWorkPendingWritableIs(n);
  EXPECT_EQ(p->taskWorkPendingWritableHighWaterMark().raw(), 7u);

  // Suspension holds both halves and takes their interest off the loop (a
  // readable descriptor would keep waking it); resuming runs the watched
  // direction only.
  p->taskSuspendedIs(true);
  EXPECT_TRUE(p->writeTask()->taskSuspended());
  p->taskWatchWritableIs(false);
  send(pair.b, "x");
  Platform::doEventLoop(0.02);
  EXPECT_EQ(count(Type::scheduleSus), 0u);
  p->taskSuspendedIs(false);
  EXPECT_TRUE(p->taskScheduledReadable() && !p->taskScheduledWritable());

  // Inside a run the task's own counters go to the running half; a nested
  // run of a half is refused.
  p->onRead = [](FdProbe& self) {
    self.taskWorkCountInc(4);
    EXPECT_ASSERTS(self.readTask()->taskRunFromTest(), "Executing task already set");
  };
  p->readTask()->taskRunFromTest();
  EXPECT_EQ(p->taskWorkCountReadableTotal(), 14u);
  EXPECT_EQ(p->taskWorkCountWritableTotal(), 0u);
  p->taskWatchReadableIs(false);
  EXPECT_ASSERTS(p->readTask()->taskRunFromTest(), "ReadTask should only run if taskWatchReadable");
}

// A read half kept waiting (an absolute task runs first, for twice the
// repeats that pause it) stops being re-reported for a while; whatever way
// it leaves its queue, it hears its descriptor again, including data left
// behind by a short read.
TEST_F(FdTask, LongWaitingReadHalfHearsItsDescriptorAgain) {
  for (int leave : {0, 1, 2}) {  // by running; by a new watch; by suspension
    SCOPED_TRACE(leave);
    FdPair pair;
    auto p = probe("p", pair.a, true, 1);
    const unsigned passes = 2 * FileDescriptorTask::kReadRepeatsBeforePause;
    auto hog = task(TaskPriority::absolute, "hog", [&](Probe& self) {
      if (self.taskRunCount() < passes) self.scheduleTask();
    });
    hog->scheduleTask();
    send(pair.b, "abc");
    EXPECT_TRUE(runUntil([&] { return hog->taskRunCount() == passes; }));
    if (leave == 1) p->taskWatchFdIs(pair.a);
    if (leave == 2) p->taskSuspendedIs(true), p->taskSuspendedIs(false);
    EXPECT_TRUE(runUntil([&] { return p->received == "abc"; }, 2.0));
  }
}

// TCP: a reader slower than its writer gets everything, in order, over many
// runs, while the writer meets a full buffer (EAGAIN) and waits for
// writability; the writer's close is the reader's end of file; writing to a
// reader that has gone fails with EPIPE or ECONNRESET, not SIGPIPE.
TEST_F(FdTask, TcpSlowReaderFullBufferEndOfFileAndPeerGone) {
  FdPair tcp(FdPair::tcp);
  const int small = 4096;
  ::setsockopt(tcp.b, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string data;
  for (int i = 0; data.size() < 300000; ++i) data += std::to_string(i) + ",";
  auto reader = probe("reader", tcp.a, true, 997);
  reader->onRead = [](FdProbe& p) {
    if (p.readSome() == 0) p.taskWatchFdDel();
  };
  auto writer = probe("writer", tcp.b, false);
  size_t sent = 0;
  int again = 0, error = 0;
  writer->onWrite = [&](FdProbe& p) {
    for (ssize_t n = 0; sent < data.size() && n >= 0; sent += size_t(std::max<ssize_t>(n, 0)))
      n = ::send(p.taskWatchFd(), data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    sent < data.size() ? (++again, error = errno, p.taskWatchWritableIs(true)) : tcp.closeB();
  };
  writer->taskWatchWritableIs(true);
  EXPECT_TRUE(runUntil([&] { return reader->taskWatchFd() < 0; }, 30.0));
  EXPECT_EQ(reader->received, data);
  EXPECT_GT(again, 0);
  EXPECT_EQ(error, EAGAIN);
  EXPECT_GT(reader->reads, int(data.size() / 997));

  FdPair gone(FdPair::tcp);
  gone.closeA();
  writer->taskWatchFdIs(gone.b);
  writer->onWrite = [&](FdProbe& p) {
    while (::send(p.taskWatchFd(), "x", 1, MSG_NOSIGNAL) > 0) {
    }
    error = errno;
  };
  writer->taskWatchWritableIs(true);
  EXPECT_TRUE(runUntil([&] { return error != EAGAIN; }));
  EXPECT_THAT(error, AnyOf(EPIPE, ECONNRESET));
}

// 1,000 descriptor tasks on one thread: each hears its own descriptor. A
// report taken before a run drained its descriptor may run it once more, to
// find nothing; never more than that.
TEST_F(FdTask, AThousandTasksOnOneThread) {
  constexpr size_t kTasks = 1000;
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 2 * kTasks + 100));
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 2 * kTasks + 100) GTEST_SKIP() << "descriptor limit";
  std::vector<std::unique_ptr<FdPair>> pairs;
  std::vector<std::shared_ptr<FdProbe>> tasks;
  for (size_t i = 0; i < kTasks; ++i) {
    pairs.push_back(std::make_unique<FdPair>());
    tasks.push_back(probe("t" + std::to_string(i), pairs.back()->a));
  }
  for (size_t i = 0; i < kTasks; ++i) send(pairs[i]->b, std::to_string(i));
  EXPECT_TRUE(runUntil([&] { return std::all_of(tasks.begin(), tasks.end(), [](auto& t) { return t->reads; }); }));
  Platform::doEventLoop(0.02);
  for (size_t i = 0; i < kTasks; ++i) {
    EXPECT_EQ(tasks[i]->received, std::to_string(i));
    EXPECT_THAT(tasks[i]->reads, AnyOf(1, 2));
  }
}

// A handler may drop the last owner of its task (end of a connection).
TEST_F(FdTask, HandlerMayDropItsTask) {
  FdPair pair;
  auto p = probe("p", pair.a);
  std::weak_ptr<FdProbe> seen = p;
  p->onRead = [&](FdProbe& self) { self.readSome(), p.reset(); };
  send(pair.b, "x");
  EXPECT_TRUE(runUntil([&] { return seen.expired(); }));
  send(pair.b, "y");
  Platform::doEventLoop(0.02);
}
