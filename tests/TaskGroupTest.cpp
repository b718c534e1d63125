// Task groups: turns with and without multiple runs under a long and a short
// quantum, groups inside groups, the priority rule, and a throwing task.
#include "Tolan/TaskScheduler.h"
#include "support/SchedulerTesting.h"
#include "support/Support.h"

using namespace Tolan;
using namespace TolanTest;

namespace {

class TaskGroupTest : public SchedulerFixture {
 protected:
  // Tasks of `group` named after the letters of `names`, each running
  // `runs` times by rescheduling itself, all scheduled in order.
  std::vector<std::shared_ptr<Probe>> selfRescheduling(const std::shared_ptr<TaskScheduler>& group,
                                                       const std::string& names, int runs) {
    std::vector<std::shared_ptr<Probe>> tasks;
    for (char c : names) {
      tasks.push_back(std::make_shared<Probe>(group, TaskPriority::normal, std::string(1, c), &log,
                                              [runs](Probe& p) {
                                                if (static_cast<int>(p.taskRunCount()) < runs) p.scheduleTask();
                                              }));
      tasks.back()->scheduleTask();
    }
    return tasks;
  }
  // Runs the loop one pass at a time until the root is idle; the runs of
  // one pass (one turn of a group on the root) are joined, passes split by '|'.
  std::string turns() {
    std::string out;
    for (int guard = 0; root->schedulerHasRunnableTasks() && guard < 1000; ++guard) {
      pass();
      std::string joined;
      for (const auto& name : log) joined += name;
      log.clear();
      if (!joined.empty()) out += (out.empty() ? "" : "|") + joined;
    }
    return out;
  }
};

TEST_F(TaskGroupTest, TurnsWithAndWithoutMultipleRuns) {
  struct Case {
    bool multipleRuns;
    TaskTimeDuration quantum;
    const char* turns;
  };
  const TaskTimeDuration longQ = kMaxTaskQuantum, shortQ{0};  // 0: yield after every run
  const Case cases[] = {
      {false, longQ, "abcd|abcd|abcd"},
      {true, longQ, "abcdabcdabcd"},
      {false, shortQ, "a|b|c|d|a|b|c|d|a|b|c|d"},
      {true, shortQ, "a|b|c|d|a|b|c|d|a|b|c|d"},
  };
  for (const Case& c : cases) {
    auto group = TaskGroupIs("g", TaskPriority::normal, c.multipleRuns, root);
    group->taskGroupQuantumIs(c.quantum);
    const auto tasks = selfRescheduling(group, "abcd", 3);
    EXPECT_TRUE(group->parentTaskScheduled());
    EXPECT_EQ(turns(), c.turns) << c.multipleRuns << " " << c.quantum.count();
    EXPECT_EQ(group->parentTaskRunCount(), std::count(c.turns, c.turns + strlen(c.turns), '|') + 1u);
    EXPECT_FALSE(group->parentTaskScheduled()) << "an idle group leaves its parent task unscheduled";
    EXPECT_FALSE(group->schedulerHasRunnableTasks());
  }
  // Forcing the group to yield in tests makes every turn one run.
  auto group = TaskGroupIs("g", TaskPriority::normal, true, root);
  group->taskGroupForceYieldInTestIs(true);
  const auto tasks = selfRescheduling(group, "ab", 2);
  EXPECT_EQ(turns(), "a|b|a|b");
}

// The group is one task of the root: the root's own tasks take turns with
// it; inside, the inner group is one task of the outer.
TEST_F(TaskGroupTest, GroupInsideAGroup) {
  auto outer = TaskGroupIs("outer", TaskPriority::normal, root);
  auto inner = TaskGroupIs("inner", TaskPriority::normal, outer);
  EXPECT_EQ(root->registeredSchedulerCount(), 3u);
  const auto innerTasks = selfRescheduling(inner, "xy", 2);
  const auto outerTasks = selfRescheduling(outer, "o", 2);
  const auto rootTasks = selfRescheduling(root, "r", 2);
  EXPECT_EQ(turns(), "xyo|r|xyo|r");
  EXPECT_TRUE(outer->taskStatForTest("TaskGroup;inner").taskStatus().taskIsTaskGroup());
  EXPECT_EQ(root->taskStatForTest("TaskGroup;outer").taskWorkCountTotal(), 4u) << "runs of the outer turns";
  EXPECT_FALSE(outer->parentTaskScheduled() || inner->parentTaskScheduled());
  inner.reset();  // its tasks still hold it
  EXPECT_EQ(root->registeredSchedulerCount(), 3u);
  innerTasks[0]->scheduleTask();
  EXPECT_EQ(turns(), "x");
}

TEST_F(TaskGroupTest, PriorityAndQuantumRules) {
  auto group = TaskGroupIs("g", TaskPriority::normal, root);
  EXPECT_ASSERTS(std::make_shared<Probe>(group, TaskPriority::high, "h", &log), "taskPriority( high ) != taskGroupPriority( normal )");
  EXPECT_ASSERTS(TaskGroupIs("in", TaskPriority::low, group), "taskPriority( low ) != taskGroupPriority( normal )");
  EXPECT_EQ(root->registeredSchedulerCount(), 2u) << "a refused group is not left registered";
  EXPECT_ASSERTS(group->taskGroupQuantumIs(TaskTimeDuration(2000000000)), "Quantum: 2000000000");
  group->taskGroupQuantumNoCheckIs(TaskTimeDuration(2000000000));
  EXPECT_EQ(group->taskGroupQuantum().count(), 2000000000);
  // The group's statistics reset runs inside the group, at its priority.
  const auto tasks = selfRescheduling(group, "a", 1);
  turns();
  group->resetStats();
  EXPECT_EQ(turns(), "");
  EXPECT_EQ(tasks[0]->taskRunCount(), 0u);
}

// A throwing task leaves the loop; the group's queues are put back and the
// remaining tasks run on the next call.
TEST_F(TaskGroupTest, ThrowingTaskLeavesTheLoopAndTheGroupCarriesOn) {
  auto group = TaskGroupIs("g", TaskPriority::normal, false, root);
  auto bad = std::make_shared<Probe>(group, TaskPriority::normal, "!", &log, [](Probe&) { throw std::runtime_error("x"); });
  bad->scheduleTask();
  const auto tasks = selfRescheduling(group, "ab", 2);
  EXPECT_THROW(drain(), std::runtime_error);
  EXPECT_EQ(ran(), "!");
  EXPECT_EQ(turns(), "ab|ab");
}

}  // namespace
