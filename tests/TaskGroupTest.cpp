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
  // One task of `scheduler` per letter of `names`, each rescheduling itself
  // until it has run `runs` times; all scheduled in order.
  std::vector<std::shared_ptr<Probe>> tasks(std::shared_ptr<TaskScheduler> scheduler, const std::string& names,
                                            uint32_t runs) {
    std::vector<std::shared_ptr<Probe>> out;
    for (char c : names) {
      out.push_back(std::make_shared<Probe>(scheduler, TaskPriority::normal, std::string(1, c), &log, [runs](Probe& p) {
        if (p.taskRunCount() < runs) p.scheduleTask();
      }));
      out.back()->scheduleTask();
    }
    return out;
  }
  // The runs of each loop pass (one turn of a group on the root) joined,
  // passes split by '|', until the root is idle.
  std::string turns() {
    std::string out;
    for (int guard = 0; root->schedulerHasRunnableTasks() && guard < 100; ++guard) {
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
  const TaskTimeDuration longQ = kMaxTaskQuantum, shortQ{0};  // 0: yield after every run
  const std::tuple<bool, TaskTimeDuration, const char*> cases[] = {{false, longQ, "abcd|abcd|abcd"},
                                                                    {true, longQ, "abcdabcdabcd"},
                                                                    {false, shortQ, "a|b|c|d|a|b|c|d|a|b|c|d"},
                                                                    {true, shortQ, "a|b|c|d|a|b|c|d|a|b|c|d"}};
  for (const auto& [multipleRuns, quantum, expected] : cases) {
    auto group = TaskGroupIs("g", TaskPriority::normal, multipleRuns, root);
    group->taskGroupQuantumIs(quantum);
    const auto t = tasks(group, "abcd", 3);
    EXPECT_EQ(turns(), expected) << multipleRuns;
    EXPECT_EQ(group->parentTaskRunCount(), std::count(expected, expected + strlen(expected), '|') + 1u);
    EXPECT_FALSE(group->parentTaskScheduled()) << "an idle group leaves its parent task unscheduled";
  }
  auto group = TaskGroupIs("g", TaskPriority::normal, true, root);
  group->taskGroupForceYieldInTestIs(true);
  const auto t = tasks(group, "ab", 2);
  EXPECT_EQ(turns(), "a|b|a|b");
}

// The root's own task takes turns with the outer group, and the inner group
// is one task of the outer.
TEST_F(TaskGroupTest, GroupInsideAGroup) {
  auto outer = TaskGroupIs("outer", TaskPriority::normal, root);
  auto inner = TaskGroupIs("inner", TaskPriority::normal, outer);
  const auto x = tasks(inner, "xy", 2), o = tasks(outer, "o", 2), r = tasks(root, "r", 2);
  EXPECT_EQ(turns(), "xyo|r|xyo|r");
  EXPECT_TRUE(outer->taskStatForTest("TaskGroup;inner").taskStatus().taskIsTaskGroup());
  EXPECT_EQ(root->taskStatForTest("TaskGroup;outer").taskWorkCountTotal(), 4u);
}

TEST_F(TaskGroupTest, PriorityQuantumAndReset) {
  auto group = TaskGroupIs("g", TaskPriority::normal, root);
  EXPECT_ASSERTS(Probe(group, TaskPriority::high, "h", &log), "taskPriority( high ) != taskGroupPriority( normal )");
  EXPECT_ASSERTS(TaskGroupIs("in", TaskPriority::low, group), "taskPriority( low ) != taskGroupPriority( normal )");
  EXPECT_EQ(root->registeredSchedulerCount(), 2u) << "a refused group is not left registered";
  EXPECT_ASSERTS(group->taskGroupQuantumIs(TaskTimeDuration(2000000000)), "Quantum: 2000000000");
  const auto t = tasks(group, "a", 1);
  turns();
  group->resetStats();  // its reset task runs inside the group, at the group's priority
  EXPECT_EQ(turns(), "");
  EXPECT_EQ(t[0]->taskRunCount(), 0u);
}

// The queues are put back after a throwing task; the rest run on the next call.
TEST_F(TaskGroupTest, ThrowingTask) {
  auto group = TaskGroupIs("g", TaskPriority::normal, root);
  Probe bad(group, TaskPriority::normal, "!", &log, [](Probe&) { throw std::runtime_error("x"); });
  bad.scheduleTask();
  const auto t = tasks(group, "ab", 2);
  EXPECT_THROW(drain(), std::runtime_error);
  EXPECT_EQ(ran(), "!");
  EXPECT_EQ(turns(), "ab|ab");
}

}  // namespace
