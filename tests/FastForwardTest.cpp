// Virtual time beyond the control contract (ControlContractTest runs every
// timer and callback under fast-forward): stepping by hand, the unbounded
// loop, the switch.
//
// Waits here are hours long: should the loop ever wait in real time, the test
// hangs until the test driver's time limit ends it.
#include "Tolan/LibeventFactory.h"
#include "support/Support.h"

using namespace Tolan;
using namespace Tolan::Platform;
using namespace TolanTest;
constexpr double kHour = 3600.0;

class FastForward : public Test {
 protected:
  void SetUp() override { setFastForward(true); }
  void TearDown() override { setFastForward(false); }
  static double delay() {
    timeval d{-1, -1};
    return fastForwardDelayToFirstTimer(&d) ? static_cast<double>(d.tv_sec) + d.tv_usec / 1e6 : kInf;
  }
};

// The delay to the first timer, and each way of advancing: to the first timer
// but no further than a maximum, by a given amount, or unbounded.
TEST_F(FastForward, AdvancingMovesClockAndTimersTogether) {
  Counting h;
  auto t = getTimerControl(&h);
  const double before = leVirtualTimeOffset();
  EXPECT_EQ(delay(), kInf) << "no timers";
  eventLoopFastForwardToFirstTimer(5.0);  // no timers: all of it
  EXPECT_DOUBLE_EQ(leVirtualTimeOffset() - before, 5.0);
  t->setTimeout(0.0);
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(delay(), 0.0) << "a due timer needs no advance";
  doEventLoopInWaitfor(kHour);
  EXPECT_EQ(h.fired, 1);
  EXPECT_DOUBLE_EQ(leVirtualTimeOffset() - before, 5.0);
  t->setTimeout(7.25);
  EXPECT_LE(delay(), 7.25 + 101e-6);  // just past it; the expiry is rounded up to the microsecond
  EXPECT_GT(delay(), 7.0);
  t->setTimeout(100.0);
  eventLoopFastForwardToFirstTimer(2.5);  // the timer is further: only the maximum
  EXPECT_DOUBLE_EQ(leVirtualTimeOffset() - before, 7.5);
  EXPECT_NEAR(t->remainingTimeout(), 97.25, 0.25);
  const double clock = Tolan::time();
  fastForwardBy(12.5);
  EXPECT_NEAR(Tolan::time() - clock, 12.55, 0.05);
  EXPECT_NEAR(t->remainingTimeout(), 84.75, 0.25);
  EXPECT_EQ(h.fired, 1);
  EXPECT_ASSERTS(fastForwardBy(-1.0), "Invalid fast-forward amount -1");
  EXPECT_ASSERTS(fastForwardBy(std::nan("")), "Invalid fast-forward amount nan");
  const double start = Tolan::time();
  t->setTimeout(kHour);
  EXPECT_EQ(doEventLoop(), 1) << "unbounded: the wait for the first timer is skipped too";
  ASSERT_EQ(h.at.size(), 2u);
  EXPECT_GE(h.at[1] - start, kHour - 2e-6);
}

TEST_F(FastForward, SwitchedOnlyOnTheMainThreadNotifiersOncePerChange) {
  std::thread([] { EXPECT_ASSERTS(setFastForward(false), "FastForward invoked from non-main thread"); }).join();
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
  const std::pair<std::function<void()>, const char*> rows[] = {
      {[] { fastForwardBy(1.0); }, "fast-forwarding disabled"},
      {[] { eventLoopFastForwardToFirstTimer(1.0); }, "Called without fastForward enabled"},
      {[&d] { fastForwardDelayToFirstTimer(&d); }, "Called without fast forward enabled"}};
  for (const auto& [call, text] : rows) EXPECT_ASSERTS(call(), text);
  setFastForward(true);
  EXPECT_EQ(calls, 2);
}
