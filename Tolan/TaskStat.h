// TaskStat.h - statistics records of tasks and run queues.
//
// TaskStat is a snapshot of one task's counters (or, for completed tasks, the
// sum over all completed tasks of one statistics name). The scheduler fills
// the records on its own thread; once copied out, a record is a plain value
// that any thread may read, merge or render. The task name is an interned
// ConstStringRef, so copying a record allocates nothing - but copies, merges
// and destruction of records touch the name's count and therefore belong to
// the thread that owns the name's cache.
//
// TaskSchedulerPriorityStats counts the tasks of one priority of a scheduler;
// TaskSchedulerQueueStats gathers them per priority.
//
// Merging records whose names (or priorities) differ is a programming error
// and ends the process with the C library's assertion report.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Tolan/ConstStringCache.h"
#include "Tolan/TaskTypes.h"

namespace Tolan {

// An unsigned 32-bit counter where 0xFFFFFFFF means "no value": the kind of
// task keeps no such counter. Test hasValue() before comparing or printing.
class TOLAN_EXPORT TaskMaybeU32 {
 public:
  static constexpr uint32_t kNoValue = 0xFFFFFFFFu;

  constexpr TaskMaybeU32() noexcept = default;  // 0, a value
  explicit constexpr TaskMaybeU32(uint32_t raw) noexcept : raw_(raw) {}
  static constexpr TaskMaybeU32 none() noexcept { return TaskMaybeU32(kNoValue); }

  constexpr bool hasValue() const noexcept { return raw_ != kNoValue; }
  // The stored number; kNoValue when there is none.
  constexpr uint32_t raw() const noexcept { return raw_; }
  constexpr uint32_t valueOr(uint32_t fallback) const noexcept { return hasValue() ? raw_ : fallback; }

  friend constexpr bool operator==(TaskMaybeU32 a, TaskMaybeU32 b) noexcept { return a.raw_ == b.raw_; }
  friend constexpr bool operator!=(TaskMaybeU32 a, TaskMaybeU32 b) noexcept { return a.raw_ != b.raw_; }

 private:
  uint32_t raw_ = 0;
};

class TOLAN_EXPORT TaskStat {
 public:
  // Status flags of a task at the time of the copy. One byte.
  class TaskStatus {
   public:
    constexpr TaskStatus() noexcept = default;
    explicit constexpr TaskStatus(uint8_t bits) noexcept : bits_(bits) {}

    bool taskTimer() const noexcept { return bitmaskHasBitSet(kTimer); }
    void taskTimerIs(bool on) noexcept { bitmaskSetBit(kTimer, on); }
    bool taskTimerRunning() const noexcept { return bitmaskHasBitSet(kTimerRunning); }
    void taskTimerRunningIs(bool on) noexcept { bitmaskSetBit(kTimerRunning, on); }
    bool taskOnRunQueue() const noexcept { return bitmaskHasBitSet(kOnRunQueue); }
    void taskOnRunQueueIs(bool on) noexcept { bitmaskSetBit(kOnRunQueue, on); }
    bool taskCurrentlyRunning() const noexcept { return bitmaskHasBitSet(kCurrentlyRunning); }
    void taskCurrentlyRunningIs(bool on) noexcept { bitmaskSetBit(kCurrentlyRunning, on); }
    bool taskSuspended() const noexcept { return bitmaskHasBitSet(kSuspended); }
    void taskSuspendedIs(bool on) noexcept { bitmaskSetBit(kSuspended, on); }
    bool taskIsTaskGroup() const noexcept { return bitmaskHasBitSet(kIsTaskGroup); }
    void taskIsTaskGroupIs(bool on) noexcept { bitmaskSetBit(kIsTaskGroup, on); }

    constexpr uint8_t bits() const noexcept { return bits_; }
    friend constexpr bool operator==(TaskStatus a, TaskStatus b) noexcept { return a.bits_ == b.bits_; }
    friend constexpr bool operator!=(TaskStatus a, TaskStatus b) noexcept { return a.bits_ != b.bits_; }

    static constexpr uint8_t kTimer = 0x01;
    static constexpr uint8_t kTimerRunning = 0x02;
    static constexpr uint8_t kOnRunQueue = 0x04;
    static constexpr uint8_t kCurrentlyRunning = 0x08;
    static constexpr uint8_t kSuspended = 0x10;
    static constexpr uint8_t kIsTaskGroup = 0x20;

   private:
    bool bitmaskHasBitSet(uint8_t mask) const noexcept { return (bits_ & mask) != 0; }
    void bitmaskSetBit(uint8_t mask, bool on) noexcept {
      bits_ = on ? uint8_t(bits_ | mask) : uint8_t(bits_ & ~mask);
    }
    uint8_t bits_ = 0;
  };

  // Everything zero (including both high waters), no name, key 0, priority absolute.
  TaskStat() noexcept : priority_(TaskPriority::absolute) {}
  TaskStat(ConstStringRef taskName, TaskKey key, TaskPriority priority, uint32_t runCount,
           TaskTimeDuration totalRunTime, uint64_t workCountTotal, float workCountDecayingAverage,
           TaskMaybeU32 workCountHighWater, uint32_t workPending, TaskMaybeU32 workPendingHighWater,
           uint32_t quantumViolation500, uint32_t quantumViolation200, TaskTimeDuration runTimeHighWaterMark,
           TaskTimeDuration lastSchedulingLatency, TaskTimeDuration schedulingLatencyHighWaterMark,
           TaskStatus status) noexcept;
  TaskStat(const TaskStat&) = default;
  TaskStat(TaskStat&&) noexcept = default;
  TaskStat& operator=(const TaskStat&) = default;
  TaskStat& operator=(TaskStat&&) = default;

