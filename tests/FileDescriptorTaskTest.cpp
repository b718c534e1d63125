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

// A descriptor task whose halves count their runs and then call `onRead` / `onWrite`.
struct FdProbe : FileDescriptorTask {
  FdProbe(std::shared_ptr<TaskScheduler> scheduler, std::string name)
      : FileDescriptorTask(std::move(scheduler), TaskPriority::normal, std::move(name)) {}
  void taskExecuteReadable() override {
    ++reads;
    if (onRead) onRead(*this);
  }
  void taskExecuteWritable() override {
    ++writes;
    if (onWrite) onWrite(*this);
  }
  // Reads up to `max` bytes into `received`; 0 at end of file, -1 when none are ready.
  ssize_t readSome(size_t max = 65536) {
    std::string buf(max, '\0');
    const ssize_t n = ::read(taskWatchFd(), buf.data(), max);
    if (n > 0) received.append(buf.data(), static_cast<size_t>(n));
    return n;
  }
  std::function<void(FdProbe&)> onRead, onWrite;
  int reads = 0, writes = 0;
  std::string received;
};

class FdTask : public SchedulerFixture {
 protected:
  std::shared_ptr<FdProbe> probe(const std::string& name, int fd = -1, bool readable = true) {
    auto p = std::make_shared<FdProbe>(root, name);
    if (fd >= 0) p->taskWatchFdIs(fd);
    p->taskWatchReadableIs(readable);
    return p;
  }
};

void send(int fd, const std::string& data) { ASSERT_EQ(::write(fd, data.data(), data.size()), ssize_t(data.size())); }

// Fills the send buffer of non-blocking `fd`; returns the bytes written.
size_t fill(int fd) {
  const std::string chunk(4096, 'f');
  size_t total = 0;
  for (ssize_t n; (n = ::send(fd, chunk.data(), chunk.size(), MSG_DONTWAIT | MSG_NOSIGNAL)) > 0;) total += n;
  EXPECT_EQ(errno, EAGAIN);
  return total;
}

}  // namespace

// Readability stays watched while data remains (one byte per run here) and
// is reported as "fdReadable"; writability is one-shot and comes back only
// when the handler asks again.
TEST_F(FdTask, ReadStaysWatchedWriteIsOneShot) {
  for (auto kind : {FdPair::socketPair, FdPair::pipe, FdPair::tcp}) {
    SCOPED_TRACE(kind);
    FdPair pair(kind);
    auto reader = probe("reader", pair.a);
    reader->onRead = [](FdProbe& p) { p.readSome(1); };
    send(pair.b, "abc");
    EXPECT_TRUE(runUntil([&] { return reader->received == "abc"; }));
    Platform::doEventLoop(0.02);
    EXPECT_EQ(reader->reads, 3);
    EXPECT_EQ(reader->taskRunCountReadable(), 3u);
    EXPECT_GE(count(Type::fdReadable), 3u);

    auto writer = probe("writer", pair.b, false);
    EXPECT_EQ(writer->writeTask(), nullptr);
    writer->onWrite = [](FdProbe& p) {
      EXPECT_FALSE(p.taskWatchWritable());
      if (p.writes < 3) p.taskWatchWritableIs(true);
    };
    writer->taskWatchWritableIs(true);
    ASSERT_NE(writer->writeTask(), nullptr);
    EXPECT_EQ(writer->writeTask()->taskName(), "writer:write");
    EXPECT_TRUE(runUntil([&] { return writer->writes == 3; }));
    Platform::doEventLoop(0.02);
    EXPECT_EQ(writer->writes, 3);
    EXPECT_EQ(writer->taskRunCount(), 3u);
    EXPECT_GE(count(Type::fdWritable), 3u);
  }
}

