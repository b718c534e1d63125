#include <gmock/gmock.h>

#include <new>
#include <stdexcept>
#include <type_traits>

#include "support/EventTesting.h"
#include "support/SchedulerTesting.h"

namespace {

using namespace Tolan;
using TolanTest::Probe;
using Type = TaskSchedulerEventType;
using P = TaskPriority;
using ns = std::chrono::nanoseconds;

const bool throwing = (throwOnAssertFailIs(true), true);

class Scheduler : public TolanTest::SchedulerFixture {};

TEST_F(Scheduler, AsksForOneRunOnTheIdleEdgeAndRunsOneTaskPerPass) {
  auto a = task(P::normal, "a"), b = task(P::normal, "b");
  a->scheduleTask();
  a->scheduleTask();  // queued once
  b->scheduleTask();
  EXPECT_EQ(root->runnableTaskCount(), 2u);
  EXPECT_EQ(count(Type::schedulerRunnable), 1u);
  pass();
  EXPECT_EQ(ran(), "a");
  pass();
  EXPECT_EQ(ran(), "b");
  EXPECT_FALSE(a->taskBusy());
  EXPECT_EQ(count(Type::schedulerIdle), 0u);
  pass();  // the run after the last task finds nothing and goes idle...
  EXPECT_EQ(count(Type::schedulerIdle), 1u);
  pass();  // ...and asks for nothing more
  EXPECT_EQ(count(Type::schedulerIdle), 1u);
  EXPECT_EQ(count(Type::runStart), 2u);
  b->scheduleTask();
  EXPECT_EQ(count(Type::schedulerRunnable), 2u);
  b->unscheduleTask();
  b->unscheduleTask();
  EXPECT_EQ(root->runQueues()[P::normal].dequeued(), 3u);
  EXPECT_EQ(count(Type::unschedule), 1u);
}

TEST_F(Scheduler, RunsByPriorityThenFifo) {
  std::vector<std::shared_ptr<Probe>> tasks;
  for (auto [p, name] : {std::pair{P::scavenge, "s1"}, {P::low, "l1"}, {P::normal, "n1"}, {P::high, "h1"},
                         {P::normal, "n2"}, {P::absolute, "a1"}, {P::high, "h2"}, {P::scavenge, "s2"}}) {
    tasks.push_back(task(p, name));
    tasks.back()->scheduleTask();
  }
  drain();
  EXPECT_EQ(ran(), "a1 h1 h2 n1 n2 l1 s1 s2");
}

// One high task that reschedules itself on every run, beside eight pending
// normal tasks: a normal one gets through each time n x (8 x normals)
// exceeds 64 x 1, n being the run of consecutive high picks.
TEST_F(Scheduler, LowerPriorityBumpFollowsTheWeights) {
  int highRuns = 0;
  auto high = task(P::high, "H", [&](Probe& self) {
    if (++highRuns < 10) self.scheduleTask();
  });
  std::vector<std::shared_ptr<Probe>> normals;
  for (int i = 0; i < 8; ++i) normals.push_back(task(P::normal, "N"));
  auto scavenger = task(P::scavenge, "S");  // never counts
  scavenger->scheduleTask();
  high->scheduleTask();
  for (auto& n : normals) n->scheduleTask();
  EXPECT_TRUE(root->attemptLowerPriorityBump(P::high, 2));
  EXPECT_FALSE(root->attemptLowerPriorityBump(P::high, 1));
  EXPECT_FALSE(root->attemptLowerPriorityBump(P::low, 1000));
  drain();
  EXPECT_EQ(ran(), "H H N H H N H H N H H N H H N N N N S");
}

TEST_F(Scheduler, TasksRescheduledFromATemporaryQueueWaitForTheMoveBack) {
  int aRuns = 0;
  auto a = task(P::normal, "a", [&](Probe& self) {
    if (++aRuns == 1) self.scheduleTask();
  });
  auto b = task(P::normal, "b"), c = task(P::normal, "c"), d = task(P::normal, "d");
  a->scheduleTask();
  b->scheduleTask();
  root->taskRunQueuesMovePersistentToTemporary();
  EXPECT_ASSERTS(root->taskRunQueuesMovePersistentToTemporary(),
                 "The temporary run queue should always be empty at this point");
  pass();  // a runs and lands on the persistent list
  c->scheduleTask();
  pass();
  pass();  // the temporary list is empty: nothing to pick
  EXPECT_EQ(ran(), "a b");
  EXPECT_EQ(root->runnableTaskCount(), 2u);
  // An interrupted turn: what it left goes ahead of what came meanwhile.
  root->taskRunQueuesMoveTemporaryToPersistent();
  root->taskRunQueuesMovePersistentToTemporary();
  d->scheduleTask();
  root->taskRunQueuesMoveTemporaryToPersistent();
  EXPECT_FALSE(root->runQueues()[P::normal].temporaryIsCurrent());
  drain();
  EXPECT_EQ(ran(), "a c d");
}

TEST_F(Scheduler, SuspendedTaskAndSuspendedRoot) {
  auto t = task(P::normal, "t");
  t->taskSuspendedIs(true);
  t->scheduleTask();
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(count(Type::scheduleSus), 1u);
  EXPECT_EQ(t->taskStatus().bits(), TaskStat::TaskStatus::kSuspended);
  t->taskSuspendedIs(false);  // resuming runs it once though nobody asked again
  EXPECT_TRUE(t->taskScheduled());
  t->taskSuspendedIs(true);
  EXPECT_FALSE(t->taskScheduled());
  t->taskSuspendedIs(false);

  root->suspendedIs(true);
  pass();
  EXPECT_EQ(ran(), "");
  EXPECT_EQ(count(Type::schedulerRunIgnoredWhileSuspended), 1u);
  pass();  // nothing was requested while suspended
  EXPECT_EQ(count(Type::schedulerRunIgnoredWhileSuspended), 1u);
  root->suspendedIs(false);
  pass();
  EXPECT_EQ(ran(), "t");
  // Resuming with nothing scheduled still asks for exactly one run.
  pass();
  root->suspendedIs(true);
  root->suspendedIs(false);
  const TaskTimePoint before = root->runStartTime();
  pass();
  const TaskTimePoint first = root->runStartTime();
  pass();
  EXPECT_NE(first, before);
  EXPECT_EQ(root->runStartTime(), first);
  EXPECT_EQ(count(Type::runStart), 1u);
}

TEST_F(Scheduler, YieldByTestRatioAndItsReevaluation) {
  std::vector<bool> answers;
  auto t = task(P::normal, "t", [&](Probe& self) {
    for (int i = 0; i < 6; ++i) answers.push_back(self.taskShouldYield());
  });
  EXPECT_EQ(t->taskShouldYieldMode(), TaskShouldYieldMode::yieldByQuantum);
  root->taskTestYieldRatioIs(3);
  EXPECT_EQ(t->taskShouldYieldMode(), TaskShouldYieldMode::yieldByTestRatio);
  t->taskRunFromTest();
  EXPECT_EQ(answers, (std::vector<bool>{false, false, true, false, false, true}));
  t->taskForceYieldInTestIs(true);  // its own ratio of 1 wins over the root's
  answers.clear();
  t->taskRunFromTest();
  EXPECT_EQ(answers, std::vector<bool>(6, true));
  t->taskForceYieldInTestIs(false);
  root->taskTestYieldRatioIs(0);
  EXPECT_EQ(t->taskShouldYieldMode(), TaskShouldYieldMode::yieldByQuantum);
  EXPECT_EQ(count(Type::schedulerTestYieldRatioOn), 1u);
  EXPECT_EQ(count(Type::frcYieldOn), 1u);
  EXPECT_EQ(count(Type::frcYieldOff), 1u);
}

// Under fast-forward a task's run is measured on virtual time: advancing
// the clock inside the run is using the quantum.
TEST_F(Scheduler, VirtualTimeDrivesYieldAndViolations) {
  Platform::setFastForward(true);
  double advance = 0;
  bool yieldedBefore = true, yieldedAfter = false;
  auto t = task(P::normal, "t", [&](Probe& self) {
    yieldedBefore = self.taskShouldYield();
    if (advance > 0) Platform::fastForwardBy(advance);
    yieldedAfter = self.taskShouldYield();
  });
  t->taskQuantumIs(std::chrono::milliseconds(10));
  for (double seconds : {0.0, 0.021, 0.051}) {
    advance = seconds;
    t->scheduleTask();
    drain();
  }
  Platform::setFastForward(false);
  EXPECT_TRUE(root->virtualTime());
  EXPECT_EQ(t->taskShouldYieldMode(), TaskShouldYieldMode::yieldByVirtualTime);
  EXPECT_FALSE(yieldedBefore);
  EXPECT_TRUE(yieldedAfter);
  EXPECT_EQ(t->taskQuantumViolation200(), 1u);
  EXPECT_EQ(t->taskQuantumViolation500(), 1u);
  EXPECT_GE(t->taskRunTimeHighWaterMark(), std::chrono::milliseconds(51));
  // A zero quantum never counts a violation.
  t->taskQuantumIs(ns(0));
  Platform::setFastForward(true);
  advance = 0.1;
  t->scheduleTask();
  drain();
  Platform::setFastForward(false);
  EXPECT_EQ(t->taskQuantumViolation500(), 1u);
  advance = 0;
  t->scheduleTask();
  pass();  // the root follows fast-forward back off
  EXPECT_EQ(t->taskShouldYieldMode(), TaskShouldYieldMode::yieldByQuantum);
  EXPECT_EQ(count(Type::schedulerVirtualTimeOn), 1u);
  EXPECT_EQ(count(Type::schedulerVirtualTimeOff), 1u);
}

TEST_F(Scheduler, QuantumLimitsAndMisuse) {
  auto t = task(P::normal, "t");
  t->taskQuantumIs(kMaxTaskQuantum);
  EXPECT_ASSERTS(t->taskQuantumIs(kMaxTaskQuantum + ns(1)), "Quantum: 1000000001");
  EXPECT_ASSERTS(t->taskQuantumNoCheckIs(ns(-1)), "Quantum: -1");
  t->taskQuantumNoCheckIs(std::chrono::seconds(5));
  EXPECT_EQ(t->taskQuantum(), std::chrono::seconds(5));
  EXPECT_ASSERTS(root->taskRegister(t.get()), "already registered");
  EXPECT_ASSERTS(task(P::oneBeyondLast, "x"), "has no run queue");
  EXPECT_ASSERTS(Probe(std::shared_ptr<TaskScheduler>(), P::normal, "x", nullptr), "Need a TaskScheduler");
  auto other = TaskSchedulerRootIs("other");
  EXPECT_ASSERTS(other->taskUnregister(t.get()), "not registered");
  t->scheduleTask();
  EXPECT_ASSERTS(root->taskUnregister(t.get()), "scheduled on unregister");
  EXPECT_ASSERTS(root->registerScheduler(root.get()), "insert failed for test");
}

TEST_F(Scheduler, TaskExceptionLeavesTheLoopAndTheSchedulerGoesOn) {
  auto bad = task(P::high, "bad", [](Probe&) { throw std::runtime_error("task failed"); });
  auto good = task(P::normal, "good");
  bad->scheduleTask();
  good->scheduleTask();
  EXPECT_THROW(drain(), std::runtime_error);
  EXPECT_EQ(root->currentTask(), nullptr);
  EXPECT_FALSE(bad->taskCurrentlyRunning());
  EXPECT_EQ(bad->taskRunCount(), 1u);
  EXPECT_EQ(count(Type::runEnd), 1u);
  drain();  // the next run was requested before the exception left
  EXPECT_EQ(ran(), "bad good");
}

TEST_F(Scheduler, RunningTaskStaysAliveWhenItsOwnerLetsGo) {
  std::shared_ptr<Probe> owner;
  bool currentDuringRun = false;
  owner = task(P::normal, "self", [&](Probe& self) {
    owner.reset();
    currentDuringRun = root->currentTask() == &self && self.taskMagicNumber() == TaskImpl::kMagicConstructed;
  });
  owner->scheduleTask();
  drain();
  EXPECT_TRUE(currentDuringRun);
  EXPECT_EQ(root->registeredTaskCount(), 0u);
  // A task that no shared_ptr owns runs too.
  Probe local(root, P::normal, "local", &log);
  local.scheduleTask();
  drain();
  EXPECT_EQ(ran(), "self local");
}

TEST_F(Scheduler, ThroughputModeRunsSeveralTasksPerPassEachRecorded) {
  std::vector<std::shared_ptr<Probe>> tasks;
  for (const char* name : {"a", "b", "c", "d", "e"}) {
    tasks.push_back(task(P::normal, name));
    tasks.back()->scheduleTask();
  }
  root->tasksPerCallbackIs(3);
  pass();
  EXPECT_EQ(ran(), "a b c");
  pass();  // two left: the batch stops early and the scheduler goes idle
  EXPECT_EQ(ran(), "d e");
  EXPECT_EQ(count(Type::schedulerIdle), 1u);
  EXPECT_EQ(count(Type::runStart), 5u);
  EXPECT_EQ(count(Type::runEnd), 5u);
  EXPECT_ASSERTS(root->tasksPerCallbackIs(0), "at least 1");
}

TEST_F(Scheduler, CompletedTasksFoldIntoOneRecordPerStatisticsName) {
  for (int i = 0; i < 2; ++i) {
    auto t = task(P::low, "worker" + std::to_string(i));
    t->taskStatsNameIs("workers");
    t->scheduleTask();
    drain();
  }
  task(P::low, "excluded")->includeInCompletedTaskIs(false);
  auto idle = task(P::low, "idle");
  auto busy = task(P::low, "busy");
  busy->scheduleTask();
  drain();

  const TaskStat done = root->completedTaskStatForTest("workers");
  EXPECT_EQ(done.taskName(), "workers");
  EXPECT_EQ(done.taskCompletedCount(), 2u);
  EXPECT_EQ(done.taskRunCount(), 2u);
  EXPECT_EQ(root->completedTaskStatForTest("excluded").taskName(), "");
  EXPECT_EQ(root->completedTasksPerPriority(P::low), 2u);
  EXPECT_EQ(root->tasksPerPriority(P::low), 2u);
  const TaskSchedulerPriorityStats low = root->queueStats().at(P::low);
  EXPECT_EQ(low.idleTasks, 2u);
  EXPECT_EQ(low.completedTasks, 2u);
  EXPECT_EQ(low.totalRunCount, 3u);

  std::vector<TaskStat> records;
  EXPECT_EQ(root->getTaskStats(&records, false), 1u);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].taskName(), "busy");
  EXPECT_EQ(records[0].taskStatusString(), " l");
  EXPECT_EQ(root->getTaskStats(&records, true), 0u);
  EXPECT_EQ(records.size(), 3u);
}

