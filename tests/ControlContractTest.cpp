// The contract of TimerControl, CallbackControl and FdControl
// (Tolan/Platform.h), run against every implementation; timers and callbacks
// each in real time and under fast-forward.
//
// An implementation is a row: a name and a factory for its control, seen
// through what all controls share (Control: arm, disarm, pending). Timer rows
// also run TimerContract. The task-backed controls join as one more row in
// kTimers, kCallbacks and kFds, whose factories make them on a scheduler.
#include <fcntl.h>

#include "Tolan/TaskControl.h"
#include "Tolan/TaskScheduler.h"
#include "Tolan/TimerWheel.h"
#include "support/FdTesting.h"

using namespace Tolan::Platform;
using namespace TolanTest;

// A timer is armed for `delay` seconds; a callback request ignores it.
struct Control {
  std::shared_ptr<TimerControl> timer;
  std::shared_ptr<CallbackControl> callback;
  void arm(double delay = 0.01) { timer ? timer->setTimeout(delay) : callback->requestCallback(); }
  void disarm() { timer ? timer->delTimeout() : callback->cancelCallback(); }
  bool pending() const { return timer ? timer->remainingTimeout() != kInf : callback->pendingCallback(); }
};

// The wheel timers of one test share a wheel, which goes with the last of them.
static std::shared_ptr<Tolan::TimerWheel> testWheel() {
  static std::weak_ptr<Tolan::TimerWheel> current;
  auto wheel = current.lock();
  if (!wheel) current = wheel = Tolan::getTimerWheelForTaskScheduler(eventPriorityDefault);
  return wheel;
}

struct Row {
  const char* name;
  Control (*make)(Counting* handler);
};
void PrintTo(const Row& row, std::ostream* os) { *os << row.name; }
const Row kTimers[] = {
    {"Libevent", [](Counting* h) { return Control{getTimerControl(h), nullptr}; }},
    {"LibeventStrictHigh", [](Counting* h) { return Control{getTimerControl(h, eventPriorityStrictHigh), nullptr}; }},
    {"TimerWheel", [](Counting* h) { return Control{getTimerControl(h, testWheel()), nullptr}; }},
    {"Task", [](Counting* h) {
       return Control{getTimerControl(h, Tolan::schedulerRootTolan(), Tolan::TaskPriority::normal, "timer"), nullptr};
     }}};
const Row kCallbacks[] = {
    {"Libevent", [](Counting* h) { return Control{nullptr, getCallbackControl(h)}; }},
    {"Task", [](Counting* h) {
       return Control{nullptr, getCallbackControl(h, Tolan::schedulerRootTolan(), Tolan::TaskPriority::normal, "cb")};
     }}};

// The event library keeps microseconds; under fast-forward a jump lands 100
// microseconds past the timer it aims at.
constexpr double kResolution = 2e-6, kJump = 3e-4;

class ControlContract : public TestWithParam<std::tuple<Row, bool>> {
 protected:
  void SetUp() override { setFastForward(virtualTime()); }
  void TearDown() override { setFastForward(false); }
  bool virtualTime() const { return std::get<1>(GetParam()); }
  Control make(Counting& h) const { return std::get<0>(GetParam()).make(&h); }
  // Runs the loop until nothing is left (under fast-forward a bounded run,
  // which skips every wait); returns the real seconds it took.
  double runOut(double bound) const {
    return realSeconds([&] { virtualTime() ? doEventLoop(bound) : (void)doEventLoop(); });
  }
};
class TimerContract : public ControlContract {};

static std::string rowName(const TestParamInfo<ControlContract::ParamType>& info) {
  return std::string(std::get<0>(info.param).name) + (std::get<1>(info.param) ? "Virtual" : "Real");
}
INSTANTIATE_TEST_SUITE_P(Timers, ControlContract, Combine(ValuesIn(kTimers), Bool()), rowName);
INSTANTIATE_TEST_SUITE_P(Callbacks, ControlContract, Combine(ValuesIn(kCallbacks), Bool()), rowName);
INSTANTIATE_TEST_SUITE_P(Timers, TimerContract, Combine(ValuesIn(kTimers), Bool()), rowName);

