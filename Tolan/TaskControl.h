// TaskControl.h - timer and callback controls whose notifications run as
// tasks of a scheduler.
//
// Code written against TimerControl / CallbackControl moves under a task
// scheduler by changing only the factory call:
//
//   auto timer = Tolan::Platform::getTimerControl(&handler, Tolan::schedulerRootTolan(),
//                                                 Tolan::TaskPriority::low, "expire");
//   timer->setTimeout(30.0);   // handler.timeout() runs as the task "expire"
//
// The handler is then called from a task run: accounted in the scheduler's
// statistics and history, ordered by task priority, and never in the middle
// of another task's run. A timer control is a TimerTask (its timer lives in
// the root's wheel), a callback control a plain Task; their operations map
// onto the task's:
//
//   setTimeout(d)        scheduleTaskDelay(d)   (re-arms)
//   delTimeout()         stopTimerTask()
//   remainingTimeout()   timerRemaining(), and 0.0 while the task is queued
//   requestCallback()    scheduleTask()
//   cancelCallback()     unscheduleTask()
//   pendingCallback()    taskScheduled()
//
// They keep the interfaces' contracts where the task operations alone would
// not: setTimeout() refuses NaN and infinities ("Invalid timeout {}", where a
// timer task would take +infinity as "stop"), fires negative delays on the
// next pass and clamps long ones to kMaxTimeoutSeconds; remainingTimeout()
// is 0.0, not +infinity, from expiry until the handler is called; and an
// exception from the handler is offered to its handle*Exception() first
// (true swallows it), as every other control does. An exception it does not
// swallow leaves the event loop like any task's.
//
// Ownership: the handler must outlive the control. The control may be
// dropped anywhere, also by the handler from inside its own notification
// (the scheduler keeps a running task alive until its run ends).
//
// Threading: the scheduler's thread only.
#pragma once

#include <memory>
#include <string>

#include "Tolan/Platform.h"
#include "Tolan/Task.h"
#include "Tolan/TimerTask.h"

// The descriptor control, the third of the unit.
#include "Tolan/TaskFdControl.h"

namespace Tolan {
namespace Platform {

class TOLAN_EXPORT TaskTimerControl : public TimerTask, public TimerControl {
 public:
  TaskTimerControl(TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                   std::string name);
  ~TaskTimerControl() override;

  void setTimeout(double seconds) override;
  void delTimeout() override;
  double remainingTimeout() const override;
  void taskExecute() override;

 private:
  TimeoutHandler* handler_;
};

class TOLAN_EXPORT TaskCallbackControl : public Task, public CallbackControl {
 public:
  TaskCallbackControl(CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                      std::string name);
  ~TaskCallbackControl() override;

  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;
  void taskExecute() override;

 private:
  CallbackHandler* handler_;
};

// A timer control whose timeout() runs as the task `name` of `scheduler`.
TOLAN_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           std::shared_ptr<TaskScheduler> scheduler,
                                                           TaskPriority priority, std::string name);
// A callback control whose callback() runs as the task `name` of `scheduler`.
TOLAN_EXPORT std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler,
                                                                 std::shared_ptr<TaskScheduler> scheduler,
                                                                 TaskPriority priority, std::string name);

}  // namespace Platform
}  // namespace Tolan
