#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Tolan/Assert.h"
#include "Tolan/Exception.h"
#include "Tolan/LibeventFactory.h"
#include "Tolan/Platform.h"
#include "Tolan/Thread.h"
#include "Tolan/TimerWheel.h"

namespace {

using Tolan::TimerWheel;
using Tolan::TimerWheelEvent;
namespace P = Tolan::Platform;

constexpr double kInf = std::numeric_limits<double>::infinity();

// Records when and in which order events fire; `onFire` may act on the wheel.
struct Recorder {
  std::vector<int> order;
  std::vector<double> when;
};

struct Event : TimerWheelEvent {
  Event(Recorder* r, int id) : rec(r), id(id) {}
  void timeout() override {
    rec->order.push_back(id);
    rec->when.push_back(Tolan::time());
    if (onFire) onFire();
  }
  Recorder* rec;
  int id;
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

  std::string assertionText(const std::function<void()>& f) {
    try {
      f();
    } catch (const Tolan::AssertException& e) {
      return e.what();
    }
    return "(no assertion)";
  }

  std::shared_ptr<TimerWheel> wheel;
  Recorder rec;
};

struct CountingHandler : P::TimeoutHandler {
  void timeout() override {
    ++fired;
    at = Tolan::time();
    if (throwIt) throw std::runtime_error("handler failed");
  }
  bool handleTimeoutException() override { return swallow; }
  int fired = 0;
  double at = 0;
  bool throwIt = false;
  bool swallow = false;
};

TEST_F(TimerWheelTest, FiresAtTheExactTimeNotOnATick) {
  CountingHandler h;
  auto timer = P::getTimerControl(&h, wheel);
  const double start = Tolan::time();
  timer->setTimeout(0.015);
  EXPECT_GT(timer->remainingTimeout(), 0.0);
  EXPECT_LE(timer->remainingTimeout(), 0.015);
  P::doEventLoop(0.1);
  ASSERT_EQ(h.fired, 1);
  // Never early, and nowhere near the 20 ms tick boundary it would hit if
  // the wheel fired on ticks (loose bound: fast-forward adds a few microseconds).
  EXPECT_GE(h.at - start, 0.015);
  EXPECT_LT(h.at - start, 0.019);
  EXPECT_EQ(timer->remainingTimeout(), kInf);
}

TEST_F(TimerWheelTest, ManyTimersFireOnceInExpiryOrderAndNeverEarly) {
  std::mt19937 rng(42);
  std::uniform_real_distribution<double> delay(0.0, 3.0);
  std::vector<std::unique_ptr<Event>> events;
  std::vector<double> expiry(300, kInf);
  for (int i = 0; i < 300; ++i) {
    events.push_back(std::make_unique<Event>(&rec, i));
    events[i]->setTimeout(wheel, delay(rng));
  }
  for (int i = 0; i < 300; i += 3) events[i]->delTimeout(wheel);             // stopped
  for (int i = 1; i < 300; i += 7) events[i]->setTimeout(wheel, delay(rng));  // restarted, some after a stop
  for (int i = 0; i < 300; ++i) expiry[i] = events[i]->expirationTime();
  const auto armed = [](int i) { return i % 3 != 0 || i % 7 == 1; };
  P::doEventLoop(3.5);

  std::vector<int> seen(300, 0);
  for (size_t k = 0; k < rec.order.size(); ++k) {
    const int id = rec.order[k];
    ++seen[id];
    EXPECT_GE(rec.when[k], expiry[id]) << "timer " << id << " fired early";
    if (k) {
      EXPECT_LE(expiry[rec.order[k - 1]], expiry[id]) << "out of order at " << k;
    }
  }
  for (int i = 0; i < 300; ++i) EXPECT_EQ(seen[i], armed(i) ? 1 : 0) << "timer " << i;
  EXPECT_EQ(wheel->masterExpiry(), kInf) << "master timer still armed with no timers";
  EXPECT_FALSE(wheel->hasWheelTimers());
}

TEST_F(TimerWheelTest, SameDelayFiresInStartOrder) {
  // Identical delays; with a coarse enough clock value the expiries are
  // equal, otherwise they differ by the time between the calls: start order
  // must win either way.
  std::vector<std::unique_ptr<Event>> events;
  for (int i = 0; i < 6; ++i) {
    events.push_back(std::make_unique<Event>(&rec, i));
    events[i]->setTimeout(wheel, 0.5);
  }
  P::doEventLoop(1.0);
  EXPECT_EQ(rec.order, (std::vector<int>{0, 1, 2, 3, 4, 5}));
}

TEST(TimersAtTimeout, KeepsArrivalOrderAcrossUnlinks) {
  struct E : TimerWheelEvent {
    void timeout() override {}
  } a, b, c, d;
  Tolan::TimersAtTimeout list;
  list.pushBack(&a);
  list.pushBack(&b);
  list.pushBack(&c);
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
  Event a(&rec, 0), b(&rec, 1), c(&rec, 2), d(&rec, 3);
  a.onFire = [&] {
    b.delTimeout(wheel);           // due now: must not fire
    c.setTimeout(wheel, 1.0);      // due now: moves a second later
    a.setTimeout(wheel, 2.0);      // itself: fires again later
  };
  a.setTimeout(wheel, 0.2);
  b.setTimeout(wheel, 0.2);
  c.setTimeout(wheel, 0.2);
  d.setTimeout(wheel, 0.2);
  P::doEventLoop(0.5);
  EXPECT_EQ(rec.order, (std::vector<int>{0, 3}));
  a.onFire = nullptr;
  P::doEventLoop(2.0);
  EXPECT_EQ(rec.order, (std::vector<int>{0, 3, 2, 0}));
  EXPECT_FALSE(b.running());
}

TEST_F(TimerWheelTest, MasterTimerFollowsTheEarliestAndIsDeletedWithTheLast) {
  Event a(&rec, 0), b(&rec, 1);
  EXPECT_EQ(wheel->masterExpiry(), kInf);
  a.setTimeout(wheel, 30.0);
  const double first = wheel->masterExpiry();
  EXPECT_LE(first, a.expirationTime());
  b.setTimeout(wheel, 0.05);
  EXPECT_LE(wheel->masterExpiry(), b.expirationTime());

  // Stopping does not disarm at once; the next firing finds nothing and deletes it.
  a.delTimeout(wheel);
  b.delTimeout(wheel);
  EXPECT_NE(wheel->masterExpiry(), kInf);
  P::doEventLoop(60.0);
  EXPECT_TRUE(rec.order.empty());
  EXPECT_EQ(wheel->masterExpiry(), kInf);
}

TEST_F(TimerWheelTest, BadDelays) {
  CountingHandler h;
  auto timer = P::getTimerControl(&h, wheel);
  EXPECT_NE(assertionText([&] { timer->setTimeout(std::nan("")); }).find("Invalid timeout nan"), std::string::npos);
  EXPECT_NE(assertionText([&] { timer->setTimeout(kInf); }).find("Invalid timeout inf"), std::string::npos);
  EXPECT_EQ(timer->remainingTimeout(), kInf) << "a refused delay must not arm";

  timer->setTimeout(1e300);  // clamped: far away but finite, no tick overflow
  EXPECT_GT(timer->remainingTimeout(), 0.9 * P::kMaxTimeoutSeconds);
  EXPECT_LE(timer->remainingTimeout(), P::kMaxTimeoutSeconds);

  timer->setTimeout(-5.0);  // acts as 0: due on the next pass
  EXPECT_EQ(timer->remainingTimeout(), 0.0);
  P::doEventLoop(0.0);
  EXPECT_EQ(h.fired, 1);

  timer->delTimeout();  // not running: twice is harmless
  timer->delTimeout();
  EXPECT_EQ(timer->remainingTimeout(), kInf);
}

TEST_F(TimerWheelTest, HandlerExceptionsLeaveTheLoopButDueTimersStillFire) {
  CountingHandler bad, good;
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

TEST_F(TimerWheelTest, StateChangesMustPassThroughNotLinked) {
  struct E : TimerWheelEvent {
    void timeout() override {}
  } ev;
  EXPECT_EQ(ev.state(), Tolan::notLinked);
  ev.stateIs(Tolan::inTimerWheel);
  EXPECT_NE(assertionText([&] { ev.stateIs(Tolan::inTimersExpiryingSoon); })
                .find("State change inTimerWheel -> inTimersExpiryingSoon must go via notLinked"),
            std::string::npos);
  EXPECT_EQ(ev.state(), Tolan::inTimerWheel);
  EXPECT_NE(assertionText([&] { ev.stateIs(static_cast<Tolan::TimerWheelState>(3)); }).find("invalid state 3"),
            std::string::npos);
  ev.stateIs(Tolan::notLinked);
  ev.stateIs(Tolan::inTimersExpiryingSoon);
  ev.stateIs(Tolan::notLinked);
  EXPECT_STREQ(Tolan::timerWheelStateToString(static_cast<Tolan::TimerWheelState>(7)), "unknownState");
}

TEST_F(TimerWheelTest, DestroyingALinkedEventOrANonEmptyListEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Tolan::throwOnAssertFailIs(false);
        auto* ev = new Event(&rec, 0);
        ev->setTimeout(wheel, 1.0);
        delete ev;
      },
      "TimerWheelEvent 0x[0-9a-f]+ destroyed while inTimerWheel");
  EXPECT_DEATH(
      {
        Tolan::throwOnAssertFailIs(false);
        Event ev(&rec, 0);
        { Tolan::TimersAtTimeout list; list.pushBack(&ev); }
      },
      "Destroyed while non-empty");
}

