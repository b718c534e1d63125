#include <new>
#include <stdexcept>

#include "support/Support.h"
#include "support/SchedulerTesting.h"

namespace {

using namespace Tolan;
using TolanTest::Probe;
using Type = TaskSchedulerEventType;
using P = TaskPriority;
using ns = std::chrono::nanoseconds;

class Scheduler : public TolanTest::SchedulerFixture {};

TEST_F(Scheduler, AsksForOneRunOnTheIdleEdgeAndRunsOneTaskPerPass) {
  auto tasks = scheduled("n1 n2");
  tasks[0]->scheduleTask();  // queued once
  EXPECT_EQ(count(Type::schedulerRunnable), 1u);
  pass();
  EXPECT_EQ(ran(), "n1");
  pass();
  EXPECT_EQ(ran(), "n2");
  pass();  // the run after the last task finds nothing and goes idle...
  pass();  // ...and asks for nothing more
  EXPECT_EQ(count(Type::schedulerIdle), 1u);
  tasks[1]->scheduleTask();
  EXPECT_EQ(count(Type::schedulerRunnable), 2u);
  tasks[1]->unscheduleTask();
  tasks[1]->unscheduleTask();
  EXPECT_EQ(root->runQueues()[P::normal].dequeued(), 3u);
  EXPECT_EQ(count(Type::unschedule), 1u);
}

TEST_F(Scheduler, RunsByPriorityThenFifo) {
  auto tasks = scheduled("s1 l1 n1 h1 n2 a1 h2 s2");
  drain();
  EXPECT_EQ(ran(), "a1 h1 h2 n1 n2 l1 s1 s2");
}

// One high task that reschedules itself, eight pending normal tasks: a
// normal one gets through when n x (8 x normals) exceeds 64 x 1, n being the
// run of consecutive high picks. The scavenge task never counts.
TEST_F(Scheduler, LowerPriorityBumpFollowsTheWeights) {
  auto tasks = scheduled("s h n n n n n n n n");
  int highRuns = 0;
  tasks[1]->body = [&](Probe& self) {
    if (++highRuns < 10) self.scheduleTask();
  };
  EXPECT_TRUE(root->attemptLowerPriorityBump(P::high, 2));
  EXPECT_FALSE(root->attemptLowerPriorityBump(P::high, 1));
  EXPECT_FALSE(root->attemptLowerPriorityBump(P::low, 1000));
  drain();
  EXPECT_EQ(ran(), "h h n h h n h h n h h n h h n n n n s");
}

TEST_F(Scheduler, TasksRescheduledFromATemporaryQueueWaitForTheMoveBack) {
  auto tasks = scheduled("na nb");
  tasks[0]->body = [](Probe& self) {
    if (self.taskRunCount() == 1) self.scheduleTask();
  };
  root->taskRunQueuesMovePersistentToTemporary();
  EXPECT_ASSERTS(root->taskRunQueuesMovePersistentToTemporary(),
                 "The temporary run queue should always be empty at this point");
  pass();  // na runs and lands on the persistent list
  auto late = scheduled("nc");
  pass();
  pass();  // the temporary list is empty: nothing to pick
  EXPECT_EQ(ran(), "na nb");
  EXPECT_EQ(root->runnableTaskCount(), 2u);
  // An interrupted turn: what it left goes ahead of what came meanwhile.
  root->taskRunQueuesMoveTemporaryToPersistent();
  root->taskRunQueuesMovePersistentToTemporary();
  auto later = scheduled("nd");
  root->taskRunQueuesMoveTemporaryToPersistent();
  drain();
  EXPECT_EQ(ran(), "na nc nd");
}

TEST_F(Scheduler, SuspendedTaskAndSuspendedRoot) {
  auto t = task(P::normal, "t");
  t->taskSuspendedIs(true);
  t->scheduleTask();
  EXPECT_EQ(count(Type::scheduleSus), 1u);
  EXPECT_EQ(t->taskStatus().bits(), TaskStat::TaskStatus::kSuspended);
  t->taskSuspendedIs(false);  // resuming runs it once though nobody asked again
  EXPECT_TRUE(t->taskScheduled());

  root->suspendedIs(true);
  pass();
  pass();  // nothing was requested while suspended
  EXPECT_EQ(ran(), "");
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
}

TEST_F(Scheduler, YieldByTestRatioAndItsReevaluation) {
  std::vector<bool> answers;
  auto t = task(P::normal, "t", [&](Probe& self) {
    for (int i = 0; i < 6; ++i) answers.push_back(self.taskShouldYield());
  });
  root->taskTestYieldRatioIs(3);
  t->taskRunFromTest();
  EXPECT_EQ(answers, (std::vector<bool>{false, false, true, false, false, true}));
  t->taskForceYieldInTestIs(true);  // its own ratio of 1 wins over the root's
  answers.clear();
  t->taskRunFromTest();
  EXPECT_EQ(answers, std::vector<bool>(6, true));
  t->taskForceYieldInTestIs(false);
  root->taskTestYieldRatioIs(0);
  EXPECT_EQ(t->taskShouldYieldMode(), TaskShouldYieldMode::yieldByQuantum);
}

// Under fast-forward a run is measured on virtual time: advancing the clock
// inside the run uses the quantum up.
TEST_F(Scheduler, VirtualTimeDrivesYieldAndViolations) {
  double advance = 0;
  bool yieldedBefore = true, yieldedAfter = false;
  auto t = task(P::normal, "t", [&](Probe& self) {
    yieldedBefore = self.taskShouldYield();
    if (advance > 0) Platform::fastForwardBy(advance);
    yieldedAfter = self.taskShouldYield();
  });
  t->taskQuantumIs(std::chrono::milliseconds(10));
  auto runWith = [&](double seconds) {
    advance = seconds;
    t->scheduleTask();
    drain();
  };
  Platform::setFastForward(true);
  for (double seconds : {0.021, 0.051}) runWith(seconds);
  EXPECT_FALSE(yieldedBefore);
  EXPECT_TRUE(yieldedAfter);
  t->taskQuantumIs(ns(0));  // never a violation
  runWith(0.1);
  Platform::setFastForward(false);
  EXPECT_EQ(t->taskQuantumViolation200(), 1u);
  EXPECT_EQ(t->taskQuantumViolation500(), 1u);
  EXPECT_GE(t->taskRunTimeHighWaterMark(), std::chrono::milliseconds(100));
  EXPECT_EQ(t->taskShouldYieldMode(), TaskShouldYieldMode::yieldByVirtualTime);
  runWith(0);  // the root follows fast-forward back off
  EXPECT_EQ(t->taskShouldYieldMode(), TaskShouldYieldMode::yieldByQuantum);
  EXPECT_EQ(count(Type::schedulerVirtualTimeOff), 1u);
}

TEST_F(Scheduler, QuantumLimitsAndMisuse) {
  auto t = task(P::normal, "t");
  t->taskQuantumIs(kMaxTaskQuantum);
  EXPECT_ASSERTS(t->taskQuantumIs(kMaxTaskQuantum + ns(1)), "Quantum: 1000000001");
  EXPECT_ASSERTS(t->taskQuantumNoCheckIs(ns(-1)), "Quantum: -1");
  EXPECT_ASSERTS(root->taskRegister(t.get()), "already registered");
  EXPECT_ASSERTS(task(P::oneBeyondLast, "x"), "has no run queue");
  EXPECT_ASSERTS(Probe(std::shared_ptr<TaskScheduler>(), P::normal, "x", nullptr), "Need a TaskScheduler");
  EXPECT_ASSERTS(TaskSchedulerRootIs("other")->taskUnregister(t.get()), "not registered");
  t->scheduleTask();
  EXPECT_ASSERTS(root->taskUnregister(t.get()), "scheduled on unregister");
  EXPECT_ASSERTS(root->registerScheduler(root.get()), "insert failed for test");
  EXPECT_ASSERTS(root->tasksPerCallbackIs(0), "at least 1");
}

TEST_F(Scheduler, TaskExceptionLeavesTheLoopAndTheSchedulerGoesOn) {
  auto tasks = scheduled("hbad ngood");
  tasks[0]->body = [](Probe&) { throw std::runtime_error("task failed"); };
  EXPECT_THROW(drain(), std::runtime_error);
  EXPECT_EQ(root->currentTask(), nullptr);
  EXPECT_FALSE(tasks[0]->taskCurrentlyRunning());
  EXPECT_EQ(count(Type::runEnd), 1u);
  drain();  // the next run was requested before the exception left
  EXPECT_EQ(ran(), "hbad ngood");
}

TEST_F(Scheduler, RunningTaskStaysAliveWhenItsOwnerLetsGo) {
  auto tasks = scheduled("nself");
  bool aliveInRun = false;
  tasks[0]->body = [&](Probe& self) {
    tasks.clear();
    aliveInRun = root->currentTask() == &self && self.taskMagicNumber() == TaskImpl::kMagicConstructed;
  };
  drain();
  EXPECT_TRUE(aliveInRun);
  EXPECT_EQ(root->registeredTaskCount(), 0u);
  Probe local(root, P::normal, "local", &log);  // no shared_ptr: runs too
  local.scheduleTask();
  drain();
  EXPECT_EQ(ran(), "nself local");
}

TEST_F(Scheduler, ThroughputModeRunsSeveralTasksPerPassEachRecorded) {
  auto tasks = scheduled("na nb nc nd ne");
  root->tasksPerCallbackIs(3);
  pass();
  EXPECT_EQ(ran(), "na nb nc");
  pass();  // two left: the batch stops early and the scheduler goes idle
  EXPECT_EQ(ran(), "nd ne");
  EXPECT_EQ(count(Type::schedulerIdle), 1u);
  EXPECT_EQ(count(Type::runEnd), 5u);
}

TEST_F(Scheduler, CompletedTasksFoldIntoOneRecordPerStatisticsName) {
  for (const char* name : {"l1", "l2"}) {
    auto t = scheduled(name);
    t[0]->taskStatsNameIs("workers");
    drain();
  }
  task(P::low, "excluded")->includeInCompletedTaskIs(false);
  auto live = scheduled("lbusy");
  auto idle = task(P::low, "idle");
  drain();

  const TaskStat done = root->completedTaskStatForTest("workers");
  EXPECT_EQ(done.taskCompletedCount(), 2u);
  EXPECT_EQ(done.taskRunCount(), 2u);
  EXPECT_EQ(root->completedTaskStatForTest("excluded").taskName(), "");
  const TaskSchedulerPriorityStats low = root->queueStats().at(P::low);
  EXPECT_EQ(low.idleTasks, 2u);
  EXPECT_EQ(low.completedTasks, 2u);
  EXPECT_EQ(low.totalRunCount, 3u);
  std::vector<TaskStat> records;
  EXPECT_EQ(root->getTaskStats(&records, false), 1u);
  EXPECT_EQ(records.at(0).taskStatusString(), " l");
}

// The reset task walks the registered tasks from a bookmark, yielding by
// the root's test ratio (every second ask), so it takes several runs.
TEST_F(Scheduler, ResetAcrossSeveralRunsSurvivesTasksRemovedMidWalk) {
  auto tasks = scheduled("n0 n1 n2 n3 n4 n5");
  drain();
  tasks[5] = scheduled("n5")[0];  // the first n5 leaves a completed record
  drain();
  root->taskTestYieldRatioIs(2);
  root->resetStats();
  EXPECT_TRUE(root->resetStatsInProgress());
  pass();  // resets n0 n1 n2, then parks its bookmark before n3
  std::string runs;
  for (auto& t : tasks) runs += std::to_string(t->taskRunCount());
  EXPECT_EQ(runs, "000111");
  tasks[3].reset();  // right after the bookmark
  tasks[1].reset();  // already reset
  pass();  // n4, n5 and the reset task itself: the end
  EXPECT_FALSE(root->resetStatsInProgress());
  EXPECT_EQ(root->maxSchedulerLatency(), ns(0));
  for (auto* t : {tasks[0].get(), tasks[2].get(), tasks[4].get(), tasks[5].get()}) EXPECT_EQ(t->taskRunCount(), 0u);
  EXPECT_EQ(root->completedTaskStatForTest("n3").taskName(), "");
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
