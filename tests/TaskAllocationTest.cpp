// Heap allocations on the scheduler's hot paths, counted by replacing the
// global operator new (libevent's own malloc calls are not counted; the
// event loop's are not the scheduler's).
#include "support/CountingNew.h"
#include "support/SchedulerTesting.h"

namespace {

using namespace Tolan;
using TolanTest::Probe;

class TaskAllocation : public TolanTest::SchedulerFixture {};

TEST_F(TaskAllocation, SteadyStateRunsAndSchedulingAllocateNothing) {
  int runs = 0;
  auto spinner = task(TaskPriority::normal, "spinner", [&](Probe& self) {
    if (++runs % 100 != 0) self.scheduleTask();
  });
  spinner->log = nullptr;
  auto other = task(TaskPriority::high, "other");
  auto spin = [&](int times) {
    for (int i = 0; i < times; ++i) {
      spinner->scheduleTask();
      drain();
    }
  };
  spin(3);  // warm-up: names interned, history full, the loop's structures grown
  const long before = TolanTest::allocationsOnThisThread;
  spin(10);
  root->tasksPerCallbackIs(16);
  spin(1);
  for (int i = 0; i < 1000; ++i) {
    other->scheduleTask();
    other->unscheduleTask();
  }
  EXPECT_EQ(TolanTest::allocationsOnThisThread - before, 0);
  EXPECT_EQ(runs, 1400);
}

// Timer tasks are re-armed once per connection and request: every arming
// form and the stop, on a wheel that holds other timers.
TEST_F(TaskAllocation, ReArmingATimerTaskAllocatesNothing) {
  struct Timer : TimerTask {
    using TimerTask::TimerTask;
    void taskExecute() override {}
  };
  std::vector<std::shared_ptr<Timer>> timers;
  for (int i = 0; i < 100; ++i) timers.push_back(std::make_shared<Timer>(root, TaskPriority::normal, "t"));
  for (int i = 0; i < 100; ++i) timers[i]->scheduleTaskDelay(1.0 + i * 37.0);
  Timer& t = *timers[0];
  const long before = TolanTest::allocationsOnThisThread;
  for (int i = 0; i < 1000; ++i) {
    t.scheduleTaskDelay(0.5 + i * 3.7);
    t.scheduleTaskLowestDelay(0.1);
    t.scheduleTaskJitterDown(2.0, 50);
    t.stopTimerTask();
  }
  EXPECT_EQ(TolanTest::allocationsOnThisThread - before, 0);
}

}  // namespace
