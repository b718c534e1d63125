// TaskScheduler.h - the cooperative task scheduler of a thread. Include this
// header to use the scheduler: it brings the tasks (Task.h) and the thread's
// root scheduler (TaskSchedulerRoot.h).
//
// A scheduler runs its registered tasks one at a time from the thread's event
// loop: strict priority order (absolute, high, normal, low, scavenge), FIFO
// within a priority, softened by a weighted bump that lets a lower task
// through after a run of consecutive higher picks, so that a busy high
// priority cannot starve the lower ones. It asks the event loop for a turn
// only on the edge from idle to runnable and after every task it runs; an idle
// scheduler costs the loop nothing.
//
// TaskScheduler is abstract: each thread has a TaskSchedulerRoot (reached by
// schedulerRootTolan()), and task groups are schedulers that run as one task
// of another scheduler. This class holds what they share: registration, the
// run queues, one run, the lower-priority bump and the statistics.
//
// Costs: picking is a walk over the five queues; registering, scheduling and
// unscheduling never allocate; each scheduling change records a history event
// (an interned name and a time, 24 bytes in a fixed ring).
//
// Threading: a scheduler and its tasks belong to one thread; every public
// entry point checks the calling thread through the root. Nothing is locked.
// A TaskStat copied out is a plain value, but copying and destroying one
// touches its interned name and so belongs to the scheduler's thread too;
// to hand statistics to another thread, take a snapshot() (it interns the
// names again in a cache of its own).
#pragma once

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "Tolan/Common.h"
#include "Tolan/IntrusiveBookmarkLinkedList.h"
#include "Tolan/Task.h"
#include "Tolan/TaskRunQueue.h"
#include "Tolan/TaskSchedulerHistory.h"
#include "Tolan/TaskStat.h"
#include "Tolan/TaskTypes.h"

namespace Tolan {

class TaskSchedulerRoot;
class TaskSchedulerSnapshot;
class TaskSchedulerPrintContext;

class TOLAN_EXPORT TaskScheduler : public std::enable_shared_from_this<TaskScheduler> {
 public:
  using RegisteredTaskList =
      BookmarkList<TaskImpl, BookmarkListLinkNode<TaskImpl>, &TaskImpl::taskRegisteredLink_, void>;

  // True while a statistics reset started by resetStats() is under way.
  virtual bool resetStatsInProgress() const;
  // Asks to be run again: the root requests an event-loop callback, a task
  // group schedules its parent task.
  virtual void requestSchedulerRun() = 0;
  // The test force-yield switch changed somewhere below this scheduler.
  virtual void handleTaskForceYieldInTest() = 0;
  // Registers a task; called by the task's constructor. The task must not be
  // registered yet ("Task: ... already registered") and must have a real
  // priority. Records a "create" history event.
  virtual void taskRegister(TaskImpl* task);
  // Every registered task must be gone (an internal-invariant abort).
  virtual ~TaskScheduler();

  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;

  const std::string& schedulerName() const noexcept { return schedulerName_; }
  const ConstStringRef& schedulerNameRef() const noexcept { return schedulerNameRef_; }
  TaskSchedulerRoot* root() const noexcept { return root_; }
  TaskSchedulerHistory& history() const noexcept { return *history_; }
  const std::shared_ptr<TaskSchedulerHistory>& historyPtr() const noexcept { return history_; }

  // Called by the task's destructor: the task must be registered here
  // ("Task: ... not registered") and off its run queue ("Task: ... scheduled
  // on unregister"). Folds its statistics into the completed tasks and
  // records a "delete" history event.
  void taskUnregister(TaskImpl* task);
  // Whether `task` is registered here. Constant time.
  bool taskRegistered(const TaskImpl* task) const noexcept;
  size_t registeredTaskCount() const noexcept { return registeredTaskCount_; }
  // The registered tasks in order of registration (bookmarks skipped).
  const RegisteredTaskList& registeredTasks() const noexcept { return registeredTasks_; }
  // Calls f(TaskImpl&) for every registered task; f must not register or
  // unregister tasks of this scheduler.
  template <typename F>
  void forEachRegisteredTask(F&& f) {
    for (TaskImpl& task : registeredTasks_) f(task);
  }

