// Task-backed controls dropped by their handler from inside their own
// notification (the rest of their contract is ControlContractTest's).
#include "Tolan/TaskControl.h"
#include "support/SchedulerTesting.h"
#include "support/Support.h"

using namespace Tolan;
using namespace TolanTest;

namespace {

class TaskControlTest : public SchedulerFixture {
  void SetUp() override { Platform::setFastForward(true); }
  void TearDown() override { Platform::setFastForward(false); }
};

// Re-arms its control, then drops it: the run must end on a live object,
// the task then goes with its statistics among the completed ones, and
// nothing stays armed or queued. ASan checks the rest.
TEST_F(TaskControlTest, ControlDroppedInsideItsOwnNotification) {
  Counting h;
  auto timer = Platform::getTimerControl(&h, root, TaskPriority::normal, "timer");
  auto callback = Platform::getCallbackControl(&h, root, TaskPriority::low, "callback");
  h.then = [&] { timer ? (timer->setTimeout(1.0), timer.reset()) : (callback->requestCallback(), callback.reset()); };
  const size_t before = root->registeredTaskCount();
  timer->setTimeout(0.0);
  callback->requestCallback();
  Platform::doEventLoop(2.0);
  EXPECT_EQ(h.fired + h.calls, 2);
  EXPECT_EQ(root->registeredTaskCount(), before - 2);
  EXPECT_EQ(root->completedTaskStatForTest("timer").taskRunCount(), 1u);
  EXPECT_EQ(root->completedTaskStatForTest("callback").taskRunCount(), 1u);
  EXPECT_FALSE(root->runnableTaskCount() || root->timerWheel()->hasWheelTimers());
}

}  // namespace
