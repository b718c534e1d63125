// Task.cpp - the task classes.
//
// Hot paths: scheduleTask() and a run (taskDoRun) read the steady clock once
// each, record their history events through the interned task name, and test
// each trace level before formatting anything. The clock is read directly
// (Impl::taskNow) rather than through std::chrono, which saves a call.
//
// Failures of the client's own making (wrong thread, bad quantum) are library
// assertions. A task found destroyed after its own run is an internal
// invariant that no caller can recover from: the process aborts.
#include "Tolan/Task.h"

#include <algorithm>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Impl/TaskSchedulerAssert.h"
#include "Tolan/Impl/TaskSchedulerImpl.h"
#include "Tolan/TaskScheduler.h"

namespace Tolan {

using Type = TaskSchedulerEventType;

namespace {

inline Platform::DebugHandler& dbg() noexcept { return Impl::taskSchedulerDebug(); }

// A high water that reads "no value" until the first sample; all ones is
// stored one lower so that it never reads as unset.
inline TaskMaybeU32 raisedHighWater(TaskMaybeU32 current, uint64_t sample) {
  const uint32_t capped = static_cast<uint32_t>(std::min<uint64_t>(sample, TaskMaybeU32::kNoValue - 1));
  if (!current.hasValue() || capped > current.raw()) return TaskMaybeU32(capped);
  return current;
}

}  // namespace

const char* taskShouldYieldModeToString(TaskShouldYieldMode mode) noexcept {
  switch (mode) {
    case TaskShouldYieldMode::yieldByQuantum: return "yieldByQuantum";
    case TaskShouldYieldMode::yieldByVirtualTime: return "yieldByVirtualTime";
    case TaskShouldYieldMode::yieldByTestRatio: return "yieldByTestRatio";
  }
  return "";
}

void TaskSchedulerHistory::insert(const TaskTimePoint& when, TaskSchedulerEventType type, const _TaskBase* task) {
  insertTaskEvent(when, type, task->taskNameRef());
}

// ---- _TaskBase ----

_TaskBase::_TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string_view name)
    : scheduler_(scheduler.get()), schedulerOwner_(std::move(scheduler)), priority_(priority) {
  internName(name);
}

_TaskBase::_TaskBase(TaskScheduler* scheduler, TaskPriority priority, std::string_view name)
    : scheduler_(scheduler),
      schedulerOwner_(scheduler ? scheduler->weak_from_this().lock() : nullptr),
      priority_(priority) {
  internName(name);
}

_TaskBase::_TaskBase(NotOwningScheduler, TaskScheduler* scheduler, TaskPriority priority, std::string_view name)
    : scheduler_(scheduler), priority_(priority) {
  internName(name);
}

void _TaskBase::internName(std::string_view name) {
  TOLAN_ASSERT_C(scheduler_ != nullptr, _TaskBase, "Need a TaskScheduler");
  taskName_ = scheduler_->history().stringCache().intern(name);
  taskStatsName_ = taskName_;
}

_TaskBase::~_TaskBase() = default;

// ---- TaskImpl: life ----

TaskImpl::TaskImpl(std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority, std::string name)
    : _TaskBase(std::move(scheduler), priority, name) {
  construct();
}

TaskImpl::TaskImpl(TaskScheduler* scheduler, TaskPriority priority, std::string name)
    : _TaskBase(scheduler, priority, name) {
  construct();
}

TaskImpl::TaskImpl(NotOwningScheduler tag, TaskScheduler* scheduler, TaskPriority priority, std::string name)
    : _TaskBase(tag, scheduler, priority, name) {
  construct();
}

void TaskImpl::construct() {
  suspended_ = false;
  magic_ = kMagicConstructed;
  includeInCompletedTaskIs(true);
  quantum_ = scheduler_->defaultTaskQuantum();
  taskShouldYieldModeReevaluate();
  handleInitialized();
}

void TaskImpl::handleInitialized() { scheduler_->taskRegister(this); }

void TaskImpl::handleDestroy() {
  if (magic_ != kMagicConstructed) return;
  unscheduleTask();
  scheduler_->taskUnregister(this);
  magic_ = kMagicDestroyed;
}

TaskImpl::~TaskImpl() { handleDestroy(); }

void TaskImpl::sanityCheckCurrentRunningThread() const { scheduler_->root()->sanityCheckCurrentRunningThread(); }

// ---- scheduling ----

