#include "Tolan/TaskStat.h"

#include <algorithm>
#include <cctype>

#include "Tolan/Impl/TaskSchedulerAssert.h"

namespace Tolan {
namespace {

// A no-value counts as 0 on the left and never wins from the right, so a
// no-value survives a merge with another no-value.
TaskMaybeU32 mergedHighWater(TaskMaybeU32 mine, TaskMaybeU32 theirs) {
  if (theirs.hasValue() && theirs.raw() > mine.valueOr(0)) return theirs;
  return mine;
}

}  // namespace

TaskStat::TaskStat(ConstStringRef taskName, TaskKey key, TaskPriority priority, uint32_t runCount,
                   TaskTimeDuration totalRunTime, uint64_t workCountTotal, float workCountDecayingAverage,
                   TaskMaybeU32 workCountHighWater, uint32_t workPending, TaskMaybeU32 workPendingHighWater,
                   uint32_t quantumViolation500, uint32_t quantumViolation200, TaskTimeDuration runTimeHighWaterMark,
                   TaskTimeDuration lastSchedulingLatency, TaskTimeDuration schedulingLatencyHighWaterMark,
                   TaskStatus status) noexcept
    : taskName_(std::move(taskName)),
      key_(key),
      priority_(priority),
      status_(status),
      runCount_(runCount),
      totalRunTime_(totalRunTime),
      workCountTotal_(workCountTotal),
      workCountDecayingAverage_(workCountDecayingAverage),
      workCountHighWater_(workCountHighWater),
      workPending_(workPending),
      workPendingHighWater_(workPendingHighWater),
      quantumViolation500_(quantumViolation500),
      quantumViolation200_(quantumViolation200),
      runTimeHighWaterMark_(runTimeHighWaterMark),
      lastSchedulingLatency_(lastSchedulingLatency),
      schedulingLatencyHighWaterMark_(schedulingLatencyHighWaterMark),
      completedCount_(0) {}

std::string TaskStat::taskStatusString() const {
  char state = ' ';
  if (status_.taskCurrentlyRunning()) {
    state = '*';
  } else if (status_.taskSuspended()) {
    state = 'S';
  } else if (status_.taskTimer()) {
    state = status_.taskTimerRunning() ? 'T' : 't';
  }
  char priority = priority_.oneChar();
  if (!status_.taskOnRunQueue()) priority = static_cast<char>(std::tolower(static_cast<unsigned char>(priority)));
  return std::string{state, priority};
}

TaskStat& TaskStat::operator+=(const TaskStat& other) {
  if (TOLAN_UNLIKELY(taskName_.str() != other.taskName_.str()))
    Impl::taskSchedulerAssertFail("operator+=", __LINE__, taskName_.str() + " != " + other.taskName_.str());
  runCount_ += other.runCount_;
  totalRunTime_ += other.totalRunTime_;
  workCountTotal_ += other.workCountTotal_;
  quantumViolation500_ += other.quantumViolation500_;
  quantumViolation200_ += other.quantumViolation200_;
  // Gauges: the most recent record wins.
  workCountDecayingAverage_ = other.workCountDecayingAverage_;
  workPending_ = other.workPending_;
  lastSchedulingLatency_ = other.lastSchedulingLatency_;
  status_ = other.status_;
  workCountHighWater_ = mergedHighWater(workCountHighWater_, other.workCountHighWater_);
  workPendingHighWater_ = mergedHighWater(workPendingHighWater_, other.workPendingHighWater_);
  runTimeHighWaterMark_ = std::max(runTimeHighWaterMark_, other.runTimeHighWaterMark_);
  schedulingLatencyHighWaterMark_ = std::max(schedulingLatencyHighWaterMark_, other.schedulingLatencyHighWaterMark_);
  // One merge is one more completion, whatever `other` has counted.
  ++completedCount_;
  return *this;
}

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(const TaskSchedulerPriorityStats& other) {
  if (TOLAN_UNLIKELY(priority != other.priority))
    Impl::taskSchedulerAssertFail("operator+=", __LINE__,
                                  std::string(priority.toStrep()) + " != " + other.priority.toStrep());
  runnableTasks += other.runnableTasks;
  idleTasks += other.idleTasks;
  completedTasks += other.completedTasks;
  totalRunCount += other.totalRunCount;
  return *this;
}

TaskSchedulerQueueStats& operator+=(TaskSchedulerQueueStats& stats, const TaskSchedulerQueueStats& other) {
  for (const auto& [priority, record] : other) {
    auto found = stats.find(priority);
    if (found != stats.end()) {
      found->second += record;
    } else {
      stats.emplace(priority, record);
    }
  }
  return stats;
}

}  // namespace Tolan
