// TaskScheduler.cpp - registration, the run, the pick with its lower-priority
// bump, and the statistics of a scheduler.
//
// One run reads the steady clock twice (start, and the task's end, which also
// serves as the next request time) and the task reads it once more if it
// reschedules itself. In throughput mode the end of one run is the start of
// the next, so a batch of n tasks costs n + 1 reads plus the rescheduling.
//
// Keep-alive during a run: a task owned by a shared_ptr is held by the
// scheduler until its execute returns (a task already being destroyed then
// fails as std::bad_weak_ptr). A task that no shared_ptr ever owned runs
// without that guard; which of the two a task is gets decided at its first
// run, so that later runs pay one reference count and nothing else.
//
// The completed-task table is keyed by the interned statistics name; it and
// every record in it hold references into the history's string cache, which
// the shared history keeps alive for as long as this scheduler.
#include "Tolan/TaskScheduler.h"

#include <algorithm>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Impl/TaskSchedulerAssert.h"
#include "Tolan/Impl/TaskSchedulerImpl.h"

namespace Tolan {

using Type = TaskSchedulerEventType;

namespace Impl {

std::atomic<Platform::DebugHandler*> taskSchedulerDebugHandle{nullptr};

Platform::DebugHandler& taskSchedulerDebugCreate() {
  // Never destroyed: schedulers may trace from late destructors.
  static auto* const owner = new std::shared_ptr<Platform::DebugHandler>(Platform::getDebugHandler("TaskScheduler"));
  taskSchedulerDebugHandle.store(owner->get(), std::memory_order_release);
  return **owner;
}

}  // namespace Impl

namespace {

inline Platform::DebugHandler& dbg() noexcept { return Impl::taskSchedulerDebug(); }

// Weights of the lower-priority bump, by priority value; absolute and
// scavenge take no part.
constexpr uint32_t kBumpWeight[TaskRunQueues::kCount] = {0, 64, 8, 1, 0};

}  // namespace

void TaskSchedulerHistory::insert(const TaskTimePoint& when, TaskSchedulerEventType type,
                                  const TaskScheduler* scheduler) {
  insertSchedulerEvent(when, type, scheduler->schedulerNameRef());
}

// The task a statistics reset runs: walks the registered tasks from its
// bookmark. Owned by the scheduler (it does not own the scheduler back) and
// kept for the next reset.
class TaskScheduler::ResetStatsTask final : public TaskImpl {
 public:
  explicit ResetStatsTask(TaskScheduler* scheduler)
      : TaskImpl(NotOwningScheduler{}, scheduler, scheduler->ownTaskPriority_, scheduler->schedulerName() + ";ResetStats") {
    includeInCompletedTaskIs(false);
  }
  ~ResetStatsTask() override { handleDestroy(); }
  void taskExecute() override { scheduler_->handleResetStatsTaskRun(*this); }
  bool walking() const noexcept { return bookmark.isLinked() || taskRunQueueLink_.isLinked(); }