void TaskImpl::scheduleTask() noexcept {
  sanityCheckCurrentRunningThread();
  if (taskRunQueueLink_.isLinked()) return;
  const TaskTimePoint now = Impl::taskNow();
  TaskSchedulerHistory& history = *scheduler_->history_;
  if (TOLAN_UNLIKELY(suspended_)) {
    history.insertTaskEvent(now, Type::scheduleSus, taskName_);
    return;
  }
  TOLAN_TRACE(dbg(), 8, "Scheduled {}", *this);
  history.insertTaskEvent(now, Type::schedule, taskName_);
  runQueueTime_ = now;
  scheduler_->runQueues_[priority_].enqueue(*this);
  scheduler_->schedulerHasRunnableTasksIs(true, now);
  taskBusyIs(taskScheduled(), now);
}

void TaskImpl::unscheduleTask() {
  sanityCheckCurrentRunningThread();
  unscheduleTaskPrivate(Impl::taskNow());
}

void TaskImpl::unscheduleTaskPrivate(TaskTimePoint now) {
  if (taskRunQueueLink_.isLinked()) {
    TaskRunQueue& queue = scheduler_->runQueues_[priority_];
    TOLAN_ASSERT_C(queue.pending() != 0, TaskImpl, "Task: {} not on run queue", *this);
    queue.dequeue(*this);
    TOLAN_TRACE(dbg(), 8, "Unscheduled {}", *this);
    scheduler_->history_->insertTaskEvent(now, Type::unschedule, taskName_);
  }
  taskBusyIs(taskScheduled(), now);
}

bool TaskImpl::taskScheduled() const {
  sanityCheckCurrentRunningThread();
  return taskRunQueueLink_.isLinked();
}

void TaskImpl::taskBusyChange(bool busy, TaskTimePoint now) {
  busy_ = busy;
  scheduler_->history_->insertTaskEvent(now, busy ? Type::busy : Type::idle, taskName_);
  handleTaskBusy();
}

void TaskImpl::taskSuspendedIs(bool suspended) {
  sanityCheckCurrentRunningThread();
  if (suspended == suspended_) return;
  const TaskTimePoint now = Impl::taskNow();
  suspended_ = suspended;
  if (suspended) {
    TOLAN_TRACE(dbg(), 1, "Suspend {}", *this);
    scheduler_->history_->insertTaskEvent(now, Type::suspendOn, taskName_);
    unscheduleTaskPrivate(now);
  } else {
    TOLAN_TRACE(dbg(), 1, "Unsuspend {}", *this);
    scheduler_->history_->insertTaskEvent(now, Type::suspendOff, taskName_);
    if (!taskScheduled()) scheduleTask();
  }
}

// ---- yielding ----

bool TaskImpl::taskShouldYield() const noexcept {
  if (TOLAN_UNLIKELY(!currentlyRunning_ && runCount_ != 0))
    TOLAN_FAIL_C(TaskImpl, "taskCurrentlyRunning: {} taskRunCount: {}", currentlyRunning_, runCount_);
  switch (yieldMode_) {
    case TaskShouldYieldMode::yieldByQuantum: {
      const TaskTimePoint now = Impl::taskNow();
      return !(now >= runStartTime_ && now - runStartTime_ < quantum_);
    }
    case TaskShouldYieldMode::yieldByVirtualTime:
      return Tolan::time() - scheduler_->virtualRunStart_ >= static_cast<double>(quantum_.count()) / 1e9;
    case TaskShouldYieldMode::yieldByTestRatio: {
      // A ratio of 0 set by hand would divide by zero; it acts as 1.
      const unsigned ratio = taskTestYieldRatioEffective_ ? taskTestYieldRatioEffective_ : 1u;
      return ++taskTestYieldCounter_ % ratio == 0;
    }
  }
  TOLAN_FAIL_C(TaskImpl, "Invalid taskShouldYieldMode {}", static_cast<unsigned>(yieldMode_));
}

void TaskImpl::taskShouldYieldModeReevaluate() {
  const TaskSchedulerRoot& root = *scheduler_->root();
  taskTestYieldRatioEffectiveIs(taskTestYieldRatio_ ? taskTestYieldRatio_ : root.taskTestYieldRatio());
  if (taskTestYieldRatioEffective_ != 0) {
    yieldMode_ = TaskShouldYieldMode::yieldByTestRatio;
  } else if (root.virtualTime()) {
    if (yieldMode_ != TaskShouldYieldMode::yieldByVirtualTime && currentlyRunning_)
      scheduler_->virtualRunStart_ = Tolan::time();
    yieldMode_ = TaskShouldYieldMode::yieldByVirtualTime;
  } else {
    yieldMode_ = TaskShouldYieldMode::yieldByQuantum;
  }
}