TEST_F(TimerWheelTest, DestroyingAWheelDetachesItsTimers) {
  Event a(&rec, 0), b(&rec, 1);
  a.setTimeout(wheel, 100.0);   // waits in the timing wheel
  b.setTimeout(wheel, 0.0099);  // within the current tick: the next round moves it to the soon-map
  wheel->timeout();
  EXPECT_EQ(wheel->timersExpiryingSoonSize(), 1u);
  wheel.reset();
  EXPECT_TRUE(rec.order.empty());
  EXPECT_FALSE(a.running());
  EXPECT_FALSE(b.running());
  EXPECT_EQ(a.state(), Tolan::notLinked);
  EXPECT_EQ(b.state(), Tolan::notLinked);
}

TEST(TimerWheelSingleton, OnePerThreadWithThreadLocalSingletons) {
  auto mine = Tolan::getTimerWheel();
  EXPECT_EQ(mine, Tolan::getTimerWheel());
  std::weak_ptr<TimerWheel> other;
  std::thread t([&] {
    Tolan::useThreadLocalSingletons();
    // The event base outlives thread-local objects made after this one,
    // the thread's wheel among them; the platform leaves freeing it to us.
    thread_local struct FreeBase {
      ~FreeBase() { Tolan::leFree(); }
    } freeBase;
    (void)freeBase;
    auto w = Tolan::getTimerWheel();
    EXPECT_NE(w, mine);
    EXPECT_EQ(w, Tolan::getTimerWheel());
    other = w;
  });
  t.join();
  EXPECT_TRUE(other.expired()) << "the thread's wheel outlived its thread";
}

}  // namespace