  RegisteredTaskList::Bookmark bookmark;
};

// ---- life ----

TaskScheduler::TaskScheduler(std::string name, TaskSchedulerRoot* root, std::shared_ptr<TaskSchedulerHistory> history)
    : schedulerName_(std::move(name)), root_(root), history_(std::move(history)) {
  schedulerNameRef_ = history_->stringCache().intern(schedulerName_);
}

TaskScheduler::~TaskScheduler() {
  if (registeredTaskCount_ != 0)
    Impl::taskSchedulerAssertFail("~TaskScheduler", __LINE__,
                                  fmt::format("TaskScheduler: {} destroyed with {} registered tasks",
                                              schedulerName_, registeredTaskCount_));
  clearStatsCommon();
}

void TaskScheduler::destroyOwnTasks() noexcept {
  renderJsonTasks_.clear();
  resetStatsTask_.reset();
}

bool TaskScheduler::taskRegistered(const TaskImpl* task) const noexcept {
  return task->scheduler_ == this && task->taskRegisteredLink_.isLinked();
}

void TaskScheduler::taskRegister(TaskImpl* task) {
  root_->sanityCheckCurrentRunningThread();
  TOLAN_ASSERT_C(!taskRegistered(task), TaskScheduler, "Task: {} already registered", *task);
  TOLAN_ASSERT_C(task->taskPriority().isValid(), TaskScheduler, "Task: {} has no run queue for priority {}",
                 task->taskName(), task->taskPriority().number());
  task->key_ = history_->taskKeyNew();
  TOLAN_TRACE(dbg(), 4, "{} Register {}", *this, *task);
  history_->insertTaskEvent(Impl::taskNow(), Type::create, task->taskNameRef());
  registeredTasks_.pushBack(*task);
  ++registeredTaskCount_;
  tasksPerPriorityInc(task->taskPriority());
}

void TaskScheduler::taskUnregister(TaskImpl* task) {
  root_->sanityCheckCurrentRunningThread();
  TOLAN_TRACE(dbg(), 4, "{} Unregister {}", *this, *task);
  TOLAN_ASSERT_C(!task->taskRunQueueLink_.isLinked(), TaskScheduler, "Task: {} scheduled on unregister", *task);
  TOLAN_ASSERT_C(taskRegistered(task), TaskScheduler, "Task: {} not registered", *task);
  updateCompletedTaskStats(task);
  history_->insertTaskEvent(Impl::taskNow(), Type::destroy, task->taskNameRef());
  task->taskRegisteredLink_.unlink();  // a bookmark parked before it now precedes its successor
  --registeredTaskCount_;
}

// ---- the run ----

void TaskScheduler::schedulerHasRunnableTasksChange(bool runnable, TaskTimePoint now) {
  schedulerHasRunnableTasks_ = runnable;
  if (runnable) {
    TOLAN_TRACE(dbg(), 8, "{} Scheduler has runnable tasks, request run", *this);
    history_->insertSchedulerEvent(now, Type::schedulerRunnable, schedulerNameRef_);
    requestTime_ = now;
    requestSchedulerRun();
  } else {
    history_->insertSchedulerEvent(now, Type::schedulerIdle, schedulerNameRef_);
    TOLAN_TRACE(dbg(), 8, "{} Scheduler idle", *this);
  }
}

void TaskScheduler::checkSchedulerLatency() noexcept {
  runStartTime_ = Impl::taskNow();
  const TaskTimeDuration latency = runStartTime_ - requestTime_;
  if (latency > maxSchedulerLatency_) maxSchedulerLatency_ = latency;
}

void TaskScheduler::handleSchedulerRun() { runSchedulerTasks(1, TaskTimeDuration(0)); }

void TaskScheduler::runSchedulerTasks(unsigned maxTasks, TaskTimeDuration budget) {
  checkSchedulerLatency();
  TaskTimePoint now = runStartTime_;
  if (TOLAN_UNLIKELY(root_->suspended())) {
    TOLAN_TRACE(dbg(), 8, "{} Suspended", *this);
    history_->insertSchedulerEvent(now, Type::schedulerRunIgnoredWhileSuspended, schedulerNameRef_);
    return;
  }
  const TaskTimePoint deadline = now + budget;
  for (unsigned done = 1;; ++done) {
    TaskImpl* task = pickOneTask(now, TaskPriority::absolute);
    if (!task) {
      schedulerHasRunnableTasksIs(false, now);
      return;
    }
    TaskTimePoint end;
    runPickedTask(*task, now, end);
    const bool last = done >= maxTasks || end >= deadline || TOLAN_UNLIKELY(root_->suspended());
    if (last) {
      TOLAN_TRACE(dbg(), 8, "{} Scheduler completed task, request run", *this);
      requestTime_ = end;
      requestSchedulerRun();
    }
    currentTaskPtr_ = nullptr;
    currentTaskKey_ = TaskKey();
    currentTask_.reset();  // may destroy the task, if the run was its last owner's
    if (last) return;
    now = end;
  }
}

void TaskScheduler::runPickedTask(TaskImpl& task, TaskTimePoint now, TaskTimePoint& end) {
  try {
    if (TOLAN_UNLIKELY(task.ownership_ == TaskImpl::Ownership::unknown)) {
      // No shared_ptr has ever owned it exactly when its weak self-reference
      // shares no control block with anything, like an empty one.
      const std::weak_ptr<_TaskBase> self = task.weak_from_this(), never;
      const bool owned = self.owner_before(never) || never.owner_before(self);
      task.ownership_ = owned ? TaskImpl::Ownership::shared : TaskImpl::Ownership::none;
    }
    if (task.ownership_ == TaskImpl::Ownership::shared) currentTask_ = task.shared_from_this();
    currentTaskPtr_ = &task;
    currentTaskKey_ = task.key_;
    task.taskDoRun(now, end);
  } catch (...) {
    // A runnable scheduler is never left without a requested run.
    currentTaskPtr_ = nullptr;
    currentTaskKey_ = TaskKey();
    requestTime_ = Impl::taskNow();
    requestSchedulerRun();
    currentTask_.reset();
    throw;
  }
}

TaskImpl* TaskScheduler::pickOneTask(TaskTimePoint now, TaskPriority from) {
  for (unsigned p = from.number(); p < TaskRunQueues::kCount; ++p) {
    const TaskPriority priority = TaskPriority::fromNumber(p);
    TaskRunQueue& queue = runQueues_[priority];
    TaskImpl* task = queue.front();
    if (!task) {
      queue.consecutivePicks_ = 0;
      continue;
    }
    if (attemptLowerPriorityBump(priority, queue.consecutivePicks_)) {
      if (TaskImpl* lower = pickOneTask(now, TaskPriority::fromNumber(p + 1))) {
        queue.consecutivePicks_ = 0;
        return lower;
      }
    }
    ++queue.consecutivePicks_;
    queue.dequeue(*task);
    task->lastSchedulingLatency_ = now - task->runQueueTime_;
    if (task->lastSchedulingLatency_ > task->schedulingLatencyHighWaterMark_)
      task->schedulingLatencyHighWaterMark_ = task->lastSchedulingLatency_;
    return task;
  }
  return nullptr;
}

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority p, uint32_t consecutivePicks) const noexcept {
  if (p != TaskPriority::high && p != TaskPriority::normal) return false;
  uint32_t lower = 0;
  for (unsigned q = p.number() + 1; q <= TaskPriority::low; ++q)
    lower += kBumpWeight[q] * static_cast<uint32_t>(runQueues_[TaskPriority::fromNumber(q)].pending());
  if (lower == 0) return false;
  return lower * consecutivePicks > kBumpWeight[p.number()] * static_cast<uint32_t>(runQueues_[p].pending());
}