  // One run: pick the next task and run it, then ask for another run; when
  // nothing is runnable, go idle instead and ask for nothing. A task's
  // exception passes out after the next run has been requested.
  void handleSchedulerRun();

  // Tasks on the run queues, in all or one priority.
  uint64_t runnableTaskCount() const noexcept;
  uint64_t runnableTaskCount(TaskPriority p) const noexcept { return runQueues_[p].pending(); }
  // Runs of the tasks of priority `p`, live and completed, since the last
  // statistics reset.
  uint64_t runTaskCount(TaskPriority p) const;
  // Registered tasks of a priority, and tasks of it completed since the last reset.
  uint32_t tasksPerPriority(TaskPriority p) const noexcept { return tasksPerPriority_[p.number()]; }
  uint32_t completedTasksPerPriority(TaskPriority p) const noexcept { return completedTasksPerPriority_[p.number()]; }
  // Per-priority counts, as the reports show them.
  TaskSchedulerQueueStats queueStats() const;

  const TaskRunQueues& runQueues() const noexcept { return runQueues_; }
  // The queue moves of a task group's turn, on all five priorities.
  void taskRunQueuesMovePersistentToTemporary() { runQueues_.movePersistentToTemporary(); }
  void taskRunQueuesMoveTemporaryToPersistent() { runQueues_.moveTemporaryToPersistent(); }

  // The idle/runnable edge: going runnable records "schedulerRunnable" and
  // requests a run; going idle records "schedulerIdle". No-op without change.
  void schedulerHasRunnableTasksIs(bool runnable, TaskTimePoint now) {
    if (runnable != schedulerHasRunnableTasks_) schedulerHasRunnableTasksChange(runnable, now);
  }
  bool schedulerHasRunnableTasks() const noexcept { return schedulerHasRunnableTasks_; }

  // Run start = now; keeps the largest delay between a request and its run.
  void checkSchedulerLatency() noexcept;
  TaskTimeDuration maxSchedulerLatency() const noexcept { return maxSchedulerLatency_; }
  // Whether a pick at `p` after `consecutivePicks` picks in a row from `p`
  // should let a lower task through: only high and normal can be bumped, and
  // then when W x consecutivePicks > weight(p) x pending(p), W being the sum
  // of weight x pending over the priorities below p down to low (weights:
  // high 64, normal 8, low 1), in unsigned 32-bit arithmetic.
  bool attemptLowerPriorityBump(TaskPriority p, uint32_t consecutivePicks) const noexcept;
  // Takes the next task off the queues, searching from priority `from` down,
  // and records its scheduling latency against `now`. Null when none.
  TaskImpl* pickOneTask(TaskTimePoint now, TaskPriority from);

  TaskTimeDuration defaultTaskQuantum() const noexcept { return defaultTaskQuantum_; }
  void defaultTaskQuantumIs(TaskTimeDuration quantum) noexcept { defaultTaskQuantum_ = quantum; }
  // Tolan::time() when the current task began, for tasks that yield by virtual time.
  double virtualRunStart() const noexcept { return virtualRunStart_; }
  void virtualRunStartIs(double t) noexcept { virtualRunStart_ = t; }
  TaskTimePoint requestTime() const noexcept { return requestTime_; }
  TaskTimePoint runStartTime() const noexcept { return runStartTime_; }
  // The task running now, and its key; empty between runs.
  TaskKey currentTaskKey() const noexcept { return currentTaskKey_; }
  TaskImpl* currentTask() const noexcept { return currentTaskPtr_; }

  // Passes a change of a task's force-yield switch on (handleTaskForceYieldInTest).
  void taskForceYieldInTestNotify() { handleTaskForceYieldInTest(); }

  // ---- statistics ----

