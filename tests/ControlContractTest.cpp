// The contract of TimerControl and CallbackControl (Tolan/Platform.h), run
// against every implementation, each in real time and under fast-forward.
//
// An implementation is a row: a name and a factory for its control, seen
// through what all controls share (Control: arm, disarm, pending). Timer rows
// also run TimerContract. The task-backed controls join as one more row in
// kTimers and one in kCallbacks, whose factories make them on a scheduler.
#include "Tolan/TimerWheel.h"
#include "support/Support.h"

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
const Row kTimers[] = {
    {"Libevent", [](Counting* h) { return Control{getTimerControl(h), nullptr}; }},
    {"LibeventStrictHigh", [](Counting* h) { return Control{getTimerControl(h, eventPriorityStrictHigh), nullptr}; }},
    {"TimerWheel", [](Counting* h) { return Control{getTimerControl(h, testWheel()), nullptr}; }}};
const Row kCallbacks[] = {{"Libevent", [](Counting* h) { return Control{nullptr, getCallbackControl(h)}; }}};

// The event library keeps microseconds; under fast-forward a jump lands 100
// microseconds past the timer it aims at.
constexpr double kResolution = 2e-6, kJump = 3e-4;

class ControlContract : public TestWithParam<std::tuple<Row, bool>> {
 protected:
  void SetUp() override { setFastForward(virtualTime()); }
  void TearDown() override { setFastForward(false); }
  bool virtualTime() const { return std::get<1>(GetParam()); }
  Control make(Counting& h) const { return std::get<0>(GetParam()).make(&h); }
};
class TimerContract : public ControlContract {};

static std::string rowName(const TestParamInfo<ControlContract::ParamType>& info) {
  return std::string(std::get<0>(info.param).name) + (std::get<1>(info.param) ? "Virtual" : "Real");
}
INSTANTIATE_TEST_SUITE_P(Timers, ControlContract, Combine(ValuesIn(kTimers), Bool()), rowName);
INSTANTIATE_TEST_SUITE_P(Callbacks, ControlContract, Combine(ValuesIn(kCallbacks), Bool()), rowName);
INSTANTIATE_TEST_SUITE_P(Timers, TimerContract, Combine(ValuesIn(kTimers), Bool()), rowName);

TEST_P(ControlContract, RepeatedArmsNotifyOnceDisarmAndDestructionWithdraw) {
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
  c.arm();
  c = Control();
  EXPECT_EQ(doEventLoop(), 1) << "nothing may be left to run";
  EXPECT_EQ(h.notified(), 1);
}

// For timers: armed from the handler, with no drift and no time lost.
TEST_P(ControlContract, NotificationMayArmAgain) {
  Counting h;
  Control c = make(h);
  const double period = virtualTime() ? 1.5 : 0.01;
  h.then = [&] {
    if (h.notified() < 5) c.arm(period);
  };
  c.arm(period);
  // Under fast-forward only a bounded run skips every wait.
  const double took = realSeconds([&] { virtualTime() ? doEventLoop(10.0) : (void)doEventLoop(); });
  EXPECT_EQ(h.notified(), 5);
  for (size_t i = 1; i < h.at.size(); ++i) {
    EXPECT_GE(h.at[i] - h.at[i - 1], period - kResolution) << i;
    EXPECT_LE(h.at[i] - h.at[i - 1], period + took + kJump) << i;
  }
}

// A handler's exception leaves the loop entry point (each of them, the wait
// loop's used as a wait loop does) unless the handler swallows it; what was due
// behind it comes with the next loop call, and no loop break event is left.
TEST_P(ControlContract, HandlerExceptionsLeaveTheLoopUnlessSwallowed) {
  for (int run = 0; run < 4; ++run) {
    SCOPED_TRACE(run);
    Counting bad, good;
    bad.throwIt = true;
    bad.swallow = run == 3;
    const std::function<void()> entryPoints[] = {
        [] { doEventLoop(1.0); }, [&] { while (!bad.notified()) doEventLoopInWaitfor(1.0); }, [] { doEventLoop(); }};
    Control b = make(bad), g = make(good);
    b.arm();
    g.arm();
    if (bad.swallow) {
      EXPECT_NO_THROW(doEventLoop(0.1));
      EXPECT_EQ(good.notified(), 1) << "the loop stopped";
    } else {
      EXPECT_THROW(entryPoints[run](), std::runtime_error);
      doEventLoop(0.1);
    }
    EXPECT_EQ(bad.notified(), 1);
    EXPECT_EQ(good.notified(), 1) << "the other due notification was stranded";
    EXPECT_FALSE(b.pending() || g.pending());
    b = g = Control();
    EXPECT_EQ(doEventLoop(), 1);
  }
}