uint64_t TaskScheduler::runnableTaskCount() const noexcept {
  uint64_t total = 0;
  for (unsigned p = 0; p < TaskRunQueues::kCount; ++p) total += runQueues_[TaskPriority::fromNumber(p)].pending();
  return total;
}

// ---- statistics ----

uint64_t TaskScheduler::runTaskCount(TaskPriority p) const {
  return runTaskCounts()[p.number()];
}

// All priorities in one walk: a snapshot asks for every one of them, and a
// walk per priority over tens of thousands of tasks showed in its profile.
std::array<uint64_t, TaskRunQueues::kCount> TaskScheduler::runTaskCounts() const {
  std::array<uint64_t, TaskRunQueues::kCount> runs{};
  for (const TaskImpl& task : registeredTasks_) runs[task.taskPriority().number()] += task.taskRunCount();
  for (const auto& entry : completedTaskStats_) runs[entry.second.taskPriority().number()] += entry.second.taskRunCount();
  return runs;
}

TaskSchedulerQueueStats TaskScheduler::queueStats() const {
  TaskSchedulerQueueStats stats;
  const auto runs = runTaskCounts();
  for (unsigned n = 0; n < TaskRunQueues::kCount; ++n) {
    const TaskPriority p = TaskPriority::fromNumber(n);
    const auto runnable = static_cast<uint32_t>(runnableTaskCount(p));
    const uint32_t live = tasksPerPriority(p);
    stats.emplace(p, TaskSchedulerPriorityStats(p, runnable, live > runnable ? live - runnable : 0,
                                                completedTasksPerPriority(p), runs[n]));
  }
  return stats;
}

unsigned TaskScheduler::getTaskStats(std::vector<TaskStat>* out, bool includeNeverRan) const {
  size_t live = 0;
  for (uint32_t count : tasksPerPriority_) live += count;
  out->reserve(out->size() + live);
  unsigned skipped = 0;
  for (const TaskImpl& task : registeredTasks_) {
    if (!includeNeverRan && task.taskRunCount() == 0) {
      ++skipped;
      continue;
    }
    out->push_back(task.getStats());
  }
  out->shrink_to_fit();
  return skipped;
}

