// TaskControl.cpp - the task-backed timer and callback controls.
//
// The controls are made with std::make_shared: one allocation for control,
// task and count, and the task's self-reference is set, so that the
// scheduler holds a running control alive.
#include "Tolan/TaskControl.h"

#include <cmath>

#include "Tolan/Assert.h"
#include "Tolan/TaskScheduler.h"

namespace Tolan {
namespace Platform {

// ---- timer ----

TaskTimerControl::TaskTimerControl(TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                                   TaskPriority priority, std::string name)
    : TimerTask(std::move(scheduler), priority, std::move(name)), handler_(handler) {}

TaskTimerControl::~TaskTimerControl() = default;

void TaskTimerControl::setTimeout(double seconds) {
  TOLAN_ASSERT_C(std::isfinite(seconds), TaskTimerControl, "Invalid timeout {}", seconds);
  scheduleTaskDelay(seconds < 0 ? 0.0 : std::min(seconds, kMaxTimeoutSeconds));
}

void TaskTimerControl::delTimeout() { stopTimerTask(); }

double TaskTimerControl::remainingTimeout() const { return taskOnRunQueue() ? 0.0 : timerRemaining(); }

void TaskTimerControl::taskExecute() {
  try {
    handler_->timeout();
  } catch (...) {
    if (!handler_->handleTimeoutException()) throw;
  }
}

// ---- callback ----

TaskCallbackControl::TaskCallbackControl(CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                                         TaskPriority priority, std::string name)
    : Task(std::move(scheduler), priority, std::move(name)), handler_(handler) {}

TaskCallbackControl::~TaskCallbackControl() = default;

void TaskCallbackControl::requestCallback() { scheduleTask(); }
void TaskCallbackControl::cancelCallback() { unscheduleTask(); }
bool TaskCallbackControl::pendingCallback() const { return taskScheduled(); }

void TaskCallbackControl::taskExecute() {
  try {
    handler_->callback();
  } catch (...) {
    if (!handler_->handleCallbackException()) throw;
  }
}

// ---- factories ----

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                                              TaskPriority priority, std::string name) {
  return std::make_shared<TaskTimerControl>(handler, std::move(scheduler), priority, std::move(name));
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                                                    TaskPriority priority, std::string name) {
  return std::make_shared<TaskCallbackControl>(handler, std::move(scheduler), priority, std::move(name));
}

}  // namespace Platform
}  // namespace Tolan
