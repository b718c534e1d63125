// Heap allocations on the scheduler's hot paths, counted by replacing the
// global operator new in this test binary (libevent's own malloc calls are
// not counted; the event loop's are not the scheduler's).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "support/SchedulerTesting.h"

static std::atomic<long> allocations{0};

void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
// Out of line, so that the compiler does not pair an inlined free() with new.
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

}  // namespace