// A new descriptor, or none, takes both halves off their queues; the
// halves of a task that stopped watching never run.
TEST_F(FdTask, DescriptorChangeAndRemovalUnscheduleBothDirections) {
  FdPair one, two;
  for (bool remove : {false, true}) {
    auto p = probe("p", one.a);
    p->taskWatchWritableIs(true);
    p->scheduleTaskReadable();
    p->scheduleTaskWritable();
    EXPECT_TRUE(p->taskScheduledReadable() && p->taskScheduledWritable());
    remove ? p->taskWatchFdDel() : p->taskWatchFdIs(two.a);
    EXPECT_FALSE(p->taskScheduled());
    EXPECT_EQ(p->taskWatchFd(), remove ? -1 : two.a);
    send(one.b, "x");
    Platform::doEventLoop(0.02);
    EXPECT_EQ(p->reads, 0);
    EXPECT_EQ(p->writes, remove ? 0 : 1);  // the new descriptor is writable
    p->taskWatchReadableIs(false);
    ::recv(one.a, nullptr, 0, MSG_DONTWAIT);
    char c;
    while (::read(one.a, &c, 1) > 0) {
    }
  }
}

// The number of a descriptor closed while watched comes back for a new
// socket: only the new owner hears of it, whether another task or the old
// one watches it, and a report queued for the old file is dropped.
TEST_F(FdTask, ClosedWhileWatchedAndReusedNeverReachesTheOldOwner) {
  for (bool sameTask : {false, true}) {
    for (bool queued : {false, true}) {
      SCOPED_TRACE(::testing::Message() << "sameTask " << sameTask << " queued " << queued);
      auto old = probe("old");
      auto pair = std::make_unique<FdPair>();
      const int number = pair->a;
      old->taskWatchFdIs(number);
      if (queued) old->scheduleTaskReadable();
      pair.reset();  // closed while watched
      FdPair fresh;
      ASSERT_EQ(fresh.a, number);
      auto owner = sameTask ? old : probe("new");
      owner->onRead = [](FdProbe& p) { p.readSome(); };
      owner->taskWatchFdIs(number);
      EXPECT_EQ(old->taskWatchFd(), sameTask ? number : -1);
      EXPECT_FALSE(old->taskScheduled());
      send(fresh.b, "new");
      EXPECT_TRUE(runUntil([&] { return owner->received == "new"; }, 2.0));
      EXPECT_EQ(old->reads, sameTask ? 1 : 0);
    }
  }
}

// Halves share the task's settings (a later write half takes them over);
// the write half is counted apart and its counters exist only with it.
TEST_F(FdTask, SettingsCountersAndAssertions) {
  FdPair pair;
  auto p = probe("p", pair.a);
  p->taskQuantumIs(TaskTimeDuration(5000000));
  p->taskTestYieldRatioIs(3);
  p->taskStatsNameIs("stats");
  EXPECT_ASSERTS(p->taskWorkCountWritableTotal(), "WriteTask not created by taskWatchWritableIs( true )");
  EXPECT_ASSERTS(p->taskWorkCountWritableInc(1), "WriteTask not created by taskWatchWritableIs( true )");
  EXPECT_ASSERTS(p->taskWorkCountInc(1), "outside a run");
  p->taskWatchWritableIs(true);
  p->taskWatchWritableIs(false);
  for (TaskImpl* half : {p->readTask(), p->writeTask()}) {
    EXPECT_EQ(half->taskQuantum().count(), 5000000);
    EXPECT_EQ(half->taskTestYieldRatio(), 3);
  }
  EXPECT_EQ(p->readTask()->taskStatsName(), "stats");
  EXPECT_EQ(p->writeTask()->taskStatsName(), "stats:write");

  // 10, 0, 0: the average decays 10, 9, 8.1 and the high water stays.
  const float averages[] = {10.0f, 9.0f, 8.1f};
  for (int i = 0; i < 3; ++i) {
    p->taskWorkCountReadableInc(i == 0 ? 10 : 0);
    EXPECT_FLOAT_EQ(p->taskWorkCountReadableDecayAvg(), averages[i]);
  }
  EXPECT_EQ(p->taskWorkCountReadableHighWaterMark().raw(), 10u);
  EXPECT_EQ(p->taskWorkCountReadableTotal(), 10u);
  p->taskWorkCountWritableInc(0);
  EXPECT_EQ(p->taskWorkCountWritableHighWaterMark().raw(), 0u);
  p->taskWorkPendingWritableIs(7);
  p->taskWorkPendingWritableIs(2);
  EXPECT_EQ(p->taskWorkPendingWritable(), 2u);
  EXPECT_EQ(p->taskWorkPendingWritableHighWaterMark().raw(), 7u);

  // Inside a run the task's own counters go to the running half; a nested
  // run of a half is refused.
  p->onRead = [](FdProbe& self) {
    self.taskWorkCountInc(4);
    self.taskWorkPendingIs(1);
    EXPECT_ASSERTS(self.readTask()->taskRunFromTest(), "Executing task already set");
  };
  p->readTask()->taskRunFromTest();
  EXPECT_EQ(p->taskWorkCountReadableTotal(), 14u);
  EXPECT_EQ(p->taskWorkPendingReadable(), 1u);
  EXPECT_EQ(p->taskWorkCountWritableTotal(), 0u);
  p->taskWatchReadableIs(false);
  EXPECT_ASSERTS(p->readTask()->taskRunFromTest(), "ReadTask should only run if taskWatchReadable");
}

