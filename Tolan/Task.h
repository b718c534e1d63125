// Task.h - a unit of cooperative work run by a thread's task scheduler.
//
// Derive from Task, put the work in taskExecute(), and schedule it:
//
//   class Flush : public Tolan::Task {
//    public:
//     Flush() : Task(Tolan::schedulerRootTolan(), Tolan::TaskPriority::normal, "flush") {}
//     void taskExecute() override {
//       while (pending() && !taskShouldYield()) writeSome();
//       if (pending()) scheduleTask();   // the rest on a later turn
//     }
//   };
//   auto flush = std::make_shared<Flush>();
//   flush->scheduleTask();               // runs from the thread's event loop
//
// The scheduler calls taskExecute() once per scheduleTask(); the task asks
// taskShouldYield() when it has used its quantum (20 ms by default) and
// returns. Scheduling an already scheduled task does nothing.
//
// Ownership: hold tasks by std::shared_ptr (std::make_shared). The scheduler
// then keeps a running task alive until its taskExecute() returns, so an owner
// may drop it from inside. A task that no shared_ptr ever owned (a member, a
// local) also runs, without that guard: its owner keeps it alive while it is
// registered. A task keeps its scheduler alive.
//
// Costs: scheduleTask() and unscheduleTask() allocate nothing (intrusive
// queues, interned names); each reads the steady clock once and records up to
// two history events. A Task is 224 bytes (240 with make_shared's count), and
// its name is interned once per distinct name.
//
// Threading: a task belongs to the thread of its scheduler. scheduleTask(),
// unscheduleTask(), taskScheduled() and the other entry points check the
// calling thread (see TaskSchedulerRoot::sanityCheckCurrentRunningThread).
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "Tolan/Common.h"
#include "Tolan/ConstStringCache.h"
#include "Tolan/IntrusiveBookmarkLinkedList.h"
#include "Tolan/TaskStat.h"
#include "Tolan/TaskTypes.h"

namespace Tolan {

class TaskScheduler;
class TaskSchedulerHistory;
class TaskSchedulerRoot;
class TaskRunQueue;

// How a task decides that it should yield.
enum class TaskShouldYieldMode : uint8_t {
  yieldByQuantum = 0,      // the steady clock shows the quantum used up
  yieldByVirtualTime = 1,  // Tolan::time() (virtual under fast-forward) shows it used up
  yieldByTestRatio = 2,    // every n-th call, n being the effective test yield ratio
};
// "yieldByQuantum", "yieldByVirtualTime", "yieldByTestRatio", or "" for other values.
TOLAN_EXPORT const char* taskShouldYieldModeToString(TaskShouldYieldMode mode) noexcept;

// The quantum a scheduler gives new tasks unless told otherwise.
constexpr TaskTimeDuration kDefaultTaskQuantum{20000000};
// The largest quantum taskQuantumIs() accepts: one second.
constexpr TaskTimeDuration kMaxTaskQuantum{1000000000};

// The root of every kind of task: identity, names, priority and scheduler.
// Kinds that are not a single queue entry (descriptor tasks) derive from it
// directly; everything else derives from TaskImpl.
class TOLAN_EXPORT _TaskBase : public std::enable_shared_from_this<_TaskBase> {
 public:
  // Renames the statistics (completed tasks are tallied per statistics name).
  virtual void taskStatsNameIs(const std::string& name) = 0;
  // True while the task will run without further scheduling.
  virtual bool taskScheduled() const = 0;
  // Asked from inside taskExecute(): true when the task should return.
  virtual bool taskShouldYield() const noexcept = 0;
  // Work units processed in this run (for statistics).
  virtual void taskWorkCountInc(unsigned long long n) = 0;
  // Work units waiting (for statistics).
  virtual void taskWorkPendingIs(unsigned int n) = 0;
  // Called when the task turns busy or idle (see TaskImpl::taskBusyIs).
  virtual void handleTaskBusy() {}
  // Called when the scheduler resets statistics, after the common counters.
  virtual void handleResetStats() {}
  virtual ~_TaskBase();

  _TaskBase(const _TaskBase&) = delete;
  _TaskBase& operator=(const _TaskBase&) = delete;

