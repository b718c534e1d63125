// The timer wheel under virtual time: exact expiries, order, state machine.
#include <cmath>
#include <memory>
#include <random>
#include <thread>

#include "Tolan/Assert.h"
#include "Tolan/LibeventFactory.h"
#include "Tolan/Thread.h"
#include "Tolan/TimerWheel.h"
#include "support/EventTesting.h"

namespace {

using Tolan::TimerWheel;
using Tolan::TimerWheelEvent;
using TolanTest::kInf;
namespace P = Tolan::Platform;

// Appends its id to `order` when it fires; `onFire` may then act on the wheel.
struct Event : TimerWheelEvent {
  Event(std::vector<int>* order, int id) : order(order), id(id) {}
  void timeout() override {
    order->push_back(id);
    firedAt = Tolan::time();
    if (onFire) onFire();
  }
  std::vector<int>* order;
  int id;
  double firedAt = -1;
  std::function<void()> onFire;
};

class TimerWheelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Tolan::throwOnAssertFailIs(true);
    P::setFastForward(true);
    wheel = Tolan::getTimerWheelForTaskScheduler(P::eventPriorityDefault);
  }
  void TearDown() override { P::setFastForward(false); }

  std::shared_ptr<TimerWheel> wheel;
  std::vector<int> order;
};

TEST_F(TimerWheelTest, FiresAtTheExactTimeNotOnATick) {
  TolanTest::Counting h;
  auto timer = P::getTimerControl(&h, wheel);
  const double start = Tolan::time();
  timer->setTimeout(0.015);
  EXPECT_GT(timer->remainingTimeout(), 0.0);
  EXPECT_LE(timer->remainingTimeout(), 0.015);
  P::doEventLoop(0.1);
  ASSERT_EQ(h.at.size(), 1u);
  // Never early, and well before the 20 ms tick a tick-based wheel would use.
  EXPECT_GE(h.at[0] - start, 0.015);
  EXPECT_LT(h.at[0] - start, 0.019);
  EXPECT_EQ(timer->remainingTimeout(), kInf);
}

TEST_F(TimerWheelTest, ManyTimersFireOnceInExpiryOrderNeverEarlyThenTheMasterGoes) {
  std::mt19937 rng(42);
  std::uniform_real_distribution<double> delay(0.0, 3.0);
  std::vector<std::unique_ptr<Event>> events;
  for (int i = 0; i < 300; ++i) {
    events.push_back(std::make_unique<Event>(&order, i));
    events[i]->setTimeout(wheel, delay(rng));
  }
  for (int i = 0; i < 300; i += 3) events[i]->delTimeout(wheel);             // stopped
  for (int i = 1; i < 300; i += 7) events[i]->setTimeout(wheel, delay(rng));  // restarted, some after a stop
  std::vector<double> expiry;
  for (auto& e : events) expiry.push_back(e->expirationTime());
  P::doEventLoop(3.5);

  std::vector<int> seen(300, 0);
  for (size_t k = 0; k < order.size(); ++k) {
    const int id = order[k];
    ++seen[id];
    EXPECT_GE(events[id]->firedAt, expiry[id]) << "timer " << id << " fired early";
    if (k) {
      EXPECT_LE(expiry[order[k - 1]], expiry[id]) << "out of order at " << k;
    }
  }
  for (int i = 0; i < 300; ++i) EXPECT_EQ(seen[i], i % 3 != 0 || i % 7 == 1 ? 1 : 0) << "timer " << i;
  EXPECT_EQ(wheel->masterExpiry(), kInf) << "master timer still armed with no timers";
  EXPECT_FALSE(wheel->hasWheelTimers());
}

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