TEST_P(TimerContract, ReArmingReplacesAndExpiryIsExactNeverEarly) {
  Counting h;
  auto t = make(h).timer;
  EXPECT_EQ(t->remainingTimeout(), kInf);
  const double start = Tolan::time();
  t->setTimeout(10.0);
  t->setTimeout(0.015);  // between two 10 ms ticks
  EXPECT_GT(t->remainingTimeout(), 0.0);
  EXPECT_LE(t->remainingTimeout(), 0.015);
  const double took = realSeconds([] { doEventLoop(0.2); });
  ASSERT_EQ(h.at.size(), 1u);
  EXPECT_GE(h.at[0] - start, 0.015 - kResolution);
  // Late only by the real time spent (under fast-forward a timer fired on a tick would be 5 ms late).
  EXPECT_LE(h.at[0] - start - 0.015, took + kJump);
  EXPECT_EQ(t->remainingTimeout(), kInf);
  t->setTimeout(0.01);
  t->setTimeout(5.0);  // later: the earlier arming goes too
  doEventLoop(0.1);
  EXPECT_EQ(h.fired, 1);
  EXPECT_GT(t->remainingTimeout(), 4.0);
  t->setTimeout(-3.0);  // past: due at once
  EXPECT_EQ(t->remainingTimeout(), 0.0) << "due but not yet delivered";
  doEventLoop(0.05);
  EXPECT_EQ(h.fired, 2);
  EXPECT_EQ(t->remainingTimeout(), kInf);
}

TEST_P(TimerContract, BadTimeoutsAreRefusedAndHugeOnesClamped) {
  Counting h;
  auto t = make(h).timer;
  for (auto [value, text] : {std::pair{std::nan(""), "Invalid timeout nan"}, {kInf, "Invalid timeout inf"},
                             {-kInf, "Invalid timeout -inf"}})
    EXPECT_ASSERTS(t->setTimeout(value), text);
  EXPECT_EQ(t->remainingTimeout(), kInf) << "a refused timeout arms nothing";
  t->setTimeout(1e300);
  EXPECT_GT(t->remainingTimeout(), kMaxTimeoutSeconds - 10);
  EXPECT_LE(t->remainingTimeout(), kMaxTimeoutSeconds);
}

// Every third is stopped, every seventh started once more; each of the others
// fires once, never early, in order of expiry.
TEST_P(TimerContract, ManyTimersFireOnceInExpiryOrder) {
  constexpr int kCount = 300;
  const double span = virtualTime() ? 3600.0 : 0.3;
  std::mt19937 rng(42);
  std::vector<Counting> handlers(kCount);
  std::vector<std::shared_ptr<TimerControl>> timers;
  std::vector<double> due(kCount), realAt(kCount);
  std::vector<int> order, times(kCount);
  auto start = [&](int i) {
    const double delay = std::uniform_real_distribution<double>(0.0, span)(rng);
    due[i] = Tolan::time() + delay;
    timers[i]->setTimeout(delay);
  };
  for (int i = 0; i < kCount; ++i) {
    handlers[i].then = [&, i] {
      order.push_back(i);
      realAt[i] = realNow();
    };
    timers.push_back(make(handlers[i]).timer);
    start(i);
  }
  for (int i = 0; i < kCount; i += 3) timers[i]->delTimeout();
  for (int i = 1; i < kCount; i += 7) start(i);
  const double loopStart = realNow();
  virtualTime() ? doEventLoop(span + 1.0) : (void)doEventLoop();
  for (size_t k = 0; k < order.size(); ++k) {
    const int i = order[k];
    ++times[i];
    EXPECT_GE(handlers[i].at.back(), due[i] - kResolution) << "timer " << i << " fired early";
    // Under fast-forward a timer is late only by the real time since the one
    // before: moved timeouts must not pick up lateness on every jump.
    if (virtualTime()) {
      EXPECT_LE(handlers[i].at.back() - due[i], realAt[i] - (k ? realAt[order[k - 1]] : loopStart) + 1e-3) << i;
    }
    // Our due times are read a little apart from the control's own.
    EXPECT_LE(k ? due[order[k - 1]] : 0.0, due[i] + 2e-5) << "positions " << k - 1 << ", " << k;
  }
  for (int i = 0; i < kCount; ++i) EXPECT_EQ(times[i], i % 3 != 0 || i % 7 == 1 ? 1 : 0) << "timer " << i;
}