void TaskImpl::taskTestYieldRatioIs(unsigned char ratio) {
  taskTestYieldRatio_ = ratio;
  taskShouldYieldModeReevaluate();
}

void TaskImpl::taskForceYieldInTestIs(bool force) {
  sanityCheckCurrentRunningThread();
  if (force == taskForceYieldInTest()) return;
  scheduler_->history_->insertTaskEvent(Impl::taskNow(), force ? Type::frcYieldOn : Type::frcYieldOff, taskName_);
  taskTestYieldRatioIs(force ? 1 : 0);
  scheduler_->taskForceYieldInTestNotify();
}

void TaskImpl::taskQuantumIs(TaskTimeDuration quantum) {
  TOLAN_ASSERT_C(quantum <= kMaxTaskQuantum, TaskImpl, "Quantum: {}", quantum.count());
  taskQuantumNoCheckIs(quantum);
}

void TaskImpl::taskQuantumNoCheckIs(TaskTimeDuration quantum) {
  TOLAN_ASSERT_C(quantum.count() >= 0, TaskImpl, "Quantum: {}", quantum.count());
  TOLAN_TRACE(dbg(), quantum != quantum_ ? 4 : 9, "Set quantum {} to {}", *this, quantum.count());
  quantum_ = quantum;
}

// ---- running ----

void TaskImpl::taskDoRun(TaskTimePoint now, TaskTimePoint& end) {
  TaskSchedulerHistory& history = *scheduler_->history_;
  history.insertTaskEvent(now, Type::runStart, taskName_);
  TOLAN_ASSERT_C(!taskRunQueueLink_.isLinked(), TaskImpl, "Task: {} on run queue when run", *this);
  TOLAN_TRACE(dbg(), 8, "Running {}", *this);
  runStartTime_ = now;
  if (yieldMode_ == TaskShouldYieldMode::yieldByVirtualTime) scheduler_->virtualRunStart_ = Tolan::time();
  ++runCount_;
  currentlyRunning_ = true;
  // What the magic check needs, taken before the run: after a task that
  // destroyed itself, not even a member access is allowed.
  const uint32_t* const magic = &magic_;
  const ConstStringRef::Elem* const name = taskName_.elem();
  try {
    taskExecute();
  } catch (...) {
    // The run still counts; the exception goes on to the scheduler.
    checkMagic(*magic, history, name, this);
    currentlyRunning_ = false;
    finishRun(end);
    throw;
  }
  checkMagic(*magic, history, name, this);
  currentlyRunning_ = false;
  finishRun(end);
}

void TaskImpl::checkMagic(uint32_t magic, const TaskSchedulerHistory& history, const ConstStringRef::Elem* name,
                          const void* task) noexcept {
  if (TOLAN_UNLIKELY(magic != kMagicConstructed)) magicFail(magic, history, name, task);
}

void TaskImpl::magicFail(uint32_t magic, const TaskSchedulerHistory& history, const ConstStringRef::Elem* name,
                         const void* task) noexcept {
  // The destroyed task released its name; the "run start" event recorded
  // just before the run still holds it, unless the history keeps nothing.
  const std::string text = history.historyEntryCount() != 0 && name ? name->str() : fmt::format("{}", task);
  Impl::taskSchedulerAssertFail(
      "taskDoRun", __LINE__,
      fmt::format("Task: {} taskMagicNumber: {} taskMagicNumberConstructed: {}", text, magic, kMagicConstructed));
}

void TaskImpl::finishRun(TaskTimePoint& end) {
  end = Impl::taskNow();
  TaskTimeDuration used = end - runStartTime_;
  if (yieldMode_ == TaskShouldYieldMode::yieldByVirtualTime) {
    const double seconds = Tolan::time() - scheduler_->virtualRunStart_;
    TOLAN_ASSERT_C(seconds >= 0, TaskImpl, "Task: {} negative virtual run time {}", *this, seconds);
    used = TaskTimeDuration(static_cast<int64_t>(seconds * 1e9));
  }
  const TaskTimeDuration q = quantum_;
  if (q.count() != 0 && used >= 2 * q) {
    TOLAN_TRACE(dbg(), 5, "Ran {} used {} {}% violation", *this, used.count(),
                static_cast<double>(used.count()) / static_cast<double>(q.count()) * 100.0);
    if (used < 5 * q) {
      taskQuantumViolation200Inc();
    } else {
      taskQuantumViolation500Inc();
    }
  } else {
    TOLAN_TRACE(dbg(), 7, "Ran {} used {}", *this, used.count());
  }
  if (used > runTimeHighWaterMark_) runTimeHighWaterMark_ = used;
  totalRunTime_ += used;
  scheduler_->history_->insertTaskEvent(end, Type::runEnd, taskName_);
  taskBusyIs(taskScheduled(), end);
}