// The reset task walks the registered tasks from a bookmark, yielding by
// the root's test ratio (every second ask) so that it takes several runs.
TEST_F(Scheduler, ResetAcrossSeveralRunsSurvivesTasksRemovedMidWalk) {
  std::vector<std::shared_ptr<Probe>> tasks;
  for (int i = 0; i < 6; ++i) {
    tasks.push_back(task(P::normal, "t" + std::to_string(i)));
    tasks.back()->scheduleTask();
  }
  drain();
  tasks[5].reset();  // a completed record, cleared at the end of the walk
  tasks[5] = task(P::normal, "t5");
  tasks[5]->scheduleTask();
  drain();
  ASSERT_NE(root->maxSchedulerLatency(), ns(0));

  root->taskTestYieldRatioIs(2);
  root->resetStats();
  EXPECT_TRUE(root->resetStatsInProgress());
  pass();  // resets t0 t1 t2, then yields with its bookmark before t3
  std::string runs;
  for (auto& t : tasks) runs += std::to_string(t->taskRunCount());
  EXPECT_EQ(runs, "000111");
  tasks[3].reset();  // the task right after the bookmark
  tasks[1].reset();  // one already reset
  pass();  // t4, t5 and the reset task itself: the end
  EXPECT_FALSE(root->resetStatsInProgress());
  EXPECT_EQ(root->maxSchedulerLatency(), ns(0));
  for (auto& t : tasks) {
    if (t) {
      EXPECT_EQ(t->taskRunCount(), 0u) << t->taskName();
    }
  }
  EXPECT_EQ(root->completedTaskStatForTest("t5").taskName(), "");
  EXPECT_EQ(root->completedTaskStatForTest("t3").taskName(), "");
  EXPECT_EQ(root->completedTasksPerPriority(P::normal), 0u);
  // Its own counters were reset by its last run, which then counted 3.
  EXPECT_EQ(root->taskForTest("test;ResetStats")->taskWorkCountTotal(), 3u);
}

// A task destroyed inside its own execute: its memory is still ours here, so
// the magic number is what finds it.
void runTaskThatDestroysItself() {
  auto root = TaskSchedulerRootIs("death");
  alignas(Probe) unsigned char storage[sizeof(Probe)];
  auto* t = new (storage) Probe(root, P::normal, "suicide", nullptr, [](Probe& self) { self.~Probe(); });
  t->scheduleTask();
  Platform::doEventLoop();
}

TEST(SchedulerDeathTest, TaskDestroyingItselfInItsExecuteAborts) {
  EXPECT_DEATH(runTaskThatDestroysItself(),
               "Task: suicide taskMagicNumber: 3735936685 taskMagicNumberConstructed: 1119771390");
}

}  // namespace