  // The name, or an empty string when the record has none.
  const std::string& taskName() const noexcept { return taskName_.str(); }
  const ConstStringRef& taskNameRef() const noexcept { return taskName_; }
  void taskNameIs(ConstStringRef name) { taskName_ = std::move(name); }

  TaskKey taskKey() const noexcept { return key_; }
  TaskPriority taskPriority() const noexcept { return priority_; }
  TaskStatus taskStatus() const noexcept { return status_; }
  void taskStatusIs(TaskStatus status) noexcept { status_ = status; }
  // Two characters: '*' running, else 'S' suspended, else 'T'/'t' for a timer
  // task with its timer armed/not, else ' '; then the priority letter, lower
  // case when the task is not on a run queue.
  std::string taskStatusString() const;

  uint32_t taskRunCount() const noexcept { return runCount_; }
  void taskRunInc(uint32_t n) noexcept { runCount_ += n; }
  TaskTimeDuration taskTotalRunTime() const noexcept { return totalRunTime_; }
  void taskTotalRunTimeInc(TaskTimeDuration d) noexcept { totalRunTime_ += d; }
  uint64_t taskWorkCountTotal() const noexcept { return workCountTotal_; }
  void taskWorkCountTotalInc(uint64_t n) noexcept { workCountTotal_ += n; }
  float taskWorkCountDecayingAverage() const noexcept { return workCountDecayingAverage_; }
  TaskMaybeU32 taskWorkCountHighWater() const noexcept { return workCountHighWater_; }
  uint32_t taskWorkPending() const noexcept { return workPending_; }
  TaskMaybeU32 taskWorkPendingHighWater() const noexcept { return workPendingHighWater_; }
  uint32_t taskQuantumViolation500() const noexcept { return quantumViolation500_; }
  void taskQuantumViolation500Inc(uint32_t n) noexcept { quantumViolation500_ += n; }
  uint32_t taskQuantumViolation200() const noexcept { return quantumViolation200_; }
  void taskQuantumViolation200Inc(uint32_t n) noexcept { quantumViolation200_ += n; }
  TaskTimeDuration taskRunTimeHighWaterMark() const noexcept { return runTimeHighWaterMark_; }
  void taskRunTimeHighWaterMarkIs(TaskTimeDuration d) noexcept { runTimeHighWaterMark_ = d; }
  TaskTimeDuration taskLastSchedulingLatency() const noexcept { return lastSchedulingLatency_; }
  void taskLastSchedulingLatencyIs(TaskTimeDuration d) noexcept { lastSchedulingLatency_ = d; }
  TaskTimeDuration taskSchedulingLatencyHighWaterMark() const noexcept { return schedulingLatencyHighWaterMark_; }
  void taskSchedulingLatencyHighWaterMarkIs(TaskTimeDuration d) noexcept { schedulingLatencyHighWaterMark_ = d; }
  uint32_t taskCompletedCount() const noexcept { return completedCount_; }
  void taskCompletedCountInc(uint32_t n) noexcept { completedCount_ += n; }
  void taskCompletedCountIs(uint32_t n) noexcept { completedCount_ = n; }

  // Folds `other`, a later record of the same name, into this one: counts
  // and times add up, gauges take `other`'s value, high waters keep the
  // larger, and the completed count grows by exactly one (each merge is one
  // more completion). Name, key and priority stay. Names must be equal.
  TaskStat& operator+=(const TaskStat& other);

 private:
  ConstStringRef taskName_;
  TaskKey key_;
  TaskPriority priority_;
  TaskStatus status_;
  uint32_t runCount_ = 0;
  TaskTimeDuration totalRunTime_{0};
  uint64_t workCountTotal_ = 0;
  float workCountDecayingAverage_ = 0;
  TaskMaybeU32 workCountHighWater_;
  uint32_t workPending_ = 0;
  TaskMaybeU32 workPendingHighWater_;
  uint32_t quantumViolation500_ = 0;
  uint32_t quantumViolation200_ = 0;
  TaskTimeDuration runTimeHighWaterMark_{0};
  TaskTimeDuration lastSchedulingLatency_{0};
  TaskTimeDuration schedulingLatencyHighWaterMark_{0};
  uint32_t completedCount_ = 0;
};

// Task counts of one priority of one scheduler.
struct TOLAN_EXPORT TaskSchedulerPriorityStats {
  TaskSchedulerPriorityStats() noexcept = default;
  explicit TaskSchedulerPriorityStats(TaskPriority p, uint32_t runnable = 0, uint32_t idle = 0,
                                      uint32_t completed = 0, uint64_t totalRuns = 0) noexcept
      : priority(p), runnableTasks(runnable), idleTasks(idle), completedTasks(completed), totalRunCount(totalRuns) {}

  // Adds the counts of `other`, which must have the same priority.
  TaskSchedulerPriorityStats& operator+=(const TaskSchedulerPriorityStats& other);

  TaskPriority priority = TaskPriority::absolute;
  uint32_t runnableTasks = 0;
  uint32_t idleTasks = 0;
  uint32_t completedTasks = 0;
  uint64_t totalRunCount = 0;
};

// Per-priority counts of one scheduler (or, merged, of several), in
// ascending priority order.
using TaskSchedulerQueueStats = std::map<TaskPriority, TaskSchedulerPriorityStats>;

// Adds each of `other`'s records to the one of the same priority in `stats`,
// or copies it in. Returns `stats`.
TOLAN_EXPORT TaskSchedulerQueueStats& operator+=(TaskSchedulerQueueStats& stats,
                                               const TaskSchedulerQueueStats& other);

}  // namespace Tolan