  // Appends the records of the registered tasks, in registration order;
  // tasks that never ran only with `includeNeverRan`. Returns how many were
  // skipped.
  unsigned getTaskStats(std::vector<TaskStat>* out, bool includeNeverRan) const;
  // Appends one record per statistics name of the completed tasks. The flag
  // is accepted for symmetry and has no effect (a completed record always ran
  // or was counted). Returns 0.
  unsigned getCompletedTaskStats(std::vector<TaskStat>* out, bool includeNeverRan) const;
  // Adds `stat` to the completed record of `name`, or inserts it.
  void completedTaskStatsInc(const ConstStringRef& name, const TaskStat& stat);
  // Folds an ending task into the completed records (when it asked to be
  // included) and moves it from the live to the completed count of its
  // priority. Called by taskUnregister.
  void updateCompletedTaskStats(TaskImpl* task);
  // Starts a statistics reset: a task of this scheduler named
  // "<scheduler>;ResetStats" walks the registered tasks over as many runs as
  // its quantum needs, resetting each, and then clears the completed records
  // and the maximum scheduler latency. A reset under way is left to finish.
  void resetStats();
  // Resets every task and the common statistics at once.
  void clearStats();
  // Empties the completed records and counts; zeroes the maximum scheduler latency.
  void clearStatsCommon();

  // ---- introspection (defined with TaskSchedulerSnapshot.h; include it) ----

  // A copy of this scheduler's state for rendering on any thread, listed
  // under the scheduler's name. The flags are those of the snapshot's
  // constructor. On the scheduler's thread.
  std::shared_ptr<const TaskSchedulerSnapshot> snapshot(bool includeNeverRan, bool includeCompleted,
                                                        bool includeSubSchedulers, unsigned limit = ~0u,
                                                        bool withHistory = true) const;
  // The whole JSON document of this scheduler (with its history, when it is
  // a root) on a stream, as a string, or on a blocking descriptor.
  void statsRenderJson(std::ostream& out, bool includeNeverRan, bool includeCompleted,
                       bool includeSubSchedulers) const;
  std::string statsRenderJsonToString(bool includeNeverRan, bool includeCompleted, bool includeSubSchedulers) const;
  void statsRenderJsonToBlockingFdForTest(int fd, bool includeNeverRan, bool includeCompleted,
                                          bool includeSubSchedulers) const;
  // The JSON document of `snapshots` written to the non-blocking descriptor
  // `fd` from inside this scheduler, without ever blocking the thread: one
  // task renders one snapshot per run and a descriptor task writes the text
  // as the descriptor takes it (TaskSchedulerRenderJsonAsync.h has the
  // details). `done` runs on this thread when the output has ended, written
  // out or cut short because the reader went away. On the scheduler's thread;
  // the descriptor stays open and must stay so until `done`.
  class SnapshotRenderJsonTask;
  class SnapshotWriteJsonTask;
  using RenderJsonDone = std::function<void(SnapshotRenderJsonTask&)>;
  void snapshotRenderJsonAsync(int fd, std::shared_ptr<const TaskSchedulerSnapshot> snapshot);
  void snapshotRenderJsonAsync(int fd, std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> snapshots,
                               RenderJsonDone done);
  // Outputs under way.
  size_t renderJsonTaskCount() const noexcept { return renderJsonTasks_.size(); }

  // A document frame on a stream or a blocking descriptor (TaskSchedulerPrintContext.h).
  static std::unique_ptr<TaskSchedulerPrintContext> PrintContextIs(std::ostream& out);
  static std::unique_ptr<TaskSchedulerPrintContext> PrintContextIs(int fd, bool throwOnError);

  // For tests: the first registered task named `name` (null if none) and the
  // records of a live or completed name (an empty record if none).
  TaskImpl* taskForTest(const std::string& name) const;
  TaskStat taskStatForTest(const std::string& name) const;
  TaskStat completedTaskStatForTest(const std::string& name) const;

 protected:
  // `root` is the thread's root (the root passes itself) and `history` its history.
  TaskScheduler(std::string name, TaskSchedulerRoot* root, std::shared_ptr<TaskSchedulerHistory> history);

