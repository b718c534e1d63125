// The timer wheel's own promises under virtual time (its TimerControl keeps
// the contract of ControlContractTest, a control dropped by its own handler
// included; a thread's wheel at thread exit is in EventPlatformTest): order
// within one expiry, changes made by a notification, the master timer,
// destruction.
#include "Tolan/LibeventFactory.h"
#include "Tolan/TimerWheel.h"
#include "support/Support.h"

using Tolan::TimerWheel;
using namespace Tolan::Platform;
using namespace TolanTest;

// Appends its id to `order` when it fires; `onFire` may then act on the wheel.
struct Event : Tolan::TimerWheelEvent {
  Event(std::vector<int>* order, int id) : order(order), id(id) {}
  void timeout() override {
    order->push_back(id);
    if (onFire) onFire();
  }
  std::vector<int>* order;
  int id;
  std::function<void()> onFire;
};

class TimerWheelTest : public Test {
 protected:
  void SetUp() override { setFastForward(true); }
  void TearDown() override { setFastForward(false); }
  // Delay to the first event-loop timer: the wheel's master timer.
  static double masterDelay() {
    timeval d;
    return Tolan::fastForwardDelayToFirstTimer(&d) ? static_cast<double>(d.tv_sec) + d.tv_usec / 1e6 : kInf;
  }
  std::shared_ptr<TimerWheel> wheel = Tolan::getTimerWheelForTaskScheduler(eventPriorityDefault);
  std::vector<int> order;
};

// Timers of one delay fire in start order (their expiries are equal or
// increasing either way); a notification may stop or restart timers due in
// the same round.
TEST_F(TimerWheelTest, StartOrderWinsAndNotificationsMayChangeTimersDueInTheSameRound) {
  Event a(&order, 0), b(&order, 1), c(&order, 2), d(&order, 3), e(&order, 4), f(&order, 5);
  a.onFire = [&] {
    b.delTimeout(wheel);       // due now: must not fire
    c.setTimeout(wheel, 1.0);  // due now: moves a second later
    a.setTimeout(wheel, 2.0);  // itself: fires again later
  };
  for (Event* ev : {&a, &b, &c, &d, &e, &f}) ev->setTimeout(wheel, 0.2);
  doEventLoop(0.5);
  EXPECT_EQ(order, (std::vector<int>{0, 3, 4, 5}));
  a.onFire = nullptr;
  doEventLoop(2.0);
  EXPECT_EQ(order, (std::vector<int>{0, 3, 4, 5, 2, 0}));
  EXPECT_FALSE(b.running());
}

TEST_F(TimerWheelTest, OneMasterTimerFollowsTheEarliestAndGoesWithTheLast) {
  Event a(&order, 0), b(&order, 1);
  EXPECT_EQ(masterDelay(), kInf);
  a.setTimeout(wheel, 30.0);
  b.setTimeout(wheel, 0.05);
  EXPECT_LE(masterDelay(), b.remainingTimeout() + 2e-4);
  // Stopping does not disarm at once; the next firing finds nothing and deletes it.
  a.delTimeout(wheel);
  b.delTimeout(wheel);
  EXPECT_LT(masterDelay(), kInf);
  doEventLoop(60.0);
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(masterDelay(), kInf);
}

// The warning is shown by default; the events are left safe to destroy. A
// running event may not be destroyed.
TEST_F(TimerWheelTest, DestroyingAWheelDetachesItsTimers) {
  Event a(&order, 0), b(&order, 1);
  EXPECT_ABORTS(
      {
        auto* ev = new Event(&order, 9);
        ev->setTimeout(wheel, 1.0);
        delete ev;
      },
      "TimerWheelEvent 0x[0-9a-f]+ destroyed while inTimerWheel");
  a.setTimeout(wheel, 100.0);   // waits in the timing wheel
  b.setTimeout(wheel, 0.0099);  // within the current tick: in the exact-time map
  EXPECT_THAT(traceOf([&] { wheel.reset(); }), HasSubstr(" TolanTimerWheel 1 TimerWheel::~TimerWheel() wheel "));
  EXPECT_TRUE(order.empty());
  EXPECT_FALSE(a.running() || b.running());
}
