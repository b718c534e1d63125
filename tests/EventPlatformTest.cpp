// The event platform in real time: controls, loop entry points, the base.
#include <event2/event.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <thread>

#include "Tolan/Assert.h"
#include "Tolan/Exception.h"
#include "Tolan/LibeventFactory.h"
#include "Tolan/Platform.h"

using namespace Tolan;
using namespace Tolan::Platform;
using ::testing::HasSubstr;

namespace {

// libevent's debug mode turns misuse (deleting an unassigned event,
// re-assigning an added one) into fatal errors; it must be on before any
// base exists.
const bool debugModeOn = [] {
  event_enable_debug_mode();
  throwOnAssertFailIs(true);
  return true;
}();

struct CountingTimeout : TimeoutHandler {
  void timeout() override {
    ++fired;
    if (throwIt) throw std::runtime_error("timeout failed");
  }
  bool handleTimeoutException() override { return swallow; }
  int fired = 0;
  bool throwIt = false;
  bool swallow = false;
};

struct CountingCallback : CallbackHandler {
  void callback() override {
    ++calls;
    if (throwIt) throw std::runtime_error("callback failed");
  }
  bool handleCallbackException() override { return swallow; }
  int calls = 0;
  bool throwIt = false;
  bool swallow = false;
};

struct PipeHandler : FdEventHandler {
  void readFdEvent(int fd) override {
    ++reads;
    lastFd = fd;
    if (consume) {
      char buf[64];
      while (::read(fd, buf, sizeof buf) > 0) {
      }
    }
    if (throwIt) throw std::runtime_error("read failed");
  }
  void writeFdEvent(int fd) override {
    ++writes;
    lastFd = fd;
  }
  bool handleFdException(int fd) override {
    exceptionFd = fd;
    return swallow;
  }
  int reads = 0, writes = 0, lastFd = -2, exceptionFd = -2;
  bool consume = true, throwIt = false, swallow = false;
};

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe(fds), 0); }
  ~Pipe() {
    if (fds[0] >= 0) ::close(fds[0]);
    if (fds[1] >= 0) ::close(fds[1]);
  }
  void put() { ASSERT_EQ(::write(fds[1], "x", 1), 1); }
  int fds[2] = {-1, -1};
};

// Seconds the call took in real time.
template <typename F>
double timed(F&& f) {
  auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The loop has nothing left: no break event, no armed control.
void expectLoopEmpty() { EXPECT_EQ(doEventLoop(), 1); }

}  // namespace

TEST(EventPriority, ValidityNamesAndFormatting) {
  EXPECT_TRUE(isEventPriorityValid(eventPriorityStrictHigh));
  EXPECT_TRUE(isEventPriorityValid(eventPriorityDefault));
  for (unsigned v : {2u, 3u, 7u, 255u}) EXPECT_FALSE(isEventPriorityValid(EventPriority(v))) << v;
  EXPECT_STREQ(eventPriorityToString(eventPriorityStrictHigh), "eventPriorityStrictHigh");
  EXPECT_STREQ(eventPriorityToString(EventPriority(2)), "");
  EXPECT_EQ(fmt::format("{}", eventPriorityDefault), "eventPriorityDefault");
  EXPECT_EQ(fmt::format("p={}", EventPriority(7)), "p=Invalid EventPriority=7");
  static_assert(sizeof(EventPriority) == 1, "one byte wide");
}

TEST(TimerControl, ReArmingReplacesAndNeverDoubles) {
  CountingTimeout h;
  auto t = getTimerControl(&h);
  EXPECT_EQ(t->remainingTimeout(), std::numeric_limits<double>::infinity());
  t->setTimeout(10.0);
  t->setTimeout(0.01);
  const double left = t->remainingTimeout();
  EXPECT_GT(left, 0.0);
  EXPECT_LE(left, 0.01);
  doEventLoop(0.2);
  EXPECT_EQ(h.fired, 1);
  EXPECT_EQ(t->remainingTimeout(), std::numeric_limits<double>::infinity());
  // Re-armed later: the earlier, shorter arming is gone too.
  t->setTimeout(0.01);
  t->setTimeout(5.0);
  doEventLoop(0.1);
  EXPECT_EQ(h.fired, 1);
  EXPECT_GT(t->remainingTimeout(), 4.0);
  t->delTimeout();
  t->delTimeout();
  EXPECT_EQ(t->remainingTimeout(), std::numeric_limits<double>::infinity());
  expectLoopEmpty();
}

