// Virtual time: the loop skips waits while Tolan::time() moves on.
#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "Tolan/Assert.h"
#include "Tolan/Exception.h"
#include "Tolan/LibeventFactory.h"
#include "Tolan/Platform.h"

using namespace Tolan;
using namespace Tolan::Platform;
using ::testing::HasSubstr;

namespace {

const bool debugModeOn = [] {
  event_enable_debug_mode();
  throwOnAssertFailIs(true);
  return true;
}();

// The event library keeps microseconds; instants are truncated to them.
constexpr double kResolution = 2e-6;

struct Stamp : TimeoutHandler {
  void timeout() override { firedAt.push_back(Tolan::time()); }
  std::vector<double> firedAt;
};

template <typename F>
double realSeconds(F&& f) {
  auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class FastForward : public ::testing::Test {
 protected:
  void SetUp() override {
    leInit();
    setFastForward(true);
  }
  void TearDown() override { setFastForward(false); }
};

}  // namespace

TEST_F(FastForward, BoundedLoopSkipsTheWaitAndAdvancesExactly) {
  Stamp h;
  auto t = getTimerControl(&h);
  const double start = Tolan::time();
  t->setTimeout(10.0);
  double took = realSeconds([] { doEventLoop(60.0); });
  const double elapsed = Tolan::time() - start;
  EXPECT_LT(took, 5.0);
  ASSERT_EQ(h.firedAt.size(), 1u);
  EXPECT_GE(h.firedAt[0] - start, 10.0 - kResolution);
  EXPECT_LT(h.firedAt[0] - start, 10.0 + took + 0.001);
  EXPECT_GE(elapsed, 60.0);
  EXPECT_LT(elapsed, 60.0 + took + 0.001);
}

TEST_F(FastForward, ThousandTimersFireInExpiryOrderNeverEarly) {
  struct Timer : TimeoutHandler {
    void timeout() override {
      firedAt = Tolan::time();
      order->push_back(index);
    }
    int index = 0;
    double armedAt = 0, delay = 0, firedAt = -1;
    std::vector<int>* order = nullptr;
    std::shared_ptr<TimerControl> control;
  };
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> delayOf(0.0, 3600.0);
  std::vector<Timer> timers(1000);
  std::vector<int> order;
  std::vector<int> armOrder(timers.size());
  std::iota(armOrder.begin(), armOrder.end(), 0);
  std::shuffle(armOrder.begin(), armOrder.end(), rng);
  for (int i : armOrder) {
    Timer& t = timers[i];
    t.index = i;
    t.order = &order;
    t.delay = delayOf(rng);
    t.control = getTimerControl(&t);
    t.armedAt = Tolan::time();
    t.control->setTimeout(t.delay);
  }
  const double took = realSeconds([] { doEventLoop(3601.0); });
  EXPECT_LT(took, 30.0);
  ASSERT_EQ(order.size(), timers.size());
  double lateness = 0;
  for (const Timer& t : timers) {
    ASSERT_GE(t.firedAt, 0) << t.index;
    EXPECT_GE(t.firedAt, t.armedAt + t.delay - kResolution) << "timer " << t.index << " fired early";
    lateness = std::max(lateness, t.firedAt - (t.armedAt + t.delay));
  }
  // Virtual lateness is only the real time the loop spent between the jump and
  // the handler; moved timeouts must not pick up more on every jump.
  EXPECT_LT(lateness, 0.25);
  for (size_t k = 1; k < order.size(); ++k) {
    const Timer& a = timers[order[k - 1]];
    const Timer& b = timers[order[k]];
    // Timers due within one microsecond of each other may swap.
    EXPECT_LE(a.armedAt + a.delay, b.armedAt + b.delay + kResolution) << "positions " << k - 1 << ", " << k;
  }
}

TEST_F(FastForward, TimersArmedFromHandlersKeepTheirSpacing) {
  struct Ticker : TimeoutHandler {
    void timeout() override {
      at.push_back(Tolan::time());
      if (at.size() < 10) control->setTimeout(1.5);
    }
    std::vector<double> at;
    std::shared_ptr<TimerControl> control;
  } h;
  h.control = getTimerControl(&h);
  h.control->setTimeout(1.5);
  const double start = Tolan::time();
  doEventLoop(100.0);
  ASSERT_EQ(h.at.size(), 10u);
  EXPECT_GE(h.at[0] - start, 1.5 - kResolution);
  for (size_t i = 1; i < h.at.size(); ++i) {
    EXPECT_GE(h.at[i] - h.at[i - 1], 1.5 - kResolution) << i;
    EXPECT_LT(h.at[i] - h.at[i - 1], 1.6) << i;
  }
}

TEST_F(FastForward, DelayToFirstTimer) {
  timeval d{-1, -1};
  EXPECT_FALSE(fastForwardDelayToFirstTimer(&d)) << "no timers";
  EXPECT_EQ(d.tv_sec, -1);

  Stamp h;
  auto t = getTimerControl(&h);
  t->setTimeout(0.0);
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const double offset = leVirtualTimeOffset();
  ASSERT_TRUE(fastForwardDelayToFirstTimer(&d));
  EXPECT_EQ(d.tv_sec, 0);
  EXPECT_EQ(d.tv_usec, 0);
  doEventLoopInWaitfor(10.0);
  EXPECT_EQ(h.firedAt.size(), 1u);
  EXPECT_EQ(leVirtualTimeOffset(), offset) << "a due timer needs no advance";

  t->setTimeout(7.25);
  ASSERT_TRUE(fastForwardDelayToFirstTimer(&d));
  const double delay = static_cast<double>(d.tv_sec) + d.tv_usec / 1e6;
  EXPECT_GT(delay, 7.0);
  EXPECT_LE(delay, 7.25 + 100e-6);
  EXPECT_GE(delay, 7.25 - 0.01 + 100e-6);
}

TEST_F(FastForward, WithoutTimersTheMaximumIsAdvancedExactly) {
  const double before = leVirtualTimeOffset();
  eventLoopFastForwardToFirstTimer(5.0);
  EXPECT_DOUBLE_EQ(leVirtualTimeOffset() - before, 5.0);

  // A timer beyond the maximum: only the maximum is advanced.
  Stamp h;
  auto t = getTimerControl(&h);
  t->setTimeout(100.0);
  eventLoopFastForwardToFirstTimer(2.5);
  EXPECT_DOUBLE_EQ(leVirtualTimeOffset() - before, 7.5);
  EXPECT_TRUE(h.firedAt.empty());
  const double left = t->remainingTimeout();
  EXPECT_LE(left, 97.5);
  EXPECT_GT(left, 97.0);
}

TEST_F(FastForward, FastForwardByMovesClockAndTimersTogether) {
  Stamp h;
  auto t = getTimerControl(&h);
  t->setTimeout(30.0);
  const double before = Tolan::time();
  fastForwardBy(12.5);
  const double after = Tolan::time();
  EXPECT_GE(after - before, 12.5);
  EXPECT_LT(after - before, 12.6);
  EXPECT_LE(t->remainingTimeout(), 17.5);
  EXPECT_GT(t->remainingTimeout(), 17.0);
  EXPECT_TRUE(h.firedAt.empty()) << "fastForwardBy does not run the loop";
  EXPECT_THROW(fastForwardBy(-1.0), AssertException);
  EXPECT_THROW(fastForwardBy(std::numeric_limits<double>::quiet_NaN()), AssertException);
  EXPECT_GE(Tolan::time(), after);
}

TEST_F(FastForward, UnboundedLoopSkipsOnlyTheFirstWait) {
  Stamp h;
  auto t = getTimerControl(&h);
  const double start = Tolan::time();
  t->setTimeout(30.0);
  double took = realSeconds([] { EXPECT_EQ(doEventLoop(), 1); });
  EXPECT_LT(took, 5.0);
  ASSERT_EQ(h.firedAt.size(), 1u);
  EXPECT_GE(h.firedAt[0] - start, 30.0 - kResolution);
}

TEST_F(FastForward, HandlerExceptionStillLeavesTheLoop) {
  struct Thrower : TimeoutHandler {
    void timeout() override { throw std::logic_error("boom"); }
  } h;
  auto t = getTimerControl(&h);
  t->setTimeout(20.0);
  EXPECT_THROW(doEventLoop(60.0), std::logic_error);
  EXPECT_EQ(doEventLoop(), 1) << "no break event left behind";
}

TEST_F(FastForward, SwitchOnlyOnMainThreadAndNotifiersOncePerChange) {
  std::thread([] {
    try {
      setFastForward(false);
      ADD_FAILURE() << "switched from a second thread";
    } catch (const AssertException& e) {
      EXPECT_THAT(e.message(), HasSubstr("FastForward invoked from non-main thread"));
    }
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
  try {
    eventLoopFastForwardToFirstTimer(1.0);
    ADD_FAILURE();
  } catch (const AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("Called without fastForward enabled"));
  }
  timeval d;
  try {
    fastForwardDelayToFirstTimer(&d);
    ADD_FAILURE();
  } catch (const AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("Called without fast forward enabled"));
  }
  setFastForward(true);
  EXPECT_EQ(calls, 2);
}
