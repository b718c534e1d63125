// The event platform on libevent beyond the control contract
// (ControlContractTest): descriptors, priorities, the loop, the thread's base.
#include <event2/event.h>
#include <fcntl.h>

#include "Tolan/LibeventFactory.h"
#include "support/Support.h"

using namespace Tolan;
using namespace Tolan::Platform;
using namespace TolanTest;

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe(fds), 0); }
  ~Pipe() { ::close(fds[0]), ::close(fds[1]); }
  void put() { ASSERT_EQ(::write(fds[1], "x", 1), 1); }
  int fds[2] = {-1, -1};
};

TEST(FdControl, ReadInterestPersistsWriteInterestIsOneShotClearKeepsTheDescriptor) {
  Pipe p;
  Counting h, w;
  h.consume = false;
  auto c = getFdControl(&h), wc = getFdControl(&w);
  EXPECT_EQ(c->getFd(), -1);
  c->setFd(p.fds[0]);
  EXPECT_TRUE(::fcntl(p.fds[0], F_GETFL) & O_NONBLOCK);
  p.put();
  wc->setReads(false);
  wc->setWrites(true);
  wc->setFd(p.fds[1]);
  doEventLoop(0.02);
  EXPECT_GE(h.reads, 2) << "unconsumed data is reported on every pass";
  EXPECT_EQ(h.lastFd, p.fds[0]);
  EXPECT_EQ(w.writes, 1);
  wc->setWrites(true);
  c->clearEvents();
  EXPECT_EQ(c->getFd(), p.fds[0]);
  h.reads = 0;
  h.consume = true;
  doEventLoop(0.02);
  EXPECT_EQ(w.writes, 2);
  EXPECT_EQ(h.reads, 0);
  c->setReads(true);  // re-arms on the kept descriptor
  doEventLoop(0.02);
  EXPECT_EQ(h.reads, 1);
  c->delFd();
  EXPECT_EQ(c->getFd(), -1);
  p.put();
  c->setReads(true);  // no descriptor: arms nothing until the next setFd
  wc->setWrites(true);
  wc.reset();  // destruction lets go
  EXPECT_EQ(doEventLoop(), 1);
  EXPECT_EQ(w.writes, 2);
  c->setFd(p.fds[0]);
  doEventLoop(0.02);
  EXPECT_EQ(h.reads, 2);
}

TEST(FdControl, HandlerExceptionsLeaveTheLoopUnlessSwallowed) {
  for (bool swallow : {false, true}) {
    Pipe p;
    Counting h;
    h.throwIt = true;
    h.swallow = swallow;
    auto c = getFdControl(&h);
    c->setFd(p.fds[0]);
    p.put();
    if (swallow) {
      EXPECT_NO_THROW(doEventLoop(0.02));
    } else {
      EXPECT_THROW(doEventLoop(1.0), std::runtime_error);
    }
    EXPECT_EQ(h.reads, 1);
    EXPECT_EQ(h.exceptionFd, p.fds[0]);
    c->delFd();
    EXPECT_EQ(doEventLoop(), 1) << "a loop break event was left behind";
  }
}

TEST(FdControlDeathTest, ADescriptorThatIsNotOpenAborts) {
  Counting h;
  auto c = getFdControl(&h);
  EXPECT_ABORTS(c->setFd(987654), "flags >= 0");
}

// The strict-high timer is armed last yet runs first; its exception ends the
// pass, and the other timer comes with the next run.
TEST(EventPriority, HigherRunsFirstAndPrintsByName) {
  Counting thrower, other;
  thrower.throwIt = true;
  auto t2 = getTimerControl(&other, eventPriorityDefault), t1 = getTimerControl(&thrower, eventPriorityStrictHigh);
  t2->setTimeout(0.0);
  t1->setTimeout(0.0);
  EXPECT_THROW(doEventLoop(1.0), std::runtime_error);
  EXPECT_EQ(other.fired, 0);
  doEventLoop(0.02);
  EXPECT_EQ(other.fired, 1);
  for (auto [p, name] : {std::pair{eventPriorityStrictHigh, "eventPriorityStrictHigh"},
                         {eventPriorityDefault, "eventPriorityDefault"}, {EventPriority(2), ""}, {EventPriority(255), ""}}) {
    EXPECT_STREQ(eventPriorityToString(p), name);
    EXPECT_EQ(isEventPriorityValid(p), *name != '\0');
    EXPECT_EQ(fmt::format("{}", p), *name ? name : fmt::format("Invalid EventPriority={}", unsigned(p)));
  }
}

TEST(EventLoop, BoundedRunsWaitTheirTimeAndFailuresAreAssertions) {
  EXPECT_GE(realSeconds([] { eventLoopTimeout(0.05); }), 0.045);
  doEventLoop(-1.0);  // acts as 0
  EXPECT_EQ(doEventLoop(), 1);
  EXPECT_FALSE(releaseMode());
  EXPECT_THAT(traceOf([] { le_debug_cb(EVENT_LOG_WARN, "a warning"); }), HasSubstr(" TolanLibevent 1 a warning\n"));
  const std::pair<std::function<void()>, const char*> rows[] = {
      {[] { le_debug_cb(7, "odd"); }, "invalid libevent severity:7 msg:odd"},
      {[] { le_fatal_cb(42); }, "libevent fatal error:42"},
      {[] { doEventLoop(std::nan("")); }, "Invalid timeout nan"},
      {[] { refCountingEnabledIs(true); }, "not available in libTolan.so"},
      {[] { refCountingEnabled(); }, "not available in libTolan.so"}};
  for (const auto& [call, text] : rows) EXPECT_ASSERTS(call(), text);
}

TEST(EventBase, OnePerThreadRegisteredOnceAndFreedAndReinitialisedInAForkedChild) {
  std::thread([] {
    EXPECT_FALSE(leInitialized());
    Counting h;
    auto a = getTimerControl(&h);
    event_base* base = leInit();
    EXPECT_EQ(leInit(), base);
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
  Counting parent, h;
  auto t = getTimerControl(&parent);
  t->setTimeout(30.0);
  EXPECT_TRUE(leMainThread());
  EXPECT_EQ(exitStatusInChild([&] {
              leForkReinit();
              t->delTimeout();
              auto c = getCallbackControl(&h);
              auto t2 = getTimerControl(&h);
              c->requestCallback();
              t2->setTimeout(0.01);
              doEventLoop(0.1);
              return h.calls == 1 && h.fired == 1 ? 0 : 3;
            }),
            0);
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