TEST(TimerControl, DueButUndeliveredReadsZeroAndDestructionDisarms) {
  CountingTimeout h;
  {
    auto t = getTimerControl(&h, eventPriorityStrictHigh);
    t->setTimeout(0.001);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(t->remainingTimeout(), 0.0);
  }
  expectLoopEmpty();
  EXPECT_EQ(h.fired, 0);
}

TEST(TimerControl, HigherPriorityRunsFirstInOnePass) {
  struct Recorder : TimeoutHandler {
    Recorder(std::vector<int>& o, int i) : order(o), id(i) {}
    void timeout() override { order.push_back(id); }
    std::vector<int>& order;
    int id;
  };
  std::vector<int> order;
  Recorder low(order, 1), high(order, 0);
  auto tLow = getTimerControl(&low, eventPriorityDefault);
  auto tHigh = getTimerControl(&high, eventPriorityStrictHigh);
  tLow->setTimeout(0.0);
  tHigh->setTimeout(0.0);
  doEventLoop(0.05);
  EXPECT_EQ(order, (std::vector<int>{0, 1}));
}

TEST(TimerControl, BadTimeouts) {
  CountingTimeout h;
  auto t = getTimerControl(&h);
  for (double bad : {std::nan(""), std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()}) {
    try {
      t->setTimeout(bad);
      ADD_FAILURE() << "accepted " << bad;
    } catch (const AssertException& e) {
      EXPECT_THAT(e.message(), HasSubstr("Invalid timeout"));
    }
  }
  EXPECT_EQ(t->remainingTimeout(), std::numeric_limits<double>::infinity()) << "a refused timeout arms nothing";
  t->setTimeout(-3.0);  // already past: next pass
  EXPECT_EQ(t->remainingTimeout(), 0.0);
  doEventLoop(0.05);
  EXPECT_EQ(h.fired, 1);
  t->setTimeout(1e300);  // clamped, not overflowed
  EXPECT_GT(t->remainingTimeout(), kMaxTimeoutSeconds - 10);
  EXPECT_LE(t->remainingTimeout(), kMaxTimeoutSeconds);
  EXPECT_THROW(doEventLoop(std::nan("")), AssertException);
}

TEST(CallbackControl, RequestsCoalesceAndCancelWithdraws) {
  CountingCallback h;
  auto c = getCallbackControl(&h);
  EXPECT_FALSE(c->pendingCallback());
  c->requestCallback();
  c->requestCallback();
  EXPECT_TRUE(c->pendingCallback());
  doEventLoop(0.05);
  EXPECT_EQ(h.calls, 1);
  EXPECT_FALSE(c->pendingCallback());
  c->requestCallback();
  c->cancelCallback();
  EXPECT_FALSE(c->pendingCallback());
  doEventLoop(0.02);
  EXPECT_EQ(h.calls, 1);
  c->requestCallback();
  c.reset();  // destruction withdraws
  expectLoopEmpty();
  EXPECT_EQ(h.calls, 1);
}

TEST(CallbackControl, CallbackRequestedFromCallbackRunsOnALaterPass) {
  struct Chain : CallbackHandler {
    void callback() override {
      if (++calls < 5) control->requestCallback();
    }
    std::shared_ptr<CallbackControl> control;
    int calls = 0;
  } h;
  h.control = getCallbackControl(&h);
  h.control->requestCallback();
  EXPECT_EQ(doEventLoop(), 1);  // runs until nothing is left
  EXPECT_EQ(h.calls, 5);
}

TEST(FdControl, ReadInterestPersistsWriteInterestIsOneShot) {
  Pipe p;
  PipeHandler h;
  h.consume = false;
  auto c = getFdControl(&h);
  EXPECT_EQ(c->getFd(), -1);
  c->setFd(p.fds[0]);
  EXPECT_EQ(c->getFd(), p.fds[0]);
  EXPECT_TRUE(::fcntl(p.fds[0], F_GETFL) & O_NONBLOCK);
  p.put();
  doEventLoop(0.02);
  EXPECT_GE(h.reads, 2) << "unconsumed data is reported on every pass";
  EXPECT_EQ(h.lastFd, p.fds[0]);

  PipeHandler w;
  auto wc = getFdControl(&w);
  wc->setReads(false);
  wc->setWrites(true);
  wc->setFd(p.fds[1]);
  doEventLoop(0.02);
  EXPECT_EQ(w.writes, 1);
  EXPECT_EQ(w.reads, 0);
  wc->setWrites(true);
  doEventLoop(0.02);
  EXPECT_EQ(w.writes, 2);
}

TEST(FdControl, InterestWithoutDescriptorArmsLater) {
  Pipe p;
  PipeHandler h;
  auto c = getFdControl(&h);
  c->setReads(true);
  c->setWrites(true);
  expectLoopEmpty();  // nothing armed without a descriptor
  p.put();
  c->setWrites(false);
  c->setFd(p.fds[0]);
  doEventLoop(0.02);
  EXPECT_EQ(h.reads, 1);
  EXPECT_EQ(h.writes, 0);
}

