// TimerTask.cpp - timer tasks on the root's timer wheel.
//
// The wheel is reached through the scheduler's root on every call rather
// than held: a task keeps its scheduler (and so the root) alive, and a share
// of the wheel in every task would cost 16 bytes per timer. Whether the timer
// is armed is the wheel event's own state (a finite expiry): the wheel clears
// it before it notifies, and when a wheel goes with timers still held it
// detaches them the same way, so no flag of ours can go stale.
//
// The seconds forms are the primary ones; a nanosecond delay converts
// exactly enough (a double holds nanoseconds exactly up to 104 days).
#include "Tolan/TimerTask.h"

#include <limits>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Impl/TaskSchedulerImpl.h"
#include "Tolan/TaskScheduler.h"

namespace Tolan {

using Type = TaskSchedulerEventType;

namespace {

inline Platform::DebugHandler& dbg() noexcept { return Impl::taskSchedulerDebug(); }

constexpr double kInfinity = std::numeric_limits<double>::infinity();

inline double seconds(std::chrono::nanoseconds d) noexcept { return static_cast<double>(d.count()) / 1e9; }

}  // namespace

TimerTask::TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name)
    : TaskImpl(std::move(scheduler), priority, std::move(name)) {}

TimerTask::TimerTask(TaskScheduler* scheduler, TaskPriority priority, std::string name)
    : TaskImpl(scheduler, priority, std::move(name)) {}

TimerTask::~TimerTask() {
  // The wheel event must be unlinked before it is destroyed, even when a
  // subclass has already unregistered the task.
  if (taskMagicNumber() == kMagicConstructed) {
    stopTimerTask();
  } else if (timerRunning()) {
    TimerWheelEvent::delTimeout(wheel());
  }
  handleDestroy();
}

const std::shared_ptr<TimerWheel>& TimerTask::wheel() const noexcept { return scheduler_->root()->timerWheel(); }

std::chrono::nanoseconds TimerTask::time2Duration(Time t) {
  TOLAN_ASSERT_C(t >= 0, TimerTask, "time2Duration() negative Time input");
  // Beyond 292 years the count would overflow; such a delay means "never".
  if (t >= 9.2e9) return std::chrono::nanoseconds::max();
  return std::chrono::nanoseconds(static_cast<int64_t>(t * 1e9));
}

// ---- arming ----

void TimerTask::scheduleTaskDelay(Time delay) {
  sanityCheckCurrentRunningThread();
  if (delay == kInfinity) {
    stopTimerTask();
    return;
  }
  (void)time2Duration(delay);  // refuses negative delays
  scheduleTaskDelayedPrivate(delay, true);
}

void TimerTask::scheduleTaskDelay(std::chrono::nanoseconds delay) { scheduleTaskDelay(seconds(delay)); }

void TimerTask::scheduleTaskLowestDelay(Time delay) {
  sanityCheckCurrentRunningThread();
  TOLAN_ASSERT_C(delay != kInfinity, TimerTask, "delayIntoFuture: {}", delay);
  (void)time2Duration(delay);  // refuses negative delays
  scheduleTaskDelayedPrivate(delay, false);
}

void TimerTask::scheduleTaskLowestDelay(std::chrono::nanoseconds delay) { scheduleTaskLowestDelay(seconds(delay)); }

void TimerTask::scheduleTaskJitterUp(Time delay, unsigned char maxJitterPercentage) {
  scheduleTaskJitter(delay, maxJitterPercentage, true);
}
void TimerTask::scheduleTaskJitterUp(std::chrono::nanoseconds delay, unsigned char maxJitterPercentage) {
  scheduleTaskJitter(seconds(delay), maxJitterPercentage, true);
}
void TimerTask::scheduleTaskJitterDown(Time delay, unsigned char maxJitterPercentage) {
  scheduleTaskJitter(delay, maxJitterPercentage, false);
}
void TimerTask::scheduleTaskJitterDown(std::chrono::nanoseconds delay, unsigned char maxJitterPercentage) {
  scheduleTaskJitter(seconds(delay), maxJitterPercentage, false);
}