TEST(TimersAtTimeout, KeepsArrivalOrderAcrossUnlinks) {
  std::vector<int> order;
  Event a(&order, 0), b(&order, 1), c(&order, 2), d(&order, 3);
  Tolan::TimersAtTimeout list;
  for (Event* e : {&a, &b, &c}) list.pushBack(e);
  list.unlink(&b);
  list.pushBack(&d);
  list.unlink(&a);
  EXPECT_EQ(list.front(), &c);
  list.unlink(&c);
  EXPECT_EQ(list.front(), &d);
  list.unlink(&d);
  EXPECT_TRUE(list.empty());
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

TEST_F(TimerWheelTest, MasterTimerFollowsTheEarliestAndIsDeletedWithTheLast) {
  Event a(&order, 0), b(&order, 1);
  EXPECT_EQ(wheel->masterExpiry(), kInf);
  a.setTimeout(wheel, 30.0);
  EXPECT_LE(wheel->masterExpiry(), a.expirationTime());
  b.setTimeout(wheel, 0.05);
  EXPECT_LE(wheel->masterExpiry(), b.expirationTime());
  // Stopping does not disarm at once; the next firing finds nothing and deletes it.
  a.delTimeout(wheel);
  b.delTimeout(wheel);
  EXPECT_NE(wheel->masterExpiry(), kInf);
  P::doEventLoop(60.0);
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(wheel->masterExpiry(), kInf);
}

TEST_F(TimerWheelTest, BadDelaysAndDoubleStops) {
  TolanTest::Counting h;
  auto timer = P::getTimerControl(&h, wheel);
  EXPECT_ASSERTS(timer->setTimeout(std::nan("")), "Invalid timeout nan");
  EXPECT_ASSERTS(timer->setTimeout(kInf), "Invalid timeout inf");
  EXPECT_EQ(timer->remainingTimeout(), kInf) << "a refused delay must not arm";
  timer->setTimeout(1e300);  // clamped: far away but finite, no tick overflow
  EXPECT_GT(timer->remainingTimeout(), 0.9 * P::kMaxTimeoutSeconds);
  EXPECT_LE(timer->remainingTimeout(), P::kMaxTimeoutSeconds);
  timer->setTimeout(-5.0);  // acts as 0: due on the next pass
  EXPECT_EQ(timer->remainingTimeout(), 0.0);
  P::doEventLoop(0.0);
  EXPECT_EQ(h.fired, 1);
  timer->delTimeout();
  timer->delTimeout();
  EXPECT_EQ(timer->remainingTimeout(), kInf);
}

TEST_F(TimerWheelTest, HandlerExceptionsLeaveTheLoopButDueTimersStillFire) {
  TolanTest::Counting bad, good;
  bad.throwIt = true;
  auto t1 = P::getTimerControl(&bad, wheel);
  auto t2 = P::getTimerControl(&good, wheel);
  t1->setTimeout(0.1);
  t2->setTimeout(0.1);
  EXPECT_THROW(P::doEventLoop(0.5), std::runtime_error);
  EXPECT_EQ(good.fired, 0);
  P::doEventLoop(0.5);
  EXPECT_EQ(good.fired, 1) << "the remaining due timer was stranded";
  bad.swallow = true;  // the handler's own choice is honoured
  t1->setTimeout(0.1);
  EXPECT_NO_THROW(P::doEventLoop(0.5));
  EXPECT_EQ(bad.fired, 2);
}

TEST_F(TimerWheelTest, DestroyingALinkedEventOrANonEmptyListEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Tolan::throwOnAssertFailIs(false);
        auto* ev = new Event(&order, 0);
        ev->setTimeout(wheel, 1.0);
        delete ev;
      },
      "TimerWheelEvent 0x[0-9a-f]+ destroyed while inTimerWheel");
  EXPECT_DEATH(
      {
        Tolan::throwOnAssertFailIs(false);
        Event ev(&order, 0);
        Tolan::TimersAtTimeout list;
        list.pushBack(&ev);
      },
      "Destroyed while non-empty");
}

TEST_F(TimerWheelTest, DestroyingAWheelDetachesItsTimers) {
  Event a(&order, 0), b(&order, 1);
  a.setTimeout(wheel, 100.0);   // waits in the timing wheel
  b.setTimeout(wheel, 0.0099);  // within the current tick: the next round moves it to the soon-map
  wheel->timeout();
  EXPECT_EQ(wheel->timersExpiryingSoonSize(), 1u);
  wheel.reset();
  EXPECT_TRUE(order.empty());
  for (Event* e : {&a, &b}) {
    EXPECT_FALSE(e->running());
    EXPECT_EQ(e->state(), Tolan::notLinked);
  }
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

}  // namespace
