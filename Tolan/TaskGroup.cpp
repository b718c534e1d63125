// TaskGroup.cpp - task groups and their parent tasks.
//
// The parent task points at its group with a plain pointer, which the
// group's destructor clears, and takes a shared reference for the length of
// a turn (when the group is owned by one): a group task may drop the last
// owner of its group from inside its run. A parent task that outlives its
// group (someone else held it) fails as a bad weak pointer if it runs.
//
// A turn's exception (a group task threw) leaves the parent task after the
// queues are moved back, so the next turn finds them as it expects; the
// parent task is already scheduled again by the group's run request.
#include "Tolan/TaskGroup.h"

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Impl/TaskSchedulerImpl.h"

namespace Tolan {

namespace {

inline Platform::DebugHandler& dbg() noexcept { return Impl::taskSchedulerDebug(); }

TaskScheduler* checkedParent(const std::shared_ptr<TaskScheduler>& parent) {
  TOLAN_ASSERT_C(parent != nullptr, TaskGroup, "Need a TaskScheduler");
  return parent.get();
}

}  // namespace

// ---- TaskGroup ----

TaskGroup::TaskGroup(std::string name, TaskPriority priority, bool tasksPermittedMultipleRuns,
                     std::shared_ptr<TaskScheduler> parent)
    : TaskScheduler(std::move(name), checkedParent(parent)->root(), checkedParent(parent)->historyPtr()),
      priority_(priority),
      tasksPermittedMultipleRuns_(tasksPermittedMultipleRuns) {
  defaultTaskQuantumIs(parent->defaultTaskQuantum());
  ownTaskPriorityIs(priority);
  // The parent task first: if it is refused (a bad priority), nothing is
  // registered yet that would outlive this half-built group.
  parentTask_ = std::make_shared<ParentTask>(std::move(parent), priority, "TaskGroup;" + schedulerName(), this);
  root()->registerScheduler(this);
  TOLAN_TRACE(dbg(), 4, "{} TaskGroup created, priority {}", *this, priority_);
}

TaskGroup::~TaskGroup() {
  destroyOwnTasks();
  parentTask_->group_ = nullptr;
  root()->unregisterScheduler(this);
  parentTask_.reset();  // may release the parent scheduler, and the root with it
}

void TaskGroup::requestSchedulerRun() {
  if (parentTask_) parentTask_->scheduleTask();
}

void TaskGroup::handleTaskForceYieldInTest() {
  if (parentTask_) parentTask_->taskForceYieldInTestIs(forceYieldInTest_);
}

void TaskGroup::taskRegister(TaskImpl* task) {
  if (task->taskPriority() != priority_)
    TOLAN_FAIL_C(TaskGroup, "taskPriority( {} ) != taskGroupPriority( {} )", task->taskPriority(), priority_);
  TaskScheduler::taskRegister(task);
}

TaskTimeDuration TaskGroup::taskGroupQuantum() const noexcept { return parentTask_->taskQuantum(); }
void TaskGroup::taskGroupQuantumIs(TaskTimeDuration quantum) { parentTask_->taskQuantumIs(quantum); }
void TaskGroup::taskGroupQuantumNoCheckIs(TaskTimeDuration quantum) { parentTask_->taskQuantumNoCheckIs(quantum); }
const TaskImpl* TaskGroup::parentTask() const noexcept { return parentTask_.get(); }
uint32_t TaskGroup::parentTaskRunCount() const noexcept { return parentTask_->taskRunCount(); }
bool TaskGroup::parentTaskScheduled() const { return parentTask_->taskScheduled(); }

void TaskGroup::taskGroupForceYieldInTestIs(bool force) {
  root()->sanityCheckCurrentRunningThread();
  forceYieldInTest_ = force;
  taskForceYieldInTestNotify();
}

void TaskGroup::taskGroupRunFromTest() { parentTask_->taskRunFromTest(); }

void TaskGroup::runTurn(ParentTask& parent) {
  const bool oneRunEach = !tasksPermittedMultipleRuns_;
  if (oneRunEach) taskRunQueuesMovePersistentToTemporary();
  unsigned runs = 0;
  try {
    // The current list only: with one run each, what was rescheduled during
    // the turn waits on the persistent list for the next one.
    while (runQueues()[priority_].front() != nullptr && !root()->suspended()) {
      ++runs;
      handleSchedulerRun();
      if (parent.taskShouldYield()) break;
    }
  } catch (...) {
    if (oneRunEach) taskRunQueuesMoveTemporaryToPersistent();
    parent.taskWorkCountInc(runs);
    throw;
  }
  if (oneRunEach) taskRunQueuesMoveTemporaryToPersistent();
  const uint64_t runnable = runnableTaskCount();
  parent.taskWorkCountInc(runs);
  parent.taskWorkPendingIs(static_cast<unsigned>(runnable));
  const TaskTimePoint now = Impl::taskNow();
  if (runnable == 0) {
    if (schedulerHasRunnableTasks()) schedulerHasRunnableTasksIs(false, now);
    if (parent.taskOnRunQueue()) parent.unscheduleTask();
  } else if (runs != 0) {
    // Every run ended with requestSchedulerRun(), which queued the parent.
    TOLAN_ASSERT_C(parent.taskOnRunQueue(), TaskGroup, "TaskGroup parentTask should be scheduled.");
    TOLAN_ASSERT_C(schedulerHasRunnableTasks(), TaskGroup, "The TaskGroup should have runnable tasks");
  } else {
    parent.scheduleTask();
    schedulerHasRunnableTasksIs(true, now);
  }
  TOLAN_TRACE(dbg(), 8, "{} TaskGroup turn ran {} tasks, {} runnable", *this, runs, runnable);
}

// ---- ParentTask ----

TaskGroup::ParentTask::ParentTask(std::shared_ptr<TaskScheduler> parent, TaskPriority priority, std::string name,
                                  TaskGroup* group)
    : Task(std::move(parent), priority, std::move(name)), group_(group) {}

TaskGroup::ParentTask::~ParentTask() = default;

void TaskGroup::ParentTask::taskExecute() {
  if (!group_) throw std::bad_weak_ptr();
  const std::shared_ptr<TaskScheduler> keepAlive = group_->weak_from_this().lock();
  group_->runTurn(*this);
}

void TaskGroup::ParentTask::handleResetStats() {
  if (group_) group_->resetStats();
}

// ---- factories ----

std::shared_ptr<TaskGroup> TaskGroupIs(std::string name, TaskPriority priority, bool tasksPermittedMultipleRuns,
                                       std::shared_ptr<TaskScheduler> parent) {
  return std::make_shared<TaskGroup>(std::move(name), priority, tasksPermittedMultipleRuns, std::move(parent));
}

std::shared_ptr<TaskGroup> TaskGroupIs(std::string name, TaskPriority priority, std::shared_ptr<TaskScheduler> parent) {
  return TaskGroupIs(std::move(name), priority, false, std::move(parent));
}

}  // namespace Tolan