TEST(FdControl, ClearEventsKeepsDescriptorDelFdForgetsIt) {
  Pipe p;
  PipeHandler h;
  auto c = getFdControl(&h);
  c->setFd(p.fds[0]);
  c->clearEvents();
  EXPECT_EQ(c->getFd(), p.fds[0]);
  p.put();
  doEventLoop(0.02);
  EXPECT_EQ(h.reads, 0);
  c->setReads(true);  // re-arms on the kept descriptor
  doEventLoop(0.02);
  EXPECT_EQ(h.reads, 1);

  c->delFd();
  EXPECT_EQ(c->getFd(), -1);
  p.put();
  c->setReads(true);  // no descriptor: arms nothing
  doEventLoop(0.02);
  EXPECT_EQ(h.reads, 1);
  c.reset();
  expectLoopEmpty();
}

TEST(FdControl, DescriptorClosedWhileWatchedCanBeReleasedAndItsNumberReused) {
  PipeHandler h;
  auto c = getFdControl(&h);
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  c->setFd(fds[0]);
  ::close(fds[0]);
  ::close(fds[1]);
  doEventLoop(0.02);
  EXPECT_EQ(h.reads, 0);
  c->delFd();  // harmless on a closed descriptor

  Pipe p;  // typically reuses the numbers just closed
  PipeHandler h2;
  auto c2 = getFdControl(&h2);
  c2->setFd(p.fds[0]);
  p.put();
  doEventLoop(0.02);
  EXPECT_EQ(h2.reads, 1);
}

TEST(FdControlDeathTest, DescriptorThatIsNotOpenAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  PipeHandler h;
  auto c = getFdControl(&h);
  EXPECT_DEATH(c->setFd(987654), "flags >= 0");
}

// ---- exceptions ----

TEST(HandlerExceptions, SwallowedWhenTheHandlerSaysSo) {
  CountingTimeout thrower;
  thrower.throwIt = true;
  thrower.swallow = true;
  CountingTimeout later;
  auto t1 = getTimerControl(&thrower);
  auto t2 = getTimerControl(&later);
  t1->setTimeout(0.0);
  t2->setTimeout(0.01);
  EXPECT_NO_THROW(doEventLoop(0.1));
  EXPECT_EQ(thrower.fired, 1);
  EXPECT_EQ(later.fired, 1) << "the loop kept running";

  CountingCallback cb;
  cb.throwIt = cb.swallow = true;
  auto c = getCallbackControl(&cb);
  c->requestCallback();
  EXPECT_NO_THROW(doEventLoop(0.02));
  EXPECT_EQ(cb.calls, 1);

  Pipe p;
  PipeHandler fh;
  fh.throwIt = fh.swallow = true;
  auto f = getFdControl(&fh);
  f->setFd(p.fds[0]);
  p.put();
  EXPECT_NO_THROW(doEventLoop(0.02));
  EXPECT_EQ(fh.exceptionFd, p.fds[0]);
}

TEST(HandlerExceptions, LeaveTheLoopByDefaultAndTheLoopStaysUsable) {
  CountingTimeout thrower;
  thrower.throwIt = true;
  auto t = getTimerControl(&thrower);
  t->setTimeout(0.0);
  EXPECT_THROW(doEventLoop(5.0), std::runtime_error);
  // The break event is gone and the base is not stuck "running".
  expectLoopEmpty();

  CountingCallback cb;
  cb.throwIt = true;
  auto c = getCallbackControl(&cb);
  c->requestCallback();
  EXPECT_THROW(doEventLoopInWaitfor(5.0), std::runtime_error);
  EXPECT_FALSE(c->pendingCallback());
  expectLoopEmpty();

  Pipe p;
  PipeHandler fh;
  fh.throwIt = true;
  auto f = getFdControl(&fh);
  f->setFd(p.fds[0]);
  p.put();
  EXPECT_THROW(doEventLoop(), std::runtime_error);
  EXPECT_EQ(fh.exceptionFd, p.fds[0]);
  f->delFd();

  CountingTimeout fine;
  auto t2 = getTimerControl(&fine);
  t2->setTimeout(0.0);
  doEventLoop(0.02);
  EXPECT_EQ(fine.fired, 1);
}