void TaskImpl::taskRunFromTest() {
  sanityCheckCurrentRunningThread();
  const bool wasRunning = currentlyRunning_;
  runStartTime_ = Impl::taskNow();
  if (yieldMode_ == TaskShouldYieldMode::yieldByVirtualTime) scheduler_->virtualRunStart_ = Tolan::time();
  currentlyRunning_ = true;
  try {
    taskExecute();
  } catch (...) {
    currentlyRunning_ = wasRunning;
    throw;
  }
  currentlyRunning_ = wasRunning;
}

void TaskImpl::taskRunAndRecordFromTest() {
  sanityCheckCurrentRunningThread();
  const TaskTimePoint now = Impl::taskNow();
  if (taskRunQueueLink_.isLinked()) {
    scheduler_->runQueues_[priority_].dequeue(*this);
    lastSchedulingLatency_ = now - runQueueTime_;
    if (lastSchedulingLatency_ > schedulingLatencyHighWaterMark_) schedulingLatencyHighWaterMark_ = lastSchedulingLatency_;
  }
  TaskTimePoint end;
  taskDoRun(now, end);
}

TaskTimeDuration TaskImpl::taskCurrentRunTime() const noexcept {
  return currentlyRunning_ ? Impl::taskNow() - runStartTime_ : TaskTimeDuration(0);
}

// ---- statistics ----

TaskStat::TaskStatus TaskImpl::taskStatus() const {
  TaskStat::TaskStatus status;
  status.taskCurrentlyRunningIs(currentlyRunning_);
  status.taskOnRunQueueIs(taskRunQueueLink_.isLinked());
  status.taskSuspendedIs(suspended_);
  status.taskIsTaskGroupIs(isTaskGroup());
  return status;
}

TaskStat TaskImpl::getStats() const {
  return TaskStat(taskName_, key_, priority_, runCount_, totalRunTime_, workCountTotal_, workCountDecayingAverage_,
                  workCountHighWater_, workPending_, workPendingHighWater_, quantumViolation500_,
                  quantumViolation200_, runTimeHighWaterMark_, lastSchedulingLatency_,
                  schedulingLatencyHighWaterMark_, taskStatus());
}

void TaskImpl::resetStats() {
  runCount_ = 0;
  totalRunTime_ = TaskTimeDuration(0);
  runTimeHighWaterMark_ = TaskTimeDuration(0);
  lastSchedulingLatency_ = TaskTimeDuration(0);
  schedulingLatencyHighWaterMark_ = TaskTimeDuration(0);
  quantumViolation200_ = 0;
  quantumViolation500_ = 0;
  workCountTotal_ = 0;
  workCountDecayingAverage_ = 0;
  workPending_ = 0;
  workCountHighWater_ = TaskMaybeU32::none();
  workPendingHighWater_ = TaskMaybeU32::none();
  handleResetStats();
}

void TaskImpl::taskStatsNameIs(const std::string& name) {
  taskStatsNameRefIs(scheduler_->history().stringCache().intern(name));
}

void TaskImpl::taskWorkCountInc(unsigned long long n) {
  workCountTotal_ += n;
  if (!workCountHighWater_.hasValue()) {
    workCountDecayingAverage_ = static_cast<float>(n);
  } else {
    workCountDecayingAverage_ = (9.0f * workCountDecayingAverage_ + static_cast<float>(n)) / 10.0f;
  }
  workCountHighWater_ = raisedHighWater(workCountHighWater_, n);
}

void TaskImpl::taskWorkPendingIs(unsigned int n) {
  workPending_ = n;
  workPendingHighWater_ = raisedHighWater(workPendingHighWater_, n);
}

// ---- Task ----

Task::Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name)
    : TaskImpl(std::move(scheduler), priority, std::move(name)) {}

Task::Task(TaskScheduler* scheduler, TaskPriority priority, std::string name)
    : TaskImpl(scheduler, priority, std::move(name)) {}

Task::~Task() { handleDestroy(); }

bool Task::taskScheduled() const { return TaskImpl::taskScheduled(); }
void Task::scheduleTask() noexcept { TaskImpl::scheduleTask(); }
void Task::taskRunFromTest() { TaskImpl::taskRunFromTest(); }
TaskStat::TaskStatus Task::taskStatus() const { return TaskImpl::taskStatus(); }

}  // namespace Tolan