  const std::string& taskName() const noexcept { return taskName_.str(); }
  const ConstStringRef& taskNameRef() const noexcept { return taskName_; }
  const std::string& taskStatsName() const noexcept { return taskStatsName_.str(); }
  const ConstStringRef& taskStatsNameRef() const noexcept { return taskStatsName_; }
  TaskPriority taskPriority() const noexcept { return priority_; }
  TaskScheduler* scheduler() const noexcept { return scheduler_; }

 protected:
  // Interns `name` in the scheduler's history. A null scheduler fails the
  // assertion "Need a TaskScheduler".
  _TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string_view name);
  // Takes shared ownership of `scheduler` when a shared_ptr owns it.
  _TaskBase(TaskScheduler* scheduler, TaskPriority priority, std::string_view name);
  // Without ownership: for tasks that the scheduler itself owns.
  struct NotOwningScheduler {};
  _TaskBase(NotOwningScheduler, TaskScheduler* scheduler, TaskPriority priority, std::string_view name);

  void taskStatsNameRefIs(ConstStringRef name) { taskStatsName_ = std::move(name); }

  TaskScheduler* scheduler_;
  std::shared_ptr<TaskScheduler> schedulerOwner_;
  ConstStringRef taskName_;
  ConstStringRef taskStatsName_;
  TaskPriority priority_;

 private:
  void internName(std::string_view name);
};

// A task that is one run-queue entry: scheduling, suspension, quantum and
// yield decision, run accounting. Clients derive from Task.
class TOLAN_EXPORT TaskImpl : public _TaskBase {
 public:
  static constexpr uint32_t kMagicConstructed = 0x42be5afe;
  static constexpr uint32_t kMagicDestroyed = 0xdeaddead;

  // Registers the task with `scheduler` (which must be on the calling thread)
  // at `priority` (one of absolute .. scavenge).
  TaskImpl(std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority, std::string name);
  TaskImpl(TaskScheduler* scheduler, TaskPriority priority, std::string name);

  void taskStatsNameIs(const std::string& name) override;
  // True while on a run queue.
  bool taskScheduled() const override;
  // From inside taskExecute(). By quantum: whether the steady clock shows the
  // quantum used up since the run began; by virtual time: the same on
  // Tolan::time(); by test ratio: true on every n-th call. Asked outside a
  // run of a task that has run before, it fails the assertion
  // "taskCurrentlyRunning: ... taskRunCount: ..." (which ends the process).
  bool taskShouldYield() const noexcept override;
  // Adds `n` to the work total; keeps a decaying average (9/10 old, 1/10 new)
  // and the largest single increment.
  void taskWorkCountInc(unsigned long long n) override;
  // Sets the pending-work gauge and keeps its high water.
  void taskWorkPendingIs(unsigned int n) override;
  // Unschedules and unregisters the task.
  ~TaskImpl() override;

  // Puts the task at the back of its priority's run queue; no-op when it is
  // already there. A suspended task is not queued (a "scheduleSus" history
  // event says it was asked). Never throws: a failure ends the process.
  virtual void scheduleTask() noexcept;
  // Runs taskExecute() once, now, without the scheduler's accounting.
  virtual void taskRunFromTest();
  virtual TaskStat::TaskStatus taskStatus() const;
  // The task's work. May call scheduleTask() to run again later. An
  // exception leaves the event loop (see TaskSchedulerRoot).
  virtual void taskExecute() = 0;
  // True for a task group's parent task.
  virtual bool isTaskGroup() const noexcept { return false; }

  // Takes the task off its run queue; no-op when it is not on one.
  void unscheduleTask();
  // A suspended task leaves its run queue and ignores scheduleTask() until
  // resumed; resuming schedules it once, whether or not it was asked to run.
  void taskSuspendedIs(bool suspended);
  bool taskSuspended() const noexcept { return suspended_; }
  // Records a "busy"/"idle" history event and calls handleTaskBusy() when
  // `busy` differs from the last value given.
  void taskBusyIs(bool busy, TaskTimePoint now) {
    if (busy != busy_) taskBusyChange(busy, now);
  }
  bool taskBusy() const noexcept { return busy_; }

