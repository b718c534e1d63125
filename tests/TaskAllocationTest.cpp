// Heap allocations on the scheduler's hot paths, counted by replacing the
// global operator new in this test binary (libevent's own malloc calls are
// not counted; the event loop's are not the scheduler's).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "support/SchedulerTesting.h"

static std::atomic<long> allocations{0};

// Out of line, so that the compiler does not pair an inlined malloc() or free()
// with the other operator.
__attribute__((noinline)) void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }

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
  const long before = allocations.load();
  spin(10);
  root->tasksPerCallbackIs(16);
  spin(1);
  for (int i = 0; i < 1000; ++i) {
    other->scheduleTask();
    other->unscheduleTask();
  }
  EXPECT_EQ(allocations.load() - before, 0);
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
  const long before = allocations.load();
  for (int i = 0; i < 1000; ++i) {
    t.scheduleTaskDelay(0.5 + i * 3.7);
    t.scheduleTaskLowestDelay(0.1);
    t.scheduleTaskJitterDown(2.0, 50);
    t.stopTimerTask();
  }
  EXPECT_EQ(allocations.load() - before, 0);
}

}  // namespace
