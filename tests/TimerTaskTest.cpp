// Timer tasks: arming rules, jitter, a period kept under virtual time,
// destruction while armed or queued.
#include <cmath>
#include <set>

#include "Tolan/TaskScheduler.h"
#include "support/SchedulerTesting.h"
#include "support/Support.h"

using namespace Tolan;
using namespace TolanTest;

namespace {

// Logs its name and notes the time of each run, then runs `then`.
struct Timed : TimerTask {
  Timed(std::shared_ptr<TaskScheduler> s, std::string name, std::vector<std::string>* log,
        std::function<void(Timed&)> then = {})
      : TimerTask(std::move(s), TaskPriority::normal, std::move(name)), log(log), then(std::move(then)) {}
  void taskExecute() override {
    log->push_back(taskName());
    at.push_back(Tolan::time());
    if (then) then(*this);
  }
  std::vector<std::string>* log;
  std::function<void(Timed&)> then;
  std::vector<double> at;
};

class TimerTaskTest : public SchedulerFixture {
 protected:
  void SetUp() override { Platform::setFastForward(true); }
  void TearDown() override { Platform::setFastForward(false); }
  std::shared_ptr<Timed> timed(const std::string& name, std::function<void(Timed&)> then = {}) {
    return std::make_shared<Timed>(root, name, &log, std::move(then));
  }
};

// "idle", "queued" or "armed <seconds left>".
std::string state(const TimerTask& t) {
  if (t.timerRunning()) return fmt::format("armed {:.1f}", t.timerRemaining());
  return t.taskScheduled() ? "queued" : "idle";
}

TEST_F(TimerTaskTest, ArmingRules) {
  using Op = std::function<void(TimerTask&)>;
  const Op lowest5 = [](TimerTask& t) { t.scheduleTaskLowestDelay(5.0); };
  const Op stop = [](TimerTask& t) { t.stopTimerTask(); };
  const Op delay5 = [](TimerTask& t) { t.scheduleTaskDelay(std::chrono::seconds(5)); };
  const Op never = [](TimerTask& t) { t.scheduleTaskDelay(kInf); };
  const Op now = [](TimerTask& t) { t.scheduleTaskLowestDelay(0.0); };
  const Op jitter0 = [](TimerTask& t) { t.scheduleTaskJitterUp(10.0, 0); };
  const std::tuple<double, Op, const char*> cases[] = {
      // start (-1 queued, 0 idle, else armed for that), operation, result
      {2, lowest5, "armed 2.0"}, {8, lowest5, "armed 5.0"}, {-1, lowest5, "queued"}, {0, lowest5, "armed 5.0"},
      {2, delay5, "armed 5.0"},  {-1, delay5, "armed 5.0"}, {2, now, "queued"},       {2, never, "idle"},
      {-1, never, "idle"},       {-1, stop, "idle"},        {2, stop, "idle"},        {2, jitter0, "armed 10.0"}};
  for (const auto& [start, op, result] : cases) {
    auto t = timed("t");
    if (start != 0) start < 0 ? t->scheduleTask() : t->scheduleTaskDelay(start);
    op(*t);
    EXPECT_EQ(state(*t), result) << "from " << start;
    EXPECT_EQ(t->taskBusy(), state(*t) != "idle") << "busy means queued or armed";
    EXPECT_TRUE(t->taskStatus().taskTimer() && t->taskStatus().taskTimerRunning() == t->timerRunning());
    const double expected = t->timerRunning() ? Tolan::time() + t->timerRemaining()
                            : t->taskScheduled() ? Tolan::time() : kInf;
    if (expected == kInf) {
      EXPECT_EQ(t->currentExpirationTime(), kInf);
      continue;
    }
    EXPECT_NEAR(t->currentExpirationTime() - expected, 0.0, 0.05) << "from " << start;
  }
}

TEST_F(TimerTaskTest, BadArgumentsAssertAndArmNothing) {
  auto t = timed("t");
  EXPECT_ASSERTS(t->scheduleTaskJitterDown(1.0, 101), "maxJitterPercentage: 101 > 100");
  EXPECT_ASSERTS(t->scheduleTaskLowestDelay(kInf), "delayIntoFuture: inf");
  for (double bad : {-1.0, -kInf, std::nan("")}) {
    EXPECT_ASSERTS(t->scheduleTaskDelay(bad), "time2Duration() negative Time input");
    EXPECT_ASSERTS(t->scheduleTaskJitterUp(bad, 5), "time2Duration() negative Time input");
  }
  EXPECT_EQ(state(*t), "idle");
  EXPECT_ABORTS(t->scheduleTaskJitterUp(1.0, 101), "maxJitterPercentage: 101 > 100");
}

// The offset is a whole number of hundredths of the largest jitter, 0..100
// of them, and nearly every value of that range turns up.
TEST_F(TimerTaskTest, JitterStaysInRangeInHundredthSteps) {
  auto t = timed("t");
  const double delay = 1e5;  // steps of at least 10 s: the clock's progress, even on a loaded machine, does not blur them
  for (int pct : {1, 37, 100}) {
    for (bool up : {true, false}) {
      std::set<long> seen;
      for (int i = 0; i < 3000; ++i) {
        up ? t->scheduleTaskJitterUp(delay, pct) : t->scheduleTaskJitterDown(delay, pct);
        const double steps = (up ? t->timerRemaining() - delay : delay - t->timerRemaining()) / (delay * pct / 1e4);
        ASSERT_NEAR(steps, std::round(steps), 0.01) << pct << up;
        seen.insert(std::lround(steps));
      }
      EXPECT_TRUE(*seen.begin() == 0 && *seen.rbegin() <= 100 && seen.size() >= 95) << pct << up;
    }
  }
}

// A self-re-arming task keeps its period; destroying armed or queued tasks,
// one from inside a run, leaves the wheel empty. (Expiry order, never early,
// and stopping are the control contract's: its task-backed timer is a
// TimerTask.)
TEST_F(TimerTaskTest, PeriodAndDestruction) {
  auto periodic = timed("p", [](Timed& self) {
    if (self.at.size() < 5) self.scheduleTaskDelay(3.0);
  });
  periodic->scheduleTaskDelay(3.0);
  Platform::doEventLoop(20.0);
  ASSERT_EQ(periodic->at.size(), 5u);
  for (size_t k = 1; k < 5; ++k) EXPECT_GE(periodic->at[k] - periodic->at[k - 1], 3.0) << k;
  std::vector<std::shared_ptr<Timed>> tasks{timed("0"), timed("1"), timed("2")};
  tasks[0]->scheduleTaskDelay(1.0);
  tasks[1]->scheduleTask();
  tasks[2]->scheduleTaskDelay(2.0);
  auto dropper = timed("dropper", [&](Timed&) { tasks[2].reset(); });  // an armed task, from inside a run
  dropper->scheduleTask();
  tasks[0].reset(), tasks[1].reset();
  log.clear();
  Platform::doEventLoop(5.0);
  EXPECT_EQ(ran(), "dropper");
  EXPECT_FALSE(root->timerWheel()->hasWheelTimers() || root->timerWheel()->timersExpiryingSoonSize());
}

}  // namespace