// Repeated arms notify once, disarming and destruction withdraw; a timer
// armed from its handler has no drift and loses no time.
TEST_P(ControlContract, ArmsNotifyOnceDisarmWithdrawsAndHandlersMayArmAgain) {
  Counting h, idle;
  Control c = make(h), other = make(idle);  // `other` keeps a shared wheel alive
  EXPECT_FALSE(c.pending());
  c.arm();
  c.arm();
  EXPECT_TRUE(c.pending());
  doEventLoop(0.1);
  EXPECT_EQ(h.notified(), 1);
  EXPECT_FALSE(c.pending());
  c.arm();
  c.disarm();
  c.disarm();
  EXPECT_FALSE(c.pending());
  doEventLoop(0.05);
  EXPECT_EQ(h.notified(), 1);
  const double period = virtualTime() ? 1.5 : 0.01;
  h.at.clear();
  h.then = [&] {
    if (h.notified() < 6) c.arm(period);
  };
  c.arm(period);
  const double took = runOut(10.0);
  EXPECT_EQ(h.notified(), 6);
  for (size_t i = 1; i < h.at.size(); ++i) {
    EXPECT_GE(h.at[i] - h.at[i - 1], period - kResolution) << i;
    EXPECT_LE(h.at[i] - h.at[i - 1], period + took + kJump) << i;
  }
  c.arm();
  c = Control();
  EXPECT_EQ(doEventLoop(), 1) << "nothing may be left to run";
}

// A handler's exception leaves each loop entry point (the wait loop's used as
// a wait loop does) unless the handler swallows it; what was due behind it
// comes with the next loop call, and no loop break event is left.
TEST_P(ControlContract, HandlerExceptionsLeaveTheLoopUnlessSwallowed) {
  const std::function<void()> entryPoints[] = {[] { doEventLoop(1.0); }, [] { doEventLoopInWaitfor(1.0); },
                                               [] { doEventLoop(); }, [] { doEventLoop(0.1); }};
  for (int run = 0; run < 4; ++run) {
    Counting bad, good;
    bad.throwIt = true;
    bad.swallow = run == 3;
    Control b = make(bad), g = make(good);
    b.arm();
    g.arm();
    bool threw = false;
    try {
      while (!bad.notified()) entryPoints[run]();
    } catch (const std::runtime_error&) {
      threw = true;
    }
    EXPECT_EQ(threw, !bad.swallow) << run;
    if (threw) doEventLoop(0.1);
    EXPECT_EQ(good.notified(), 1) << run << ": the other due notification was stranded";
    EXPECT_FALSE(b.pending() || g.pending()) << run;
    b = g = Control();
    EXPECT_EQ(doEventLoop(), 1) << run;
  }
}

// A handler may re-arm, then drop, its own control: for a wheel timer the
// wheel's last owner, for a task-backed one its task. The notification must
// end on live objects (the sanitizer build checks) and nothing stays armed.
TEST_P(ControlContract, AHandlerMayDropItsOwnControl) {
  Counting h;
  Control c = make(h);
  h.then = [&] { c.arm(1.0), c = Control(); };
  c.arm(0.0);
  runOut(5.0);
  EXPECT_EQ(h.notified(), 1);
  EXPECT_EQ(doEventLoop(), 1);
}

// Late only by the real time spent: under fast-forward a timer fired on a
// 10 ms tick, or behind a later one, would be milliseconds late.
TEST_P(TimerContract, ReArmingReplacesAndExpiryIsExactNeverEarly) {
  Counting h, later;
  auto t = make(h).timer, l = make(later).timer;
  EXPECT_EQ(t->remainingTimeout(), kInf);
  const auto armAndRun = [&](double delay) {
    const double start = Tolan::time();
    t->setTimeout(delay);
    EXPECT_GT(t->remainingTimeout(), 0.0);
    EXPECT_LE(t->remainingTimeout(), delay + 1e-9);
    const double took = realSeconds([] { doEventLoop(0.2); });
    ASSERT_FALSE(h.at.empty());
    EXPECT_GE(h.at.back() - start, delay - kResolution);
    EXPECT_LE(h.at.back() - start - delay, took + kJump);
    EXPECT_EQ(t->remainingTimeout(), kInf);
  };
  t->setTimeout(10.0);
  armAndRun(0.015);  // between two 10 ms ticks
  l->setTimeout(0.009);
  doEventLoop(0.0);  // a wheel's round takes the later timer into its exact-time map
  armAndRun(0.001);  // the shorter one, started after it, is not kept waiting
  EXPECT_EQ(later.fired, 1);
  t->setTimeout(0.01);
  t->setTimeout(5.0);  // later: the earlier arming goes too
  doEventLoop(0.1);
  EXPECT_EQ(h.fired, 2);
  EXPECT_GT(t->remainingTimeout(), 4.0);
  t->setTimeout(-3.0);  // past: due at once
  EXPECT_EQ(t->remainingTimeout(), 0.0) << "due but not yet delivered";
  doEventLoop(0.05);
  EXPECT_EQ(h.fired, 3);
  for (auto [value, text] : {std::pair{std::nan(""), "Invalid timeout nan"}, {kInf, "Invalid timeout inf"},
                             {-kInf, "Invalid timeout -inf"}})
    EXPECT_ASSERTS(t->setTimeout(value), text);
  EXPECT_EQ(t->remainingTimeout(), kInf) << "a refused timeout arms nothing";
  t->setTimeout(1e300);
  EXPECT_GT(t->remainingTimeout(), kMaxTimeoutSeconds - 10);
  EXPECT_LE(t->remainingTimeout(), kMaxTimeoutSeconds);
}