TEST(HandlerExceptions, UnhandledExceptionBreaksThePassBeforeLaterHandlers) {
  CountingTimeout thrower, other;
  thrower.throwIt = true;
  auto t1 = getTimerControl(&thrower, eventPriorityStrictHigh);
  auto t2 = getTimerControl(&other, eventPriorityDefault);
  t1->setTimeout(0.0);
  t2->setTimeout(0.0);
  EXPECT_THROW(doEventLoop(1.0), std::runtime_error);
  EXPECT_EQ(other.fired, 0);
  doEventLoop(0.02);  // delivered on the next run
  EXPECT_EQ(other.fired, 1);
}

// ---- the loop ----

TEST(EventLoop, BoundedRunReturnsAfterItsTimeout) {
  const double took = timed([] { eventLoopTimeout(0.05); });
  EXPECT_GE(took, 0.045);
  EXPECT_LT(took, 2.0);
  EXPECT_LT(timed([] { doEventLoop(-1.0); }), 2.0);
  expectLoopEmpty();
}

TEST(EventBase, OnePerThreadRegisteredOnceAndFreed) {
  std::thread([] {
    EXPECT_FALSE(leInitialized());
    CountingTimeout h;
    auto a = getTimerControl(&h);
    event_base* base = leInit();
    auto b = getCallbackControl(nullptr);
    EXPECT_EQ(leInit(), base);
    EXPECT_TRUE(leInitialized());
    EXPECT_FALSE(leMainThread());
    leRegisterBase(base);  // the same base again is fine
    event_base* other = leCreateBase();
    try {
      leRegisterBase(other);
      ADD_FAILURE() << "a second base was accepted";
    } catch (const AssertException& e) {
      EXPECT_THAT(e.message(), HasSubstr("but a thread_local  base already exists: "));
    }
    event_base_free(other);
    a.reset();
    b.reset();
    leFree();
    EXPECT_FALSE(leInitialized());
    leFree();
  }).join();
  leInit();
  EXPECT_TRUE(leMainThread());
}

TEST(EventBase, LibeventLogAndFatalErrorsReachTraceAndAssertions) {
  EXPECT_NO_THROW(le_debug_cb(EVENT_LOG_WARN, "a warning"));
  try {
    le_debug_cb(7, "odd");
    ADD_FAILURE();
  } catch (const AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("invalid libevent severity:7 msg:odd"));
  }
  try {
    le_fatal_cb(42);
  } catch (const AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("libevent fatal error:42"));
  }
}

TEST(EventBase, ForkedChildRunsItsOwnLoopAfterReinit) {
  CountingTimeout parentTimer;
  auto t = getTimerControl(&parentTimer);
  t->setTimeout(30.0);
  const pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    int code = 0;
    try {
      leForkReinit();
      t->delTimeout();
      CountingCallback cb;
      auto c = getCallbackControl(&cb);
      c->requestCallback();
      CountingTimeout h;
      auto t2 = getTimerControl(&h);
      t2->setTimeout(0.01);
      doEventLoop(0.1);
      code = (cb.calls == 1 && h.fired == 1) ? 0 : 3;
    } catch (...) {
      code = 4;
    }
    ::_exit(code);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_GT(t->remainingTimeout(), 25.0) << "the parent's timer is untouched";
}

TEST(PlatformSwitches, UnsupportedAndDisabledOperationsAssert) {
  EXPECT_FALSE(releaseMode());
  for (auto f : {+[] { refCountingEnabledIs(true); }, +[] { (void)refCountingEnabled(); }}) {
    try {
      f();
      ADD_FAILURE();
    } catch (const AssertException& e) {
      EXPECT_THAT(e.message(), HasSubstr("not available in libTolan.so"));
    }
  }
  ASSERT_FALSE(fastForward());
  try {
    fastForwardBy(1.0);
    ADD_FAILURE();
  } catch (const AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("fast-forwarding disabled"));
  }
  EXPECT_EQ(leVirtualTimeOffset(), 0.0);
}

TEST(ValuePrinter, RegisteredPrinterElseHexDump) {
  const uint32_t v = 0x0a0b0cffu;
  EXPECT_EQ(getValuePrinter("EventTestU32", 4)->toString(&v), "ff 0c 0b 0a");
  registerValuePrinter("EventTestU32", +[](const void* p) { return std::to_string(*static_cast<const uint32_t*>(p)); });
  EXPECT_EQ(getValuePrinter("EventTestU32", 4)->toString(&v), std::to_string(v));
  registerValuePrinter("EventTestEmpty", +[](const void*) { return std::string(); });
  EXPECT_EQ(getValuePrinter("EventTestEmpty", 2)->toString(&v), "ff 0c");
  registerValuePrinter("EventTestU32", nullptr);
  EXPECT_EQ(getValuePrinter("EventTestU32", 1)->toString(&v), "ff");
}
