// The event platform on libevent beyond the control contract
// (ControlContractTest): priorities, the loop, the thread's base.
#include <event2/event.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>

#include "Tolan/LibeventFactory.h"
#include "Tolan/Thread.h"
#include "Tolan/TimerWheel.h"
#include "support/Support.h"

using namespace Tolan;
using namespace Tolan::Platform;
using namespace TolanTest;

// Open descriptors below 1024, counted without opening one.
static int openFds() {
  int n = 0;
  for (int fd = 0; fd < 1024; ++fd) n += ::fcntl(fd, F_GETFD) != -1;
  return n;
}

// Failures that end the process: libevent's fatal error must not unwind
// through libevent, even under throwing assertions.
TEST(EventPlatformDeathTest, ProcessEndingFailures) {
  Counting h;
  auto c = getFdControl(&h);
  EXPECT_ABORTS(c->setFd(987654), "flags >= 0");
  EXPECT_DEATH(le_fatal_cb(42), "libevent fatal error:42");
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

// libevent's log severities land on their trace levels; the failures are
// assertions with their texts.
TEST(EventLoop, BoundedRunsWaitTheirTimeLibeventLogsAndFailures) {
  EXPECT_GE(realSeconds([] { eventLoopTimeout(0.05); }), 0.045);
  doEventLoop(-1.0);  // acts as 0
  EXPECT_EQ(doEventLoop(), 1);
  EXPECT_FALSE(releaseMode());
  setupTolanDebug("TolanLibevent/59");
  for (auto [severity, level] : {std::pair{EVENT_LOG_DEBUG, 9}, {EVENT_LOG_MSG, 5}, {EVENT_LOG_WARN, 1}, {EVENT_LOG_ERR, 0}})
    EXPECT_THAT(traceOf([s = severity] { le_debug_cb(s, "news"); }), HasSubstr(fmt::format(" TolanLibevent {} news\n", level)));
  clearTolanDebug("TolanLibevent/59");
  Counting h;
  const std::pair<std::function<void()>, const char*> rows[] = {
      {[] { le_debug_cb(7, "odd"); }, "invalid libevent severity:7 msg:odd"},
      {[&] { getTimerControl(&h, EventPriority(2)); }, "Failed to set priority on 0x"},
      {[&] { getTimerControl(&h, EventPriority(255)); }, " to Invalid EventPriority=255 rc -1"},
      {[] { doEventLoop(std::nan("")); }, "Invalid timeout nan"},
      {[] { refCountingEnabledIs(true); }, "not available in libTolan.so"},
      {[] { refCountingEnabled(); }, "not available in libTolan.so"}};
  for (const auto& [call, text] : rows) EXPECT_ASSERTS(call(), text);
}

// Without a base of its own, the child would share the parent's epoll set:
// its removal of a watch would silence the parent's.
TEST(EventBase, ReinitialisedInAForkedChild) {
  Counting parent, h;
  auto t = getTimerControl(&parent);
  t->setTimeout(30.0);
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  auto watch = getFdControl(&parent);
  watch->setFd(pipeFds[0]);
  EXPECT_TRUE(leMainThread());
  EXPECT_EQ(exitStatusInChild([&] {
              leForkReinit();
              t->delTimeout();
              watch->delFd();
              auto c = getCallbackControl(&h);
              auto t2 = getTimerControl(&h);
              c->requestCallback();
              t2->setTimeout(0.01);
              doEventLoop(0.1);
              return h.calls == 1 && h.fired == 1 ? 0 : 3;
            }),
            0);
  EXPECT_GT(t->remainingTimeout(), 25.0) << "the parent's timer is untouched";
  ASSERT_EQ(write(pipeFds[1], "x", 1), 1);
  doEventLoop(0.1);
  EXPECT_EQ(parent.reads, 1) << "the parent's watch is untouched";
  watch->delFd();
  close(pipeFds[0]);
  close(pipeFds[1]);
}

// One base per thread, registered once. However a thread ends, its base goes
// with the last of its users (the thread itself, controls, a thread's wheel),
// and every descriptor with it.
TEST(EventBase, GoesWithItsLastUserWhateverTheThreadDoes) {
  Counting h;
  const auto mainWheel = getTimerWheel();
  EXPECT_ASSERTS(leRegisterBase(nullptr), "");  // the unwinder takes its pipe before we count
  const int before = openFds();
  std::shared_ptr<TimerControl> kept;
  std::thread([&] {
    EXPECT_FALSE(leInitialized());
    event_base* base = leInit();
    EXPECT_EQ(leInit(), base);
    EXPECT_FALSE(leMainThread());
    leRegisterBase(base);  // the same base again is fine
    event_base* other = leCreateBase();
    EXPECT_ASSERTS(leRegisterBase(other), "but a thread_local  base already exists: ");
    event_base_free(other);
    auto t = getTimerControl(&h);
    t->setTimeout(60.0);
    leFree();  // t keeps the old base; arming again moves it to a new one
    leFree();  // without a base: nothing
    EXPECT_FALSE(leInitialized());
    t->setTimeout(0.0);
    doEventLoop(1.0);
    EXPECT_EQ(h.fired, 1);
    kept = getTimerControl(&h);  // outlives the thread, and with it the thread's base
    kept->setTimeout(60.0);
  }).join();
  EXPECT_GT(openFds(), before);
  kept.reset();
  EXPECT_EQ(openFds(), before);
  std::weak_ptr<TimerWheel> wheel;
  std::thread([&] {
    useThreadLocalSingletons();
    auto w = getTimerWheel();
    EXPECT_EQ(w, getTimerWheel());
    EXPECT_NE(w, mainWheel);
    wheel = w;
    getTimerControl(&h, w)->setTimeout(60.0);  // stopped at once; the master timer stays armed
    const int open = openFds();
    leFree();  // before the thread's wheel goes at thread exit
    EXPECT_EQ(openFds(), open) << "freed under the wheel";
  }).join();
  EXPECT_TRUE(wheel.expired());
  EXPECT_EQ(openFds(), before);
}

// Out of descriptors, making a base fails with its own message, returns what
// it took, and the thread can try again later.
TEST(EventBase, CreationWithoutDescriptorsFailsCleanly) {
  EXPECT_EQ(exitStatusInChild([] {
              Counting h;  // a first assertion lets the unwinder take its pipe now
              EXPECT_ASSERTS(getTimerControl(&h, EventPriority(2)), "Failed to set priority");
              leFree();
              const rlimit limit{64, 64};
              std::vector<int> filler;
              for (int fd; setrlimit(RLIMIT_NOFILE, &limit) == 0 && (fd = eventfd(0, 0)) >= 0;) filler.push_back(fd);
              for (size_t spare = 0; spare < 4; ++spare) {
                for (size_t i = 0; i < spare; ++i) ::close(filler[i]);
                const int open = openFds();
                // A plain check while starved: the sanitizers' own checks
                // behind gMock's matchers need a descriptor.
                bool refused = false;
                try {
                  leInit();
                } catch (const AssertException& e) {
                  refused = std::strstr(e.what(), "Failed to create event_base") != nullptr;
                }
                if (HasFailure() || !refused || openFds() != open || leInitialized()) return 4;
                for (size_t i = 0; i < spare; ++i) filler[i] = eventfd(0, 0);
              }
              for (int fd : filler) ::close(fd);
              return leInit() ? 0 : 5;
            }),
            0);
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