TimerTask::Time TimerTask::jitterOffset(Time delay, unsigned char maxJitterPercentage) {
  TOLAN_ASSERT_C(maxJitterPercentage <= 100, TimerTask, "maxJitterPercentage: {} > 100",
                 static_cast<unsigned>(maxJitterPercentage));
  const double maxJitter = maxJitterPercentage * delay;
  const unsigned q = scheduler_->root()->randomPercent();
  const double offset = q * maxJitter / 10000.0;
  TOLAN_ASSERT_C(offset <= delay, TimerTask, "offset( {} ) > delayIntoFuture( {} )", offset, delay);
  return offset;
}

void TimerTask::scheduleTaskJitter(Time delay, unsigned char maxJitterPercentage, bool up) {
  sanityCheckCurrentRunningThread();
  if (delay == kInfinity) {
    stopTimerTask();
    return;
  }
  (void)time2Duration(delay);  // refuses negative delays
  const double offset = jitterOffset(delay, maxJitterPercentage);
  // delay - offset cannot go below 0: the offset is at most the delay.
  const double target = up ? delay + offset : delay - offset;
  if (up) {
    TOLAN_TRACE(dbg(), 9, "Timer jitterUp {} delay {} + {} = {}", *this, delay, offset, target);
  } else {
    TOLAN_TRACE(dbg(), 9, "Timer jitterDown {} delay {} - {} = {}", *this, delay, offset, target);
  }
  scheduleTaskDelayedPrivate(target, true);
}

void TimerTask::scheduleTaskDelayedPrivate(Time delay, bool restart) {
  const TaskTimePoint now = Impl::taskNow();
  if (delay == 0.0) {
    // The task runs as soon as it can; an armed timer would run it twice.
    stopTimer(now);
    scheduleTask();
    return;
  }
  if (taskOnRunQueue()) {
    if (!restart) {
      // Queued runs now, which is sooner than any delay.
      TOLAN_TRACE(dbg(), 8, "Already on runQueue {}", *this);
      return;
    }
    unscheduleTaskPrivate(now);
  }
  // Without restart an armed timer that fires at or before `delay` stays.
  if (!restart && delay >= timerRemaining()) {
    TOLAN_ASSERT_C(timerRunning(), TimerTask, "Task: {} not running after keeping its timer", *this);
    TOLAN_TRACE(dbg(), 8, "Timer already running {} expire {}", *this, expirationTime());
    return;
  }
  TimerWheelEvent::setTimeout(wheel(), delay);
  TOLAN_TRACE(dbg(), 8, "Timer started {} delay {}", *this, delay);
  scheduler_->history().insertTaskEvent(now, Type::timerStart, taskName_);
  taskBusyIs(true, now);  // armed
}

void TimerTask::stopTimerTask() {
  sanityCheckCurrentRunningThread();
  const TaskTimePoint now = Impl::taskNow();
  if (!stopTimer(now)) TOLAN_TRACE(dbg(), 9, "Timer stopped {}, was not running", *this);
  if (taskOnRunQueue()) {
    unscheduleTaskPrivate(now);
  } else {
    taskBusyIs(false, now);  // neither armed nor queued
  }
}

bool TimerTask::stopTimer(TaskTimePoint now) {
  if (!timerRunning()) return false;
  TOLAN_TRACE(dbg(), 9, "Timer stopped {}, was running", *this);
  scheduler_->history().insertTaskEvent(now, Type::timerStop, taskName_);
  TimerWheelEvent::delTimeout(wheel());
  return true;
}

void TimerTask::timeout() { scheduleTask(); }

// ---- state ----

TimerTask::Time TimerTask::timerRemaining() const {
  sanityCheckCurrentRunningThread();
  return TimerWheelEvent::remainingTimeout();
}

TimerTask::Time TimerTask::currentExpirationTime() const {
  sanityCheckCurrentRunningThread();
  if (taskOnRunQueue()) return Tolan::time();
  return expirationTime();
}

bool TimerTask::taskScheduled() const {
  sanityCheckCurrentRunningThread();
  return taskOnRunQueue() || timerRunning();
}

TaskStat::TaskStatus TimerTask::taskStatus() const {
  TaskStat::TaskStatus status = TaskImpl::taskStatus();
  status.taskTimerIs(true);
  status.taskTimerRunningIs(timerRunning());
  return status;
}

}  // namespace Tolan
