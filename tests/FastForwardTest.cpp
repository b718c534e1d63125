// Virtual time: the loop skips waits while Tolan::time() moves on. (Timers
// and callbacks under fast-forward: ControlContractTest.)
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
};

TEST_F(FastForward, LoopsSkipTheWaitsAndBoundedOnesEndExactlyOnTime) {
  Counting h;
  auto t = getTimerControl(&h);
  double start = Tolan::time();
  t->setTimeout(10 * kHour);
  const double took = realSeconds([] { doEventLoop(60 * kHour); });
  EXPECT_EQ(h.fired, 1);
  EXPECT_GE(Tolan::time() - start, 60 * kHour);
  EXPECT_LT(Tolan::time() - start, 60 * kHour + took + 1e-3);
  // Unbounded: the wait for the first timer is skipped too.
  start = Tolan::time();
  t->setTimeout(kHour);
  EXPECT_EQ(doEventLoop(), 1);
  ASSERT_EQ(h.at.size(), 2u);
  EXPECT_GE(h.at[1] - start, kHour - 2e-6);
}

TEST_F(FastForward, DelayToTheFirstTimer) {
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
  doEventLoopInWaitfor(kHour);
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
  EXPECT_ASSERTS(fastForwardBy(-1.0), "");
  EXPECT_ASSERTS(fastForwardBy(std::nan("")), "");
  EXPECT_GE(Tolan::time(), after);
}

TEST_F(FastForward, SwitchedOnlyOnTheMainThreadNotifiersOncePerChange) {
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
  const std::pair<std::function<void()>, const char*> rows[] = {
      {[] { fastForwardBy(1.0); }, "fast-forwarding disabled"},
      {[] { eventLoopFastForwardToFirstTimer(1.0); }, "Called without fastForward enabled"},
      {[&d] { fastForwardDelayToFirstTimer(&d); }, "Called without fast forward enabled"}};
  for (const auto& [call, text] : rows) EXPECT_ASSERTS(call(), text);
  setFastForward(true);
  EXPECT_EQ(calls, 2);
}
