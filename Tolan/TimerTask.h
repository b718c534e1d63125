// TimerTask.h - a task that becomes runnable after a delay.
//
// Derive from TimerTask, put the work in taskExecute() and arm it:
//
//   class Poll : public Tolan::TimerTask {
//    public:
//     explicit Poll(std::shared_ptr<Tolan::TaskScheduler> s)
//         : TimerTask(std::move(s), Tolan::TaskPriority::normal, "poll") {}
//     void taskExecute() override {
//       pollOnce();
//       scheduleTaskJitterUp(5.0, 10);   // again in 5 to 5.5 s
//     }
//   };
//
// When the timer expires the task joins its run queue and runs like any other
// task (accounted, prioritised, bounded by its quantum). Three ways to choose
// the delay: scheduleTaskDelay (re-arms, sooner or later), the jitter forms
// (spread many periodic tasks so that they do not fire together), and
// scheduleTaskLowestDelay (only ever brings an armed timer forward; a task
// already on its run queue stays there). One timer per task: arming an armed
// task replaces its expiry. A delay of 0 queues the task at once, without a
// timer; +infinity means "never" and stops it.
//
// Costs: all timer tasks of a thread share the root's timer wheel, which
// keeps one event-loop timer for all of them. Arming and stopping are
// constant-time wheel operations with no allocation: two clock reads (the
// steady clock for the history, Tolan::time() for the expiry) and one
// history event. A TimerTask is a Task plus its wheel event (72 bytes); the
// wheel holds nothing else per timer.
//
// Threading: the scheduler root's thread only; every operation checks it.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "Tolan/Task.h"
#include "Tolan/TimerWheel.h"

namespace Tolan {

class TOLAN_EXPORT TimerTask : public TaskImpl, private TimerWheelEvent {
 public:
  // Seconds on the Tolan::time() clock.
  using Time = double;

  TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name);
  TimerTask(TaskScheduler* scheduler, TaskPriority priority, std::string name);
  // Stops the timer (and dequeues the task) first.
  ~TimerTask() override;

  // Run after `delay`; an armed timer is re-armed, whether sooner or later,
  // and a queued task leaves its queue until then. 0 queues the task now
  // (and disarms an armed timer, here and in the other forms);
  // +infinity stops it. A negative delay (or NaN) fails the assertion
  // "time2Duration() negative Time input".
  void scheduleTaskDelay(Time delay);
  void scheduleTaskDelay(std::chrono::nanoseconds delay);
  // Run after `delay` plus (or minus) delay x maxJitterPercentage/100 x q/100,
  // q drawn from the root's randomPercent() (0..100, so the offset moves in
  // hundredths of the largest jitter). A percentage above 100 fails the
  // assertion "maxJitterPercentage: <p> > 100". A jitter down may reach 0,
  // which queues the task at once. +infinity stops the timer.
  void scheduleTaskJitterUp(Time delay, unsigned char maxJitterPercentage);
  void scheduleTaskJitterUp(std::chrono::nanoseconds delay, unsigned char maxJitterPercentage);
  void scheduleTaskJitterDown(Time delay, unsigned char maxJitterPercentage);
  void scheduleTaskJitterDown(std::chrono::nanoseconds delay, unsigned char maxJitterPercentage);
  // Run after `delay` unless the task already runs sooner: a timer armed to
  // fire at or before then is kept, and a queued task stays queued. Never
  // postpones. +infinity is a programming error ("delayIntoFuture: inf").
  void scheduleTaskLowestDelay(Time delay);
  void scheduleTaskLowestDelay(std::chrono::nanoseconds delay);
  // Disarms the timer and takes the task off its run queue.
  void stopTimerTask();

  // Seconds until the timer fires (0.0 when due but not yet fired); +infinity
  // when it is not armed (also while the task waits on its run queue).
  Time timerRemaining() const;
  // When the task will run: Tolan::time() when queued, the expiry when armed,
  // +infinity otherwise.
  Time currentExpirationTime() const;
  // True while the timer is armed (not while the task is only queued).
  bool timerRunning() const noexcept { return TimerWheelEvent::running(); }
  // Queued or armed: the task will run without further scheduling.
  bool taskScheduled() const override;
  // Adds taskTimer (always) and taskTimerRunning (while armed).
  TaskStat::TaskStatus taskStatus() const override;

  // Seconds as a nanosecond duration; `t` must not be negative.
  static std::chrono::nanoseconds time2Duration(Time t);

 protected:
  // The offset that the jitter forms add or subtract (see there).
  Time jitterOffset(Time delay, unsigned char maxJitterPercentage);

 private:
  // The wheel fired: the task joins its run queue.
  void timeout() override;
  void scheduleTaskDelayedPrivate(Time delay, bool restart);
  // Disarms an armed timer with its history event; false when not armed.
  bool stopTimer(TaskTimePoint now);
  void scheduleTaskJitter(Time delay, unsigned char maxJitterPercentage, bool up);
  const std::shared_ptr<TimerWheel>& wheel() const noexcept;
};

}  // namespace Tolan
