// Virtual time: the loop skips waits while Tolan::time() moves on.
#include <event2/event.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <thread>

#include "Tolan/Assert.h"
#include "Tolan/LibeventFactory.h"
#include "support/EventTesting.h"

using namespace Tolan;
using namespace Tolan::Platform;
using TolanTest::Counting;
using TolanTest::realSeconds;

namespace {

const bool debugModeOn = TolanTest::debugModeAndThrowingAssertions();

// The event library keeps microseconds; instants are truncated to them.
constexpr double kResolution = 2e-6;

class FastForward : public ::testing::Test {
 protected:
  void SetUp() override {
    leInit();
    setFastForward(true);
  }
  void TearDown() override { setFastForward(false); }
};

}  // namespace

TEST_F(FastForward, LoopsSkipTheWaitsAdvanceExactlyAndLeaveNoBreakEventOnExceptions) {
  Counting h;
  auto t = getTimerControl(&h);
  h.then = [&] {
    if (h.fired < 10) t->setTimeout(1.5);
  };
  double start = Tolan::time();
  t->setTimeout(10.0);
  const double took = realSeconds([] { doEventLoop(60.0); });
  const double elapsed = Tolan::time() - start;
  EXPECT_LT(took, 5.0);
  EXPECT_GE(elapsed, 60.0);
  EXPECT_LT(elapsed, 60.0 + took + 0.001);
  ASSERT_EQ(h.at.size(), 10u);
  EXPECT_GE(h.at[0] - start, 10.0 - kResolution);
  EXPECT_LT(h.at[0] - start, 10.0 + took + 0.001);
  for (size_t i = 1; i < h.at.size(); ++i) {  // armed from the handler: no drift
    EXPECT_GE(h.at[i] - h.at[i - 1], 1.5 - kResolution) << i;
    EXPECT_LT(h.at[i] - h.at[i - 1], 1.6) << i;
  }
  // Unbounded: the wait for the first timer is skipped too.
  start = Tolan::time();
  t->setTimeout(30.0);
  EXPECT_LT(realSeconds([] { EXPECT_EQ(doEventLoop(), 1); }), 5.0);
  ASSERT_EQ(h.at.size(), 11u);
  EXPECT_GE(h.at[10] - start, 30.0 - kResolution);

  h.throwIt = true;
  t->setTimeout(20.0);
  EXPECT_THROW(doEventLoop(60.0), std::runtime_error);
  EXPECT_EQ(doEventLoop(), 1) << "no break event left behind";
}

TEST_F(FastForward, ThousandTimersFireInExpiryOrderNeverEarly) {
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> delayOf(0.0, 3600.0);
  std::vector<Counting> handlers(1000);
  std::vector<std::shared_ptr<TimerControl>> controls;
  std::vector<double> due(handlers.size());
  std::vector<int> order, armOrder(handlers.size());
  std::iota(armOrder.begin(), armOrder.end(), 0);
  std::shuffle(armOrder.begin(), armOrder.end(), rng);
  for (int i : armOrder) {
    const double delay = delayOf(rng);
    handlers[i].then = [&order, i] { order.push_back(i); };
    due[i] = Tolan::time() + delay;
    controls.push_back(getTimerControl(&handlers[i]));
    controls.back()->setTimeout(delay);
  }
  EXPECT_LT(realSeconds([] { doEventLoop(3601.0); }), 30.0);
  ASSERT_EQ(order.size(), handlers.size());
  double lateness = 0;
  for (size_t k = 0; k < order.size(); ++k) {
    const int i = order[k];
    ASSERT_EQ(handlers[i].at.size(), 1u) << "timer " << i;
    EXPECT_GE(handlers[i].at[0], due[i] - kResolution) << "timer " << i << " fired early";
    // Timers due within one microsecond of each other may swap.
    if (k) {
      EXPECT_LE(due[order[k - 1]], due[i] + kResolution) << "positions " << k - 1 << ", " << k;
    }
    lateness = std::max(lateness, handlers[i].at[0] - due[i]);
  }
  // Virtual lateness is only the real time the loop spent between the jump and
  // the handler; moved timeouts must not pick up more on every jump.
  EXPECT_LT(lateness, 0.25);
}