// Every third is stopped, every seventh started once more; each of the others
// fires once, never early, in order of expiry. A due time lies between the
// clock read before its setTimeout() and the one after, however long the call
// was held up. Under fast-forward, a bounded run ends exactly on time.
TEST_P(TimerContract, ManyTimersFireOnceInExpiryOrder) {
  constexpr int kCount = 300;
  const double span = virtualTime() ? 3600.0 : 0.3;
  std::mt19937 rng(42);
  std::vector<Counting> handlers(kCount);
  std::vector<std::shared_ptr<TimerControl>> timers;
  std::vector<double> earliest(kCount), latest(kCount), realAt(kCount);
  std::vector<int> order, times(kCount);
  auto start = [&](int i) {
    const double delay = std::uniform_real_distribution<double>(0.0, span)(rng);
    earliest[i] = Tolan::time() + delay;
    timers[i]->setTimeout(delay);
    latest[i] = Tolan::time() + delay;
  };
  for (int i = 0; i < kCount; ++i) {
    handlers[i].then = [&, i] { order.push_back(i), realAt[i] = realNow(); };
    timers.push_back(make(handlers[i]).timer);
    start(i);
  }
  for (int i = 0; i < kCount; i += 3) timers[i]->delTimeout();
  for (int i = 1; i < kCount; i += 7) start(i);
  const double loopStart = realNow(), clockStart = Tolan::time();
  const double took = runOut(span + 1.0);
  if (virtualTime()) {
    EXPECT_NEAR(Tolan::time() - clockStart, span + 1.0 + took / 2, took / 2 + 1e-5);
  }
  for (size_t k = 0; k < order.size(); ++k) {
    const int i = order[k], before = k ? order[k - 1] : i;
    ++times[i];
    EXPECT_GE(handlers[i].at.back(), earliest[i] - kResolution) << "timer " << i << " fired early";
    EXPECT_LE(earliest[before], latest[i] + kResolution) << "positions " << k - 1 << ", " << k;
    // Under fast-forward a timer is late only by the real time since the one
    // before: moved timeouts must not pick up lateness on every jump.
    if (virtualTime()) {
      EXPECT_LE(handlers[i].at.back() - latest[i], realAt[i] - (k ? realAt[before] : loopStart) + 1e-3) << i;
    }
  }
  for (int i = 0; i < kCount; ++i) EXPECT_EQ(times[i], i % 3 != 0 || i % 7 == 1 ? 1 : 0) << "timer " << i;
}

// Descriptor controls. The task-backed one runs its notifications as the
// named task and its write half, and its clearEvents() forgets the
// descriptor where the event library's keeps it.
struct FdRow {
  const char* name;
  std::shared_ptr<FdControl> (*make)(Counting* handler, const char* name);
  bool isTask;
};
void PrintTo(const FdRow& row, std::ostream* os) { *os << row.name; }
const FdRow kFds[] = {
    {"Libevent", [](Counting* h, const char*) { return getFdControl(h); }, false},
    {"Task", [](Counting* h, const char* name) {
       return getFdControl(h, Tolan::schedulerRootTolan(), Tolan::TaskPriority::high, name);
     }, true}};

