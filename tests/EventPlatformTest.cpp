// The event platform in real time: controls, loop entry points, the base.
#include <event2/event.h>
#include <fcntl.h>
#include <sys/wait.h>

#include <cmath>
#include <thread>

#include "Tolan/Assert.h"
#include "Tolan/LibeventFactory.h"
#include "support/EventTesting.h"

using namespace Tolan;
using namespace Tolan::Platform;
using TolanTest::Counting;
using TolanTest::kInf;

namespace {

const bool debugModeOn = TolanTest::debugModeAndThrowingAssertions();

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe(fds), 0); }
  ~Pipe() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  void put() { ASSERT_EQ(::write(fds[1], "x", 1), 1); }
  int fds[2] = {-1, -1};
};

}  // namespace

TEST(TimerControl, ReArmingReplacesAndNeverDoublesAndDestructionDisarms) {
  Counting h;
  auto t = getTimerControl(&h);
  EXPECT_EQ(t->remainingTimeout(), kInf);
  t->setTimeout(10.0);
  t->setTimeout(0.01);
  EXPECT_GT(t->remainingTimeout(), 0.0);
  EXPECT_LE(t->remainingTimeout(), 0.01);
  doEventLoop(0.2);
  EXPECT_EQ(h.fired, 1);
  EXPECT_EQ(t->remainingTimeout(), kInf);
  t->setTimeout(0.01);  // re-armed later: the earlier, shorter arming is gone too
  t->setTimeout(5.0);
  doEventLoop(0.1);
  EXPECT_EQ(h.fired, 1);
  EXPECT_GT(t->remainingTimeout(), 4.0);
  t->delTimeout();
  t->delTimeout();
  EXPECT_EQ(t->remainingTimeout(), kInf);
  t->setTimeout(0.001);
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(t->remainingTimeout(), 0.0) << "due but not yet delivered";
  t.reset();
  EXPECT_EQ(doEventLoop(), 1) << "a destroyed control left its event armed";
  EXPECT_EQ(h.fired, 1);
}

TEST(TimerControl, BadTimeouts) {
  Counting h;
  auto t = getTimerControl(&h);
  for (double bad : {std::nan(""), kInf, -kInf}) EXPECT_ASSERTS(t->setTimeout(bad), "Invalid timeout");
  EXPECT_EQ(t->remainingTimeout(), kInf) << "a refused timeout arms nothing";
  t->setTimeout(-3.0);  // already past: next pass
  EXPECT_EQ(t->remainingTimeout(), 0.0);
  doEventLoop(0.05);
  EXPECT_EQ(h.fired, 1);
  t->setTimeout(1e300);  // clamped, not overflowed
  EXPECT_GT(t->remainingTimeout(), kMaxTimeoutSeconds - 10);
  EXPECT_LE(t->remainingTimeout(), kMaxTimeoutSeconds);
  EXPECT_ASSERTS(doEventLoop(std::nan("")), "Invalid timeout");
}

TEST(CallbackControl, RequestsCoalesceCancelWithdrawsAndCallbacksMayRequestAgain) {
  Counting h;
  auto c = getCallbackControl(&h);
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

  h.then = [&] {
    if (h.calls < 5) c->requestCallback();
  };
  c->requestCallback();
  EXPECT_EQ(doEventLoop(), 1);  // runs until nothing is left
  EXPECT_EQ(h.calls, 5);
  c->requestCallback();
  c.reset();  // destruction withdraws
  EXPECT_EQ(doEventLoop(), 1);
  EXPECT_EQ(h.calls, 5);
}