  // At most kMaxTaskQuantum, else the assertion "Quantum: <ns>". Zero means
  // "never a violation" (taskShouldYield() then always answers true by quantum).
  void taskQuantumIs(TaskTimeDuration quantum);
  // As taskQuantumIs without the upper limit; negative values still fail.
  void taskQuantumNoCheckIs(TaskTimeDuration quantum);
  TaskTimeDuration taskQuantum() const noexcept { return quantum_; }

  TaskShouldYieldMode taskShouldYieldMode() const noexcept { return yieldMode_; }
  // Overrides the mode until the next re-evaluation (a change of the root's
  // virtual time or test yield ratio, or of this task's ratio).
  void taskShouldYieldModeIs(TaskShouldYieldMode mode) noexcept { yieldMode_ = mode; }
  // By test ratio when the task's own ratio or else the root's is non-zero;
  // else by virtual time when the root runs on virtual time; else by quantum.
  void taskShouldYieldModeReevaluate();
  // The task's own test yield ratio; 0 takes the root's.
  void taskTestYieldRatioIs(unsigned char ratio);
  unsigned char taskTestYieldRatio() const noexcept { return taskTestYieldRatio_; }
  void taskTestYieldRatioEffectiveIs(unsigned char ratio) noexcept { taskTestYieldRatioEffective_ = ratio; }
  unsigned char taskTestYieldRatioEffective() const noexcept { return taskTestYieldRatioEffective_; }
  // Forces taskShouldYield() to answer true on every call (a test yield
  // ratio of 1 of the task's own). Recorded as "frcYieldOn"/"frcYieldOff";
  // the scheduler is told (task groups pass it to their parent task).
  void taskForceYieldInTestIs(bool force);
  bool taskForceYieldInTest() const noexcept { return taskTestYieldRatio_ == 1; }

  // Whether the task's statistics are folded into its scheduler's completed
  // tasks when it is destroyed. On by default.
  void includeInCompletedTaskIs(bool include) noexcept { includeInCompletedTask_ = include; }
  bool includeInCompletedTask() const noexcept { return includeInCompletedTask_; }

  // Runs the task once, now, as the scheduler would: latency if it was
  // queued, run time, quantum violations, history.
  void taskRunAndRecordFromTest();

  // A copy of the counters and status (name: taskName()).
  TaskStat getStats() const;
  // Zeroes the run counters and latencies, clears the work high waters,
  // then calls handleResetStats(). Name, key, priority and status stay.
  void resetStats();

  TaskKey taskKey() const noexcept { return key_; }
  bool taskCurrentlyRunning() const noexcept { return currentlyRunning_; }
  // Time since the current run began; zero between runs.
  TaskTimeDuration taskCurrentRunTime() const noexcept;
  uint32_t taskRunCount() const noexcept { return runCount_; }
  TaskTimeDuration taskTotalRunTime() const noexcept { return totalRunTime_; }
  TaskTimeDuration taskRunTimeHighWaterMark() const noexcept { return runTimeHighWaterMark_; }
  TaskTimeDuration taskLastSchedulingLatency() const noexcept { return lastSchedulingLatency_; }
  TaskTimeDuration taskSchedulingLatencyHighWaterMark() const noexcept { return schedulingLatencyHighWaterMark_; }
  uint32_t taskQuantumViolation200() const noexcept { return quantumViolation200_; }
  uint32_t taskQuantumViolation500() const noexcept { return quantumViolation500_; }
  void taskQuantumViolation200Inc() noexcept { ++quantumViolation200_; }
  void taskQuantumViolation500Inc() noexcept { ++quantumViolation500_; }
  uint64_t taskWorkCountTotal() const noexcept { return workCountTotal_; }
  float taskWorkCountDecayingAverage() const noexcept { return workCountDecayingAverage_; }
  TaskMaybeU32 taskWorkCountHighWater() const noexcept { return workCountHighWater_; }
  uint32_t taskWorkPending() const noexcept { return workPending_; }
  TaskMaybeU32 taskWorkPendingHighWater() const noexcept { return workPendingHighWater_; }
  uint32_t taskMagicNumber() const noexcept { return magic_; }

  // Fails the wrong-thread assertion unless called on the root's thread
  // (or exempt, see TaskSchedulerRoot).
  void sanityCheckCurrentRunningThread() const;