unsigned TaskScheduler::getCompletedTaskStats(std::vector<TaskStat>* out, bool) const {
  out->reserve(out->size() + completedTaskStats_.size());
  for (const auto& entry : completedTaskStats_) out->push_back(entry.second);
  return 0;
}

void TaskScheduler::completedTaskStatsInc(const ConstStringRef& name, const TaskStat& stat) {
  auto it = completedTaskStats_.find(name);
  if (it == completedTaskStats_.end()) {
    completedTaskStats_.emplace(name, stat);
  } else {
    it->second += stat;
  }
}

void TaskScheduler::updateCompletedTaskStats(TaskImpl* task) {
  const TaskPriority p = task->taskPriority();
  const bool include = task->includeInCompletedTask();
  if (include) {
    if (!p.isValid())
      Impl::taskSchedulerAssertFail("updateCompletedTaskStats", __LINE__,
                                    fmt::format("Task: {} priority: {}", task->taskName(), p.number()));
    TaskStat stat = task->getStats();
    stat.taskNameIs(task->taskStatsNameRef());
    if (stat.taskCompletedCount() != 0)
      Impl::taskSchedulerAssertFail(
          "updateCompletedTaskStats", __LINE__,
          fmt::format("Task: {} completedCount: {}", task->taskName(), stat.taskCompletedCount()));
    stat.taskCompletedCountIs(1);
    completedTaskStatsInc(task->taskStatsNameRef(), stat);
  }
  // An excluded task still leaves the live count of its priority.
  tasksPerPriorityDec(task);
  if (include) completedTasksPerPriorityInc(p);
}

void TaskScheduler::tasksPerPriorityDec(TaskImpl* task) {
  uint32_t& live = tasksPerPriority_[task->taskPriority().number()];
  if (live == 0)
    Impl::taskSchedulerAssertFail("updateCompletedTaskStats", __LINE__,
                                  fmt::format("Task: {} tasksPerPriority: {}", task->taskName(), live));
  --live;
}

void TaskScheduler::clearStatsCommon() {
  completedTaskStats_.clear();
  completedTasksPerPriority_.fill(0);
  maxSchedulerLatency_ = TaskTimeDuration(0);
}

void TaskScheduler::clearStats() {
  for (TaskImpl& task : registeredTasks_) task.resetStats();
  clearStatsCommon();
}

bool TaskScheduler::resetStatsInProgress() const { return resetStatsTask_ && resetStatsTask_->walking(); }

void TaskScheduler::resetStats() {
  root_->sanityCheckCurrentRunningThread();
  if (!resetStatsTask_) resetStatsTask_ = std::make_shared<ResetStatsTask>(this);
  if (resetStatsTask_->walking()) return;
  resetStatsTask_->scheduleTask();
}

void TaskScheduler::handleResetStatsTaskRun(ResetStatsTask& self) {
  unsigned reset = 0;
  bool finished = true;
  const auto end = registeredTasks_.end();
  for (auto it = registeredTasks_.resumeFrom(self.bookmark); it != end;) {
    TaskImpl& task = *it;
    ++it;  // first: the task's hook may unregister the task itself
    task.resetStats();
    ++reset;
    if (reset > 1 && it != end && self.taskShouldYield()) {
      self.bookmark.insertBefore(it);
      finished = false;
      break;
    }
  }
  self.taskWorkCountInc(reset);
  if (finished) {
    clearStatsCommon();
  } else {
    self.scheduleTask();
  }
}

TaskImpl* TaskScheduler::taskForTest(const std::string& name) const {
  for (const TaskImpl& task : registeredTasks_)
    if (task.taskName() == name) return const_cast<TaskImpl*>(&task);
  return nullptr;
}

TaskStat TaskScheduler::taskStatForTest(const std::string& name) const {
  const TaskImpl* task = taskForTest(name);
  return task ? task->getStats() : TaskStat();
}

TaskStat TaskScheduler::completedTaskStatForTest(const std::string& name) const {
  for (const auto& entry : completedTaskStats_)
    if (entry.first.str() == name) return entry.second;
  return TaskStat();
}

}  // namespace Tolan
