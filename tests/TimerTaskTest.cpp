// Timer tasks: arming rules, jitter, expiry under virtual time, destruction
// while armed or queued.
#include <cmath>
#include <set>

#include "Tolan/TaskScheduler.h"
#include "support/SchedulerTesting.h"
#include "support/Support.h"

using namespace Tolan;
using namespace TolanTest;
using Type = TaskSchedulerEventType;

namespace {

// Logs its name and the time of each run; `then` may re-arm.
struct Timed : TimerTask {
  Timed(std::shared_ptr<TaskScheduler> s, std::string name, std::vector<std::string>* log)
      : TimerTask(std::move(s), TaskPriority::normal, std::move(name)), log(log) {}
  void taskExecute() override {
    if (log) log->push_back(taskName());
    at.push_back(Tolan::time());
    if (then) then(*this);
  }
  std::vector<std::string>* log;
  std::vector<double> at;
  std::function<void(Timed&)> then;
};

class TimerTaskTest : public SchedulerFixture {
 protected:
  void SetUp() override { Platform::setFastForward(true); }
  void TearDown() override { Platform::setFastForward(false); }
  std::shared_ptr<Timed> timed(const std::string& name) { return std::make_shared<Timed>(root, name, &log); }
  // Runs the loop for `seconds` of virtual time.
  static void runFor(double seconds) { Platform::doEventLoop(seconds); }
};

// How the task stands: "idle", "queued" or "armed <seconds left, rounded to ms>".
std::string state(const TimerTask& t) {
  if (t.timerRunning()) return fmt::format("armed {:.3f}", t.timerRemaining());
  return t.taskScheduled() ? "queued" : "idle";
}

TEST_F(TimerTaskTest, ArmingRules) {
  // Start state, operation, resulting state.
  struct Case {
    const char* start;
    std::function<void(TimerTask&)> op;
    const char* result;
  };
  const Case cases[] = {
      {"armed 2", [](TimerTask& t) { t.scheduleTaskLowestDelay(5.0); }, "armed 2.000"},
      {"armed 8", [](TimerTask& t) { t.scheduleTaskLowestDelay(5.0); }, "armed 5.000"},
      {"armed 5", [](TimerTask& t) { t.scheduleTaskLowestDelay(std::chrono::seconds(5)); }, "armed 5.000"},
      {"queued", [](TimerTask& t) { t.scheduleTaskLowestDelay(5.0); }, "queued"},
      {"idle", [](TimerTask& t) { t.scheduleTaskLowestDelay(5.0); }, "armed 5.000"},
      {"armed 2", [](TimerTask& t) { t.scheduleTaskDelay(5.0); }, "armed 5.000"},
      {"armed 8", [](TimerTask& t) { t.scheduleTaskDelay(std::chrono::milliseconds(1500)); }, "armed 1.500"},
      {"queued", [](TimerTask& t) { t.scheduleTaskDelay(5.0); }, "armed 5.000"},
      {"armed 2", [](TimerTask& t) { t.scheduleTaskDelay(0.0); }, "queued"},
      {"armed 2", [](TimerTask& t) { t.scheduleTaskLowestDelay(0.0); }, "queued"},
      {"armed 2", [](TimerTask& t) { t.scheduleTaskDelay(kInf); }, "idle"},
      {"queued", [](TimerTask& t) { t.scheduleTaskDelay(kInf); }, "idle"},
      {"armed 2", [](TimerTask& t) { t.scheduleTaskJitterUp(kInf, 10); }, "idle"},
      {"queued", [](TimerTask& t) { t.stopTimerTask(); }, "idle"},
      {"armed 2", [](TimerTask& t) { t.stopTimerTask(); }, "idle"},
      {"armed 2", [](TimerTask& t) { t.scheduleTaskJitterUp(10.0, 0); }, "armed 10.000"},
  };
  for (const Case& c : cases) {
    auto t = timed("t");
    const std::string start = c.start;
    if (start == "queued") t->scheduleTask();
    if (start.rfind("armed", 0) == 0) t->scheduleTaskDelay(std::stod(start.substr(6)));
    EXPECT_EQ(state(*t), start == "idle" ? "idle" : start == "queued" ? "queued" : start + ".000");
    c.op(*t);
    EXPECT_EQ(state(*t), c.result) << c.start << " -> " << c.result;
    // Armed or queued is what taskScheduled, the busy flag and the status report.
    const std::string result = c.result;
    EXPECT_EQ(t->taskBusy(), result != "idle") << c.result;
    EXPECT_EQ(t->taskStatus().taskTimerRunning(), t->timerRunning());
    EXPECT_TRUE(t->taskStatus().taskTimer());
    const double expiry = t->currentExpirationTime(), now = Tolan::time();
    if (result == "idle") {
      EXPECT_EQ(expiry, kInf);
    } else if (result == "queued") {
      EXPECT_NEAR(expiry, now, 1e-3);
    } else {
      EXPECT_NEAR(expiry - now, t->timerRemaining(), 1e-3);
    }
  }
}

TEST_F(TimerTaskTest, BadArgumentsAssert) {
  auto t = timed("t");
  EXPECT_ASSERTS(t->scheduleTaskJitterUp(1.0, 101), "maxJitterPercentage: 101 > 100");
  EXPECT_ASSERTS(t->scheduleTaskJitterDown(1.0, 255), "maxJitterPercentage: 255 > 100");
  EXPECT_ASSERTS(t->scheduleTaskLowestDelay(kInf), "delayIntoFuture: inf");
  for (double bad : {-1.0, -kInf, std::nan("")}) {
    EXPECT_ASSERTS(t->scheduleTaskDelay(bad), "time2Duration() negative Time input");
    EXPECT_ASSERTS(t->scheduleTaskLowestDelay(bad), "time2Duration() negative Time input");
    EXPECT_ASSERTS(t->scheduleTaskJitterUp(bad, 5), "time2Duration() negative Time input");
  }
  EXPECT_ASSERTS(t->scheduleTaskDelay(std::chrono::nanoseconds(-1)), "time2Duration() negative Time input");
  EXPECT_EQ(state(*t), "idle") << "a refused delay arms nothing";
  EXPECT_ABORTS(t->scheduleTaskJitterUp(1.0, 101), "maxJitterPercentage: 101 > 100");
}

// The offset is a whole number of hundredths of the largest jitter, within
// 0..100 of them, and every value of that range is reachable.
TEST_F(TimerTaskTest, JitterStaysInRangeInHundredthSteps) {
  auto t = timed("t");
  root->randomSeedIs(7);
  const double delay = 1000.0;  // steps of at least 0.1 s: real time between calls does not blur them
  for (unsigned pct : {1u, 37u, 100u}) {
    for (bool up : {true, false}) {
      std::set<long> seen;
      for (int i = 0; i < 3000; ++i) {
        up ? t->scheduleTaskJitterUp(delay, static_cast<unsigned char>(pct))
           : t->scheduleTaskJitterDown(delay, static_cast<unsigned char>(pct));
        const double offset = std::abs(t->timerRemaining() - delay);
        const double steps = offset / (delay * pct / 10000.0);
        ASSERT_NEAR(steps, std::round(steps), 0.01) << pct << " " << up;
        ASSERT_LE(std::lround(steps), 100);
        seen.insert(std::lround(steps));
        if (steps > 0.5) {
          EXPECT_EQ(up, t->timerRemaining() > delay);
        }
      }
      EXPECT_GE(seen.size(), 95u) << "jitter " << pct << "% " << (up ? "up" : "down") << " uses few values";
    }
  }
}

// Fired tasks run in expiry order, never before their time; stopped ones do
// not run; a task that re-arms itself keeps its period; history and busy
// flags follow.
TEST_F(TimerTaskTest, ExpiryUnderVirtualTime) {
  root->historyEntryCountIs(1000);
  std::vector<std::shared_ptr<Timed>> tasks;
  std::vector<double> due;
  for (int i = 0; i < 40; ++i) {
    tasks.push_back(timed(fmt::format("t{}", i)));
    const double delay = 0.5 + (i * 7919 % 40) * 0.25;
    due.push_back(Tolan::time() + delay);
    tasks.back()->scheduleTaskDelay(delay);
  }
  tasks[3]->stopTimerTask();
  auto periodic = timed("periodic");
  periodic->then = [](Timed& self) {
    if (self.at.size() < 5) self.scheduleTaskDelay(3.0);
  };
  periodic->scheduleTaskDelay(3.0);
  const size_t starts = count(Type::timerStart), stops = count(Type::timerStop);
  EXPECT_EQ(starts, 41u);
  EXPECT_EQ(stops, 1u);
  runFor(20.0);
  double last = 0;
  std::vector<std::string> order;
  for (const auto& name : log)
    if (name != "periodic") order.push_back(name);
  ASSERT_EQ(order.size(), 39u);
  for (const auto& name : order) {
    const int i = std::stoi(name.substr(1));
    ASSERT_EQ(tasks[i]->at.size(), 1u);
    EXPECT_GE(tasks[i]->at[0], due[i]) << name << " ran early";
    EXPECT_LE(tasks[i]->at[0], due[i] + 0.01) << name;
    EXPECT_GE(due[i], last) << name << " out of order";
    last = due[i];
    EXPECT_FALSE(tasks[i]->taskBusy());
  }
  ASSERT_EQ(periodic->at.size(), 5u);
  for (size_t k = 1; k < 5; ++k) EXPECT_NEAR(periodic->at[k] - periodic->at[k - 1], 3.0, 0.01);
  EXPECT_TRUE(tasks[3]->at.empty());
}

// Destroying an armed or a queued task leaves nothing behind: the wheel
// fires the rest and the loop ends.
TEST_F(TimerTaskTest, DestroyedWhileArmedOrQueued) {
  auto armed = timed("armed"), queued = timed("queued"), kept = timed("kept");
  armed->scheduleTaskDelay(1.0);
  queued->scheduleTaskDelay(1.0);
  kept->scheduleTaskDelay(2.0);
  runFor(1.5);
  EXPECT_EQ(ran(), "armed queued");
  armed->scheduleTaskDelay(0.5);
  queued->scheduleTask();
  auto doomed = timed("doomed");
  doomed->then = [&](Timed&) { kept.reset(); };  // destroys an armed task from inside another's run
  doomed->scheduleTask();
  armed.reset();
  queued.reset();
  runFor(5.0);
  EXPECT_EQ(ran(), "doomed");
  EXPECT_EQ(root->runnableTaskCount(), 0u);
  EXPECT_FALSE(root->timerWheel()->hasWheelTimers());
  EXPECT_EQ(root->timerWheel()->timersExpiryingSoonSize(), 0u);
}

}  // namespace