TEST(FdControl, ReadInterestPersistsWriteInterestIsOneShot) {
  Pipe p;
  Counting h, w;
  h.consume = false;
  auto c = getFdControl(&h);
  c->setFd(p.fds[0]);
  EXPECT_TRUE(::fcntl(p.fds[0], F_GETFL) & O_NONBLOCK);
  p.put();
  doEventLoop(0.02);
  EXPECT_GE(h.reads, 2) << "unconsumed data is reported on every pass";
  EXPECT_EQ(h.lastFd, p.fds[0]);

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

TEST(FdControl, ClearEventsKeepsDescriptorDelFdForgetsIt) {
  Pipe p;
  Counting h;
  auto c = getFdControl(&h);
  EXPECT_EQ(c->getFd(), -1);
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
  c->setReads(true);  // no descriptor: arms nothing until the next setFd
  EXPECT_EQ(doEventLoop(), 1);
  c->setFd(p.fds[0]);
  doEventLoop(0.02);
  EXPECT_EQ(h.reads, 2);
  c.reset();
  EXPECT_EQ(doEventLoop(), 1);
}

TEST(FdControl, DescriptorClosedWhileWatchedCanBeReleasedAndItsNumberReused) {
  Counting h, h2;
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
  auto c2 = getFdControl(&h2);
  c2->setFd(p.fds[0]);
  p.put();
  doEventLoop(0.02);
  EXPECT_EQ(h2.reads, 1);
}

TEST(FdControlDeathTest, DescriptorThatIsNotOpenAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Counting h;
  auto c = getFdControl(&h);
  EXPECT_DEATH(c->setFd(987654), "flags >= 0");
}

// For each kind of control: the handler's exception operation decides between
// swallowing and leaving the loop, and no break event is left behind.
TEST(HandlerExceptions, SwallowedOrLeaveTheLoopAsTheHandlerDecides) {
  for (int run = 0; run < 6; ++run) {
    const int kind = run % 3;  // timer, callback, descriptor
    const bool swallow = run >= 3;
    SCOPED_TRACE(::testing::Message() << "kind " << kind << (swallow ? ", swallowed" : ""));
    Pipe p;
    Counting h, later;
    h.throwIt = true;
    h.swallow = swallow;
    auto t = getTimerControl(&h);
    auto c = getCallbackControl(&h);
    auto f = getFdControl(&h);
    auto l = getTimerControl(&later);
    if (kind == 0) t->setTimeout(0.0);
    if (kind == 1) c->requestCallback();
    if (kind == 2) f->setFd(p.fds[0]);
    p.put();
    l->setTimeout(0.05);
    if (swallow) {
      EXPECT_NO_THROW(doEventLoop(0.2));
      EXPECT_EQ(later.fired, 1) << "the loop kept running";
    } else {  // each through another entry point
      EXPECT_THROW(kind == 0 ? doEventLoop(5.0) : kind == 1 ? doEventLoopInWaitfor(5.0) : (void)doEventLoop(),
                   std::runtime_error);
    }
    EXPECT_EQ(h.fired + h.calls + h.reads, 1);
    EXPECT_FALSE(c->pendingCallback());
    EXPECT_EQ(h.exceptionFd, kind == 2 ? p.fds[0] : -2);
    f->delFd();
    l->delTimeout();
    EXPECT_EQ(doEventLoop(), 1) << "the loop's break event was left behind";
  }
}

// The strict-high timer is armed last yet runs first; its exception ends the
// pass, and the other timer is delivered by the next run.
TEST(HandlerExceptions, HigherPriorityRunsFirstAndAnUnhandledExceptionEndsThePass) {
  Counting thrower, other;
  thrower.throwIt = true;
  auto t2 = getTimerControl(&other, eventPriorityDefault);
  auto t1 = getTimerControl(&thrower, eventPriorityStrictHigh);
  t2->setTimeout(0.0);
  t1->setTimeout(0.0);
  EXPECT_THROW(doEventLoop(1.0), std::runtime_error);
  EXPECT_EQ(other.fired, 0);
  doEventLoop(0.02);
  EXPECT_EQ(other.fired, 1);
}

TEST(EventLoop, BoundedRunReturnsAfterItsTimeout) {
  const double took = TolanTest::realSeconds([] { eventLoopTimeout(0.05); });
  EXPECT_GE(took, 0.045);
  EXPECT_LT(took, 2.0);
  EXPECT_LT(TolanTest::realSeconds([] { doEventLoop(-1.0); }), 2.0);
  EXPECT_EQ(doEventLoop(), 1);
}

TEST(EventBase, OnePerThreadRegisteredOnceAndFreed) {
  std::thread([] {
    EXPECT_FALSE(leInitialized());
    Counting h;
    auto a = getTimerControl(&h);
    event_base* base = leInit();
    EXPECT_EQ(leInit(), base);
    EXPECT_TRUE(leInitialized());
    EXPECT_FALSE(leMainThread());
    leRegisterBase(base);  // the same base again is fine
    event_base* other = leCreateBase();
    EXPECT_ASSERTS(leRegisterBase(other), "but a thread_local  base already exists: ");
    event_base_free(other);
    a.reset();
    leFree();
    EXPECT_FALSE(leInitialized());
    leFree();
  }).join();
  leInit();
  EXPECT_TRUE(leMainThread());
}

TEST(EventBase, LibeventLogAndFatalErrorsReachTraceAndAssertions) {
  EXPECT_NO_THROW(le_debug_cb(EVENT_LOG_WARN, "a warning"));
  EXPECT_ASSERTS(le_debug_cb(7, "odd"), "invalid libevent severity:7 msg:odd");
  EXPECT_ASSERTS(le_fatal_cb(42), "libevent fatal error:42");
}

TEST(EventBase, ForkedChildRunsItsOwnLoopAfterReinit) {
  Counting parent, h;
  auto t = getTimerControl(&parent);
  t->setTimeout(30.0);
  const pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {  // never returns into the test framework
    try {
      leForkReinit();
      t->delTimeout();
      auto c = getCallbackControl(&h);
      auto t2 = getTimerControl(&h);
      c->requestCallback();
      t2->setTimeout(0.01);
      doEventLoop(0.1);
    } catch (...) {
      ::_exit(4);
    }
    ::_exit(h.calls == 1 && h.fired == 1 ? 0 : 3);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  EXPECT_GT(t->remainingTimeout(), 25.0) << "the parent's timer is untouched";
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