 protected:
  TaskImpl(NotOwningScheduler, TaskScheduler* scheduler, TaskPriority priority, std::string name);
  // The end of construction: registers with the scheduler.
  void handleInitialized();
  // The start of destruction: unschedules, unregisters, marks the task
  // destroyed. Called again by ~TaskImpl only if a subclass did not call it.
  void handleDestroy();
  // Takes the task off its run queue (if on one) at `now`, then updates the
  // busy flag; the thread check is the caller's.
  void unscheduleTaskPrivate(TaskTimePoint now);
  bool taskOnRunQueue() const noexcept { return taskRunQueueLink_.isLinked(); }

 private:
  friend class TaskScheduler;
  friend class TaskRunQueue;

  void construct();
  void taskBusyChange(bool busy, TaskTimePoint now);
  // One run picked by the scheduler at `now`; `end` receives the end time.
  void taskDoRun(TaskTimePoint now, TaskTimePoint& end);
  void finishRun(TaskTimePoint& end);
  static void checkMagic(uint32_t magic, const TaskSchedulerHistory& history, const ConstStringRef::Elem* name,
                         const void* task) noexcept;
  [[noreturn]] TOLAN_COLD static void magicFail(uint32_t magic, const TaskSchedulerHistory& history,
                                                const ConstStringRef::Elem* name, const void* task) noexcept;

  uint8_t taskTestYieldRatio_ = 0;
  uint8_t taskTestYieldRatioEffective_ = 0;
  mutable uint8_t taskTestYieldCounter_ = 0;
  bool busy_ = false;
  bool suspended_ = false;
  TaskShouldYieldMode yieldMode_ = TaskShouldYieldMode::yieldByQuantum;
  bool currentlyRunning_ = false;
  bool includeInCompletedTask_ = true;
  TaskTimeDuration quantum_{kDefaultTaskQuantum};
  TaskTimePoint runQueueTime_{};
  TaskTimePoint runStartTime_{};
  TaskTimeDuration lastSchedulingLatency_{0};
  TaskTimeDuration schedulingLatencyHighWaterMark_{0};
  TaskTimeDuration totalRunTime_{0};
  TaskTimeDuration runTimeHighWaterMark_{0};
  uint32_t quantumViolation200_ = 0;
  uint32_t quantumViolation500_ = 0;
  uint32_t runCount_ = 0;
  uint32_t magic_ = 0;
  ListLinkNode<TaskImpl> taskRunQueueLink_;
  BookmarkListLinkNode<TaskImpl> taskRegisteredLink_;
  uint64_t workCountTotal_ = 0;
  float workCountDecayingAverage_ = 0;
  TaskMaybeU32 workCountHighWater_ = TaskMaybeU32::none();
  uint32_t workPending_ = 0;
  TaskMaybeU32 workPendingHighWater_ = TaskMaybeU32::none();
  TaskKey key_;
  // Whether a shared_ptr owns the task, found at its first run: the
  // scheduler holds owned tasks alive while they run.
  enum class Ownership : uint8_t { unknown, shared, none };
  Ownership ownership_ = Ownership::unknown;
};

// The task class for client code: TaskImpl with constructors from a shared
// or a plain scheduler pointer.
class TOLAN_EXPORT Task : public TaskImpl {
 public:
  Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name);
  Task(TaskScheduler* scheduler, TaskPriority priority, std::string name);
  ~Task() override;

  bool taskScheduled() const override;
  void scheduleTask() noexcept override;
  void taskRunFromTest() override;
  TaskStat::TaskStatus taskStatus() const override;
};

}  // namespace Tolan

// A task prints as its name and key: "flush@12".
template <typename T>
struct fmt::formatter<T, char, std::enable_if_t<std::is_base_of<Tolan::_TaskBase, T>::value>>
    : fmt::formatter<fmt::string_view> {
  template <typename FormatContext>
  auto format(const Tolan::_TaskBase& task, FormatContext& ctx) const -> decltype(ctx.out()) {
    const auto* impl = dynamic_cast<const Tolan::TaskImpl*>(&task);
    if (!impl) return fmt::format_to(ctx.out(), "{}", task.taskName());
    return fmt::format_to(ctx.out(), "{}{}", task.taskName(), impl->taskKey());
  }
};