// A suspended task hears nothing; resuming runs the watched direction once.
TEST_F(FdTask, SuspensionHoldsBothHalves) {
  FdPair pair;
  auto p = probe("p", pair.a);
  p->onRead = [](FdProbe& self) { self.readSome(); };
  p->taskWatchWritableIs(true);
  p->taskSuspendedIs(true);
  EXPECT_TRUE(p->writeTask()->taskSuspended());
  send(pair.b, "x");
  Platform::doEventLoop(0.02);
  EXPECT_EQ(p->reads + p->writes, 0);
  EXPECT_GE(count(Type::scheduleSus), 2u);
  p->taskWatchWritableIs(false);
  p->taskSuspendedIs(false);
  EXPECT_TRUE(runUntil([&] { return p->received == "x"; }));
  Platform::doEventLoop(0.02);
  EXPECT_EQ(p->writes, 0);  // not watched: resuming does not run it
}

// A reader slower than its writer: everything arrives, in order, over many
// runs, while the writer meets a full buffer (EAGAIN) and waits for
// writability; then the writer closes mid-stream and the reader sees EOF.
TEST_F(FdTask, SlowReaderFastWriterThenEndOfFile) {
  FdPair tcp(FdPair::tcp);
  const int small = 4096;
  ::setsockopt(tcp.b, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  ::setsockopt(tcp.a, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  std::string data;
  for (int i = 0; data.size() < 300000; ++i) data += std::to_string(i) + ",";

  auto reader = probe("reader", tcp.a);
  bool eof = false;
  reader->onRead = [&](FdProbe& p) {
    if (p.readSome(997) == 0) eof = true, p.taskWatchFdDel();
  };
  auto writer = probe("writer", tcp.b, false);
  size_t sent = 0;
  int again = 0;
  writer->onWrite = [&](FdProbe& p) {
    while (sent < data.size()) {
      const ssize_t n = ::send(p.taskWatchFd(), data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
      if (n < 0) {
        EXPECT_EQ(errno, EAGAIN);
        ++again;
        p.taskWatchWritableIs(true);
        return;
      }
      sent += size_t(n);
    }
    p.taskWatchFdDel();
    tcp.closeB();
  };
  writer->taskWatchWritableIs(true);
  EXPECT_TRUE(runUntil([&] { return eof; }, 30.0));
  EXPECT_EQ(reader->received, data);
  EXPECT_GT(again, 0);
  EXPECT_GT(writer->writes, 1);
  EXPECT_GT(reader->reads, int(data.size() / 997));
}

// Writing to a peer that has gone: writability is reported and the write
// fails with EPIPE (or ECONNRESET), not SIGPIPE.
TEST_F(FdTask, PeerGoneWriteFails) {
  FdPair tcp(FdPair::tcp);
  auto writer = probe("writer", tcp.b, false);
  int error = 0;
  writer->onWrite = [&](FdProbe& p) {
    for (int i = 0; i < 100 && !error; ++i)
      if (::send(p.taskWatchFd(), "x", 1, MSG_NOSIGNAL) < 0) error = errno;
    if (!error) p.taskWatchWritableIs(true);
  };
  tcp.closeA();
  writer->taskWatchWritableIs(true);
  EXPECT_TRUE(runUntil([&] { return error != 0; }));
  EXPECT_THAT(error, AnyOf(EPIPE, ECONNRESET));
}

// A full send buffer: no writability until the peer drains it.
TEST_F(FdTask, FullBufferWaitsForWritability) {
  FdPair tcp(FdPair::tcp);
  auto writer = probe("writer", tcp.b, false);
  const size_t filled = fill(tcp.b);
  writer->taskWatchWritableIs(true);
  Platform::doEventLoop(0.05);
  EXPECT_EQ(writer->writes, 0);
  auto reader = probe("reader", tcp.a);
  reader->onRead = [](FdProbe& p) { p.readSome(); };
  EXPECT_TRUE(runUntil([&] { return writer->writes == 1; }));
  EXPECT_TRUE(runUntil([&] { return reader->received.size() == filled; }));
}

// 1,000 descriptor tasks on one thread: each hears its own descriptor, once.
TEST_F(FdTask, AThousandTasksOnOneThread) {
  constexpr int kTasks = 1000;
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < 2 * kTasks + 100) {
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2 * kTasks + 100);
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  if (limit.rlim_cur < 2 * kTasks + 100) GTEST_SKIP() << "descriptor limit " << limit.rlim_cur;
  std::vector<std::unique_ptr<FdPair>> pairs;
  std::vector<std::shared_ptr<FdProbe>> tasks;
  for (int i = 0; i < kTasks; ++i) {
    pairs.push_back(std::make_unique<FdPair>());
    tasks.push_back(probe("t" + std::to_string(i), pairs.back()->a));
    tasks.back()->onRead = [](FdProbe& p) { p.readSome(); };
  }
  for (int i = 0; i < kTasks; ++i) send(pairs[size_t(i)]->b, std::to_string(i));
  size_t done = 0;
  EXPECT_TRUE(runUntil([&] {
    done = size_t(std::count_if(tasks.begin(), tasks.end(), [](auto& t) { return !t->received.empty(); }));
    return done == kTasks;
  }));
  Platform::doEventLoop(0.02);
  // A report taken before a run drained the descriptor may run it once
  // more, to find nothing; never more than that.
  for (int i = 0; i < kTasks; ++i) {
    EXPECT_EQ(tasks[size_t(i)]->received, std::to_string(i));
    EXPECT_THAT(tasks[size_t(i)]->reads, AnyOf(1, 2));
  }
}

// A read half kept waiting (an absolute task runs 40 passes first) stops
// being re-reported for a while; whatever way it leaves its queue, it hears
// its descriptor again, including data left behind by a short read.
TEST_F(FdTask, LongWaitingReadHalfHearsItsDescriptorAgain) {
  for (int leave : {0, 1, 2}) {  // by running; by a new watch; by suspension
    SCOPED_TRACE(leave);
    FdPair pair;
    auto p = probe("p", pair.a);
    p->onRead = [](FdProbe& self) { self.readSome(1); };
    auto hog = task(TaskPriority::absolute, "hog", [](Probe& self) {
      if (self.taskRunCount() < 40) self.scheduleTask();
    });
    hog->scheduleTask();
    send(pair.b, "abc");
    EXPECT_TRUE(runUntil([&] { return hog->taskRunCount() == 40; }));
    if (leave == 1) p->taskWatchFdIs(pair.a);
    if (leave == 2) p->taskSuspendedIs(true), p->taskSuspendedIs(false);
    EXPECT_TRUE(runUntil([&] { return p->received == "abc"; }, 2.0));
  }
}

// A handler may drop the last owner of its task (end of a connection).
TEST_F(FdTask, HandlerMayDropItsTask) {
  FdPair pair;
  auto p = probe("p", pair.a);
  std::weak_ptr<FdProbe> seen = p;
  p->onRead = [&](FdProbe& self) {
    self.readSome();
    p.reset();
  };
  send(pair.b, "x");
  EXPECT_TRUE(runUntil([&] { return seen.expired(); }));
  send(pair.b, "y");
  Platform::doEventLoop(0.02);
}