TEST_F(FastForward, DelayToFirstTimer) {
  timeval d{-1, -1};
  EXPECT_FALSE(fastForwardDelayToFirstTimer(&d)) << "no timers";
  EXPECT_EQ(d.tv_sec, -1);

  Counting h;
  auto t = getTimerControl(&h);
  t->setTimeout(0.0);
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const double offset = leVirtualTimeOffset();
  ASSERT_TRUE(fastForwardDelayToFirstTimer(&d));
  EXPECT_EQ(d.tv_sec, 0);
  EXPECT_EQ(d.tv_usec, 0);
  doEventLoopInWaitfor(10.0);
  EXPECT_EQ(h.fired, 1);
  EXPECT_EQ(leVirtualTimeOffset(), offset) << "a due timer needs no advance";

  t->setTimeout(7.25);
  ASSERT_TRUE(fastForwardDelayToFirstTimer(&d));
  const double delay = static_cast<double>(d.tv_sec) + d.tv_usec / 1e6;
  EXPECT_LE(delay, 7.25 + 100e-6);
  EXPECT_GE(delay, 7.25 - 0.01 + 100e-6);
}

TEST_F(FastForward, AdvancingByHandMovesClockAndTimersTogether) {
  Counting h;
  auto t = getTimerControl(&h);
  const double before = leVirtualTimeOffset();
  eventLoopFastForwardToFirstTimer(5.0);  // no timers: all of it
  EXPECT_DOUBLE_EQ(leVirtualTimeOffset() - before, 5.0);
  t->setTimeout(100.0);
  eventLoopFastForwardToFirstTimer(2.5);  // the timer is further: only the maximum
  EXPECT_DOUBLE_EQ(leVirtualTimeOffset() - before, 7.5);
  EXPECT_LE(t->remainingTimeout(), 97.5);
  EXPECT_GT(t->remainingTimeout(), 97.0);

  const double clock = Tolan::time();
  fastForwardBy(12.5);
  const double after = Tolan::time();
  EXPECT_GE(after - clock, 12.5);
  EXPECT_LT(after - clock, 12.6);
  EXPECT_LE(t->remainingTimeout(), 85.0);
  EXPECT_GT(t->remainingTimeout(), 84.5);
  EXPECT_EQ(h.fired, 0);
  EXPECT_THROW(fastForwardBy(-1.0), AssertException);
  EXPECT_THROW(fastForwardBy(std::nan("")), AssertException);
  EXPECT_GE(Tolan::time(), after);
}

TEST_F(FastForward, SwitchOnlyOnMainThreadAndNotifiersOncePerChange) {
  std::thread([] {
    EXPECT_ASSERTS(setFastForward(false), "FastForward invoked from non-main thread");
    leFree();
  }).join();
  EXPECT_TRUE(fastForward()) << "a refused switch changes nothing";

  static int calls;
  calls = 0;
  auto notifier = +[] { ++calls; };
  registerFastForwardChangeNotifier(notifier);
  registerFastForwardChangeNotifier(notifier);
  setFastForward(true);  // no change
  EXPECT_EQ(calls, 0);
  setFastForward(false);
  EXPECT_EQ(calls, 1);
  timeval d;
  EXPECT_ASSERTS(fastForwardBy(1.0), "fast-forwarding disabled");
  EXPECT_ASSERTS(eventLoopFastForwardToFirstTimer(1.0), "Called without fastForward enabled");
  EXPECT_ASSERTS(fastForwardDelayToFirstTimer(&d), "Called without fast forward enabled");
  setFastForward(true);
  EXPECT_EQ(calls, 2);
}
