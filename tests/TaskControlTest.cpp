// Task-backed controls beyond the shared control contract: they run as named
// tasks at their priority, and survive being dropped from inside their own
// notification.
#include "Tolan/TaskControl.h"
#include "support/SchedulerTesting.h"
#include "support/Support.h"

using namespace Tolan;
using namespace TolanTest;

namespace {

class TaskControlTest : public SchedulerFixture {
 protected:
  void SetUp() override { Platform::setFastForward(true); }
  void TearDown() override { Platform::setFastForward(false); }
};

// Logs "name" on each notification and then runs `then`.
struct Logging : Platform::TimeoutHandler, Platform::CallbackHandler {
  Logging(std::vector<std::string>* log, std::string name) : log(log), name(std::move(name)) {}
  void timeout() override { note(); }
  void callback() override { note(); }
  void note() {
    log->push_back(name);
    if (then) then();
  }
  std::vector<std::string>* log;
  std::string name;
  std::function<void()> then;
};

TEST_F(TaskControlTest, NotificationsRunAsNamedTasksInPriorityOrder) {
  Logging timerHandler(&log, "timer"), callbackHandler(&log, "callback");
  auto timer = Platform::getTimerControl(&timerHandler, root, TaskPriority::low, "timer");
  auto callback = Platform::getCallbackControl(&callbackHandler, root, TaskPriority::scavenge, "callback");
  callback->requestCallback();
  timer->setTimeout(0.0);
  const auto probes = scheduled("n1 h1");
  EXPECT_EQ(timer->remainingTimeout(), 0.0) << "queued: due, not yet delivered";
  EXPECT_TRUE(callback->pendingCallback());
  drain();
  EXPECT_EQ(ran(), "h1 n1 timer callback");
  EXPECT_FALSE(callback->pendingCallback());
  EXPECT_EQ(root->taskStatForTest("timer").taskRunCount(), 1u);
  EXPECT_EQ(root->taskStatForTest("callback").taskPriority(), TaskPriority::scavenge);
  EXPECT_TRUE(root->taskStatForTest("timer").taskStatus().taskTimer());
}

// The handler drops the last reference to its own control: the run ends on
// a live object, the task then goes (its statistics among the completed),
// and nothing stays armed. ASan checks the rest.
TEST_F(TaskControlTest, ControlDroppedInsideItsOwnNotification) {
  Logging timerHandler(&log, "timer"), callbackHandler(&log, "callback");
  auto timer = Platform::getTimerControl(&timerHandler, root, TaskPriority::normal, "timer");
  auto callback = Platform::getCallbackControl(&callbackHandler, root, TaskPriority::normal, "callback");
  timerHandler.then = [&] {
    timer->setTimeout(1.0);  // armed again, then dropped while armed
    timer.reset();
  };
  callbackHandler.then = [&] {
    callback->requestCallback();  // queued again, then dropped while queued
    callback.reset();
  };
  const size_t before = root->registeredTaskCount();
  timer->setTimeout(0.001);
  callback->requestCallback();
  drain();
  EXPECT_EQ(ran(), "callback timer");
  EXPECT_EQ(root->registeredTaskCount(), before - 2);
  EXPECT_EQ(root->completedTaskStatForTest("timer").taskRunCount(), 1u);
  EXPECT_EQ(root->completedTaskStatForTest("callback").taskRunCount(), 1u);
  EXPECT_FALSE(root->timerWheel()->hasWheelTimers());
}

}  // namespace
