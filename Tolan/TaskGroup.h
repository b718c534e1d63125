// TaskGroup.h - a scheduler that runs inside another as one task.
//
// A group shares one slot of its priority among many small tasks: its tasks
// register with the group, and the parent scheduler sees only the group's
// parent task ("TaskGroup;<name>", of the group's priority). Each run of the
// parent task is one turn of the group: it runs the group's runnable tasks
// one after the other until none is left or the parent's quantum (the group
// quantum) is used up. Group tasks thus run without an event-loop pass of
// their own, and their total time per turn is bounded by one quantum.
//
//   auto group = Tolan::TaskGroupIs("conns", Tolan::TaskPriority::normal, false,
//                                   Tolan::schedulerRootTolan());
//   auto conn = std::make_shared<Conn>(group, Tolan::TaskPriority::normal, "conn");
//   conn->scheduleTask();   // schedules the parent task on the root
//
// Multiple runs. With tasksPermittedMultipleRuns false, a turn is one pass
// over the tasks that were runnable when it began: a task that schedules
// itself again waits for the next turn, and tasks the quantum did not reach
// go first next time. With true, a turn keeps running whatever is runnable
// until the quantum is spent. The constructor's bool is this flag; there is
// no hidden default, and TaskGroupIs() without it chooses false: one pass is
// fair among the group's tasks, and a task that keeps rescheduling itself
// cannot hold the parent's slot for a whole quantum against the other tasks
// of the parent's priority. Choose true for groups of tasks with a backlog
// each, where fewer, fuller turns mean fewer passes of the parent.
//
// After a turn that ran tasks, the parent task is already back on its run
// queue if anything is still runnable: every task run ends by asking the
// group's parent to run again. That is how the turn knows it needs no
// request of its own (it checks that it is so); a turn that ran nothing but
// left runnable tasks schedules the parent itself. When nothing is runnable
// the parent task leaves its run queue and the group is idle.
//
// Costs: one task run inside a group costs the group's pick and accounting,
// no loop pass; the parent task's own run is accounted once per turn. Every
// task of a group must have the group's priority ("taskPriority( .. ) !=
// taskGroupPriority( .. )"); a group inside a group has the outer one's.
//
// Ownership and threads: hold groups by shared_ptr (TaskGroupIs). A group's
// tasks keep it alive, and it keeps its parent scheduler alive through its
// parent task. The scheduler's thread only.
#pragma once

#include <memory>
#include <string>

#include "Tolan/Task.h"
#include "Tolan/TaskScheduler.h"

namespace Tolan {

class TOLAN_EXPORT TaskGroup : public TaskScheduler {
 public:
  class ParentTask;

  // A group named `name` of `priority` inside `parent` (a root or a group),
  // registered with the thread's root, taking the parent's default quantum.
  TaskGroup(std::string name, TaskPriority priority, bool tasksPermittedMultipleRuns,
            std::shared_ptr<TaskScheduler> parent);

  // Schedules the parent task on the parent scheduler.
  void requestSchedulerRun() override;
  // Passes the group's force-yield switch on to the parent task.
  void handleTaskForceYieldInTest() override;
  // Refuses tasks of another priority than the group's.
  void taskRegister(TaskImpl* task) override;
  ~TaskGroup() override;

  TaskPriority taskGroupPriority() const noexcept { return priority_; }
  // The parent task's quantum: the time of one turn. At most one second
  // (assertion "Quantum: <ns>") unless set without the check.
  TaskTimeDuration taskGroupQuantum() const noexcept;
  void taskGroupQuantumIs(TaskTimeDuration quantum);
  void taskGroupQuantumNoCheckIs(TaskTimeDuration quantum);
  bool tasksPermittedMultipleRuns() const noexcept { return tasksPermittedMultipleRuns_; }
  void tasksPermittedMultipleRunsIs(bool permitted) noexcept { tasksPermittedMultipleRuns_ = permitted; }
  // The group's task on its parent scheduler (its scheduler() is the parent).
  const TaskImpl* parentTask() const noexcept;
  uint32_t parentTaskRunCount() const noexcept;
  bool parentTaskScheduled() const;
  // When on, every turn runs one task only (the parent task yields at once).
  bool taskGroupForceYieldInTest() const noexcept { return forceYieldInTest_; }
  void taskGroupForceYieldInTestIs(bool force);
  // One turn, now, outside the parent scheduler's accounting.
  void taskGroupRunFromTest();

 private:
  friend class ParentTask;
  void runTurn(ParentTask& parent);

  TaskPriority priority_;
  bool tasksPermittedMultipleRuns_;
  bool forceYieldInTest_ = false;
  std::shared_ptr<ParentTask> parentTask_;
};

// The group's task on the parent scheduler.
class TOLAN_EXPORT TaskGroup::ParentTask : public Task {
 public:
  ParentTask(std::shared_ptr<TaskScheduler> parent, TaskPriority priority, std::string name, TaskGroup* group);
  ~ParentTask() override;
  // One turn of the group; std::bad_weak_ptr when the group is gone.
  void taskExecute() override;
  // Resets the group's tasks too.
  void handleResetStats() override;
  bool isTaskGroup() const noexcept override { return true; }

 private:
  friend class TaskGroup;
  TaskGroup* group_;  // cleared by the group's destructor
};

// A new group held by shared_ptr; without the flag, one run per task and turn.
TOLAN_EXPORT std::shared_ptr<TaskGroup> TaskGroupIs(std::string name, TaskPriority priority,
                                                    bool tasksPermittedMultipleRuns,
                                                    std::shared_ptr<TaskScheduler> parent);
TOLAN_EXPORT std::shared_ptr<TaskGroup> TaskGroupIs(std::string name, TaskPriority priority,
                                                    std::shared_ptr<TaskScheduler> parent);

}  // namespace Tolan