class FdContract : public TestWithParam<FdRow> {
 protected:
  std::shared_ptr<FdControl> make(Counting& h, const char* name) const { return GetParam().make(&h, name); }
  // Read notifications in a short loop run after `data` went into the pipe.
  int readsAfter(Counting& h, const char* data) {
    const int before = h.reads;
    EXPECT_EQ(::write(pipe.b, data, std::strlen(data)), ssize_t(std::strlen(data)));
    doEventLoop(0.03);
    return h.reads - before;
  }
  FdPair pipe{FdPair::pipe};
};
INSTANTIATE_TEST_SUITE_P(Fds, FdContract, ValuesIn(kFds), [](const auto& info) { return std::string(info.param.name); });

// Fresh: no descriptor, reading. Read interest persists (unconsumed data is
// reported on every pass), write interest is one-shot; without a descriptor
// interest arms nothing; destruction lets go.
TEST_P(FdContract, InterestsPersistOrAreOneShotAndClearEventsKeepsOrForgets) {
  Counting h, w;
  auto c = make(h, "reader"), wc = make(w, "writer");
  EXPECT_EQ(c->getFd(), -1);
  c->setFd(pipe.a);
  EXPECT_TRUE(::fcntl(pipe.a, F_GETFL) & O_NONBLOCK);
  h.consume = false;
  EXPECT_GE(readsAfter(h, "x"), 2);
  EXPECT_EQ(h.lastFd, pipe.a);
  h.consume = true;
  doEventLoop(0.03);
  wc->setReads(false);
  wc->setFd(pipe.b);
  for (int i = 1; i <= 2; ++i) {  // one notification per setWrites(true)
    wc->setWrites(true);
    doEventLoop(0.03);
    EXPECT_EQ(w.writes, i);
  }
  if (GetParam().isTask) {
    const auto root = Tolan::schedulerRootTolan();
    EXPECT_EQ(root->taskForTest("writer:write")->taskRunCount(), 2u);
    EXPECT_EQ(root->taskForTest("reader")->taskPriority(), Tolan::TaskPriority::high);
  }
  c->clearEvents();
  EXPECT_EQ(c->getFd(), GetParam().isTask ? -1 : pipe.a);
  EXPECT_EQ(readsAfter(h, "y"), 0);
  GetParam().isTask ? c->setFd(pipe.a) : c->setReads(true);  // arms again, read interest kept
  EXPECT_EQ(readsAfter(h, ""), 1);
  c->setReads(false);
  EXPECT_EQ(readsAfter(h, "z"), 0);
  c->delFd();
  EXPECT_EQ(c->getFd(), -1);
  c->setReads(true);  // no descriptor: arms nothing until the next setFd
  wc->setWrites(true);
  wc.reset();  // destruction lets go
  EXPECT_EQ(doEventLoop(), 1);
  EXPECT_EQ(w.writes, 2);
  c->setFd(pipe.a);
  EXPECT_EQ(readsAfter(h, ""), 1);
}

// A throwing readFdEvent/writeFdEvent: handleFdException, told the
// descriptor, decides. Swallowed, notifications go on; otherwise the
// exception leaves the loop, and no loop break event is left behind.
TEST_P(FdContract, HandlerExceptionsSwallowedOrLeaveTheLoop) {
  for (int row = 0; row < 4; ++row) {
    const bool swallow = row & 1, write = row & 2;
    SCOPED_TRACE(row);
    Counting h;
    h.throwIt = true;
    h.swallow = swallow;
    auto c = make(h, "bad");
    c->setReads(!write);
    c->setWrites(write);
    c->setFd(write ? pipe.b : pipe.a);
    if (swallow) {
      EXPECT_EQ(readsAfter(h, "x"), write ? 0 : 1);
      EXPECT_EQ(readsAfter(h, "x"), write ? 0 : 1);
    } else {
      EXPECT_THROWS_WITH(readsAfter(h, "x"), std::runtime_error, "handler failed");
    }
    EXPECT_EQ(h.exceptionFd, write ? pipe.b : pipe.a);
    EXPECT_EQ(h.writes, write ? 1 : 0);
    c.reset();
    ::fcntl(pipe.a, F_SETFL, O_NONBLOCK);
    char drain[16];
    while (::read(pipe.a, drain, sizeof drain) > 0) {
    }
    EXPECT_EQ(doEventLoop(), 1);
  }
}