  void requestTimeIs(TaskTimePoint t) noexcept { requestTime_ = t; }
  // Steps of one run, up to `maxTasks` tasks while `budget` lasts (the root's
  // throughput mode); handleSchedulerRun() is one task.
  void runSchedulerTasks(unsigned maxTasks, TaskTimeDuration budget);
  // Destroys the tasks the scheduler owns itself (the reset task); derived
  // destructors call it first, while the whole scheduler still exists.
  void destroyOwnTasks() noexcept;
  // The priority of the tasks the scheduler makes for itself (the reset
  // task): low unless a scheduler accepts only one priority.
  void ownTaskPriorityIs(TaskPriority p) noexcept { ownTaskPriority_ = p; }

 private:
  friend class TaskImpl;
  class ResetStatsTask;

  void schedulerHasRunnableTasksChange(bool runnable, TaskTimePoint now);
  // Runs a picked task with a keep-alive reference; on an exception the next
  // run is requested before it passes on.
  void runPickedTask(TaskImpl& task, TaskTimePoint now, TaskTimePoint& end);
  void tasksPerPriorityInc(TaskPriority p) noexcept { ++tasksPerPriority_[p.number()]; }
  void tasksPerPriorityDec(TaskImpl* task);
  void completedTasksPerPriorityInc(TaskPriority p) noexcept { ++completedTasksPerPriority_[p.number()]; }
  void handleResetStatsTaskRun(ResetStatsTask& task);
  // The render task has ended its output: the scheduler lets go of it.
  void renderJsonTaskDone(SnapshotRenderJsonTask& task);
  std::array<uint64_t, TaskRunQueues::kCount> runTaskCounts() const;

  std::string schedulerName_;
  TaskSchedulerRoot* root_;
  std::shared_ptr<TaskSchedulerHistory> history_;
  ConstStringRef schedulerNameRef_;  // interned in the history, for its events
  // Membership is the task's registration link (plus its scheduler pointer),
  // so registering needs no set beside the list.
  RegisteredTaskList registeredTasks_;
  size_t registeredTaskCount_ = 0;
  TaskRunQueues runQueues_;
  TaskTimePoint requestTime_{};
  TaskTimePoint runStartTime_{};
  TaskTimeDuration maxSchedulerLatency_{0};
  TaskTimeDuration defaultTaskQuantum_{kDefaultTaskQuantum};
  double virtualRunStart_ = 0;
  TaskPriority ownTaskPriority_ = TaskPriority::low;
  bool schedulerHasRunnableTasks_ = false;
  TaskKey currentTaskKey_;
  TaskImpl* currentTaskPtr_ = nullptr;
  std::shared_ptr<_TaskBase> currentTask_;
  std::array<uint32_t, TaskRunQueues::kCount> tasksPerPriority_{};
  std::array<uint32_t, TaskRunQueues::kCount> completedTasksPerPriority_{};
  std::unordered_map<ConstStringRef, TaskStat> completedTaskStats_;
  std::shared_ptr<ResetStatsTask> resetStatsTask_;
  // Asynchronous outputs under way, kept alive until they end.
  std::set<std::shared_ptr<SnapshotRenderJsonTask>> renderJsonTasks_;
};

}  // namespace Tolan

// A scheduler prints as its name.
template <typename T>
struct fmt::formatter<T, char, std::enable_if_t<std::is_base_of<Tolan::TaskScheduler, T>::value>>
    : fmt::formatter<fmt::string_view> {
  template <typename FormatContext>
  auto format(const Tolan::TaskScheduler& scheduler, FormatContext& ctx) const -> decltype(ctx.out()) {
    return fmt::formatter<fmt::string_view>::format(scheduler.schedulerName(), ctx);
  }
};

// The root, timer tasks and task groups complete the umbrella.
#include "Tolan/TaskSchedulerRoot.h"
#include "Tolan/TimerTask.h"
#include "Tolan/TaskGroup.h"
