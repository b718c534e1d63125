// The timer wheel's own promises under virtual time (its TimerControl keeps
// the contract of ControlContractTest): order within one expiry, changes made
// by a notification, the master timer, destruction, one wheel per thread.
#include "Tolan/LibeventFactory.h"
#include "Tolan/Thread.h"
#include "Tolan/TimerWheel.h"
#include "support/Support.h"

using Tolan::TimerWheel;
namespace P = Tolan::Platform;

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

class TimerWheelTest : public ::testing::Test {
 protected:
  void SetUp() override { P::setFastForward(true); }
  void TearDown() override { P::setFastForward(false); }
  // Delay to the first event-loop timer: the wheel's master timer.
  static double masterDelay() {
    timeval d;
    return Tolan::fastForwardDelayToFirstTimer(&d) ? static_cast<double>(d.tv_sec) + d.tv_usec / 1e6 : TolanTest::kInf;
  }
  std::shared_ptr<TimerWheel> wheel = Tolan::getTimerWheelForTaskScheduler(P::eventPriorityDefault);
  std::vector<int> order;
};

// Equal delays give equal or increasing expiries; start order wins either way.
TEST_F(TimerWheelTest, SameDelayFiresInStartOrder) {
  std::vector<std::unique_ptr<Event>> events;
  for (int i = 0; i < 6; ++i) {
    events.push_back(std::make_unique<Event>(&order, i));
    events[i]->setTimeout(wheel, 0.5);
  }
  P::doEventLoop(1.0);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5}));
}

TEST_F(TimerWheelTest, NotificationMayStopOrRestartTimersDueInTheSameRound) {
  Event a(&order, 0), b(&order, 1), c(&order, 2), d(&order, 3);
  a.onFire = [&] {
    b.delTimeout(wheel);       // due now: must not fire
    c.setTimeout(wheel, 1.0);  // due now: moves a second later
    a.setTimeout(wheel, 2.0);  // itself: fires again later
  };
  for (Event* e : {&a, &b, &c, &d}) e->setTimeout(wheel, 0.2);
  P::doEventLoop(0.5);
  EXPECT_EQ(order, (std::vector<int>{0, 3}));
  a.onFire = nullptr;
  P::doEventLoop(2.0);
  EXPECT_EQ(order, (std::vector<int>{0, 3, 2, 0}));
  EXPECT_FALSE(b.running());
}

TEST_F(TimerWheelTest, OneMasterTimerFollowsTheEarliestAndGoesWithTheLast) {
  Event a(&order, 0), b(&order, 1);
  EXPECT_EQ(masterDelay(), TolanTest::kInf);
  a.setTimeout(wheel, 30.0);
  b.setTimeout(wheel, 0.05);
  EXPECT_LE(masterDelay(), b.remainingTimeout() + 2e-4);
  // Stopping does not disarm at once; the next firing finds nothing and deletes it.
  a.delTimeout(wheel);
  b.delTimeout(wheel);
  EXPECT_LT(masterDelay(), TolanTest::kInf);
  P::doEventLoop(60.0);
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(masterDelay(), TolanTest::kInf);
}

TEST_F(TimerWheelTest, DestroyingAWheelDetachesItsTimers) {
  Event a(&order, 0), b(&order, 1);
  a.setTimeout(wheel, 100.0);   // waits in the timing wheel
  b.setTimeout(wheel, 0.0099);  // within the current tick: the next round moves it to the exact-time map
  wheel->timeout();
  wheel.reset();
  EXPECT_TRUE(order.empty());
  EXPECT_FALSE(a.running() || b.running());
}  // destroying a still linked event would end the process here

TEST_F(TimerWheelTest, DestroyingARunningEventEndsTheProcess) {
  EXPECT_ABORTS(
      {
        auto* ev = new Event(&order, 0);
        ev->setTimeout(wheel, 1.0);
        delete ev;
      },
      "TimerWheelEvent 0x[0-9a-f]+ destroyed while inTimerWheel");
}

TEST(TimerWheelSingleton, OnePerThreadWithThreadLocalSingletons) {
  auto mine = Tolan::getTimerWheel();
  EXPECT_EQ(mine, Tolan::getTimerWheel());
  std::weak_ptr<TimerWheel> other;
  std::thread([&] {
    Tolan::useThreadLocalSingletons();
    // The base outlives the thread-local objects made after this one, the
    // thread's wheel among them; the platform leaves freeing it to us.
    thread_local struct FreeBase {
      ~FreeBase() { Tolan::leFree(); }
    } freeBase;
    (void)freeBase;
    auto w = Tolan::getTimerWheel();
    EXPECT_NE(w, mine);
    EXPECT_EQ(w, Tolan::getTimerWheel());
    other = w;
  }).join();
  EXPECT_TRUE(other.expired()) << "the thread's wheel outlived its thread";
}
