// Statistics records: the status string and the merge rules.
#include "Tolan/TaskStat.h"
#include "support/Support.h"

using namespace TolanTest;
using namespace Tolan;
using std::chrono::milliseconds;
using Status = TaskStat::TaskStatus;
using Maybe = TaskMaybeU32;

class TaskStatTest : public Test {
 protected:
  // A record whose every field differs from the others', so that a field
  // mixed up with another shows.
  TaskStat record(const char* name, uint32_t runs, Maybe workHigh = {}, Maybe pendingHigh = {},
                  milliseconds runHigh = {}, milliseconds latency = {}, milliseconds latencyHigh = {},
                  Status status = Status()) {
    return TaskStat(cache_->intern(name), TaskKey(7), TaskPriority::low, runs, milliseconds(10 * runs), 100ull * runs,
                    1.5f * runs, workHigh, 3 * runs, pendingHigh, runs + 1, runs + 2, runHigh, latency, latencyHigh,
                    status);
  }
  // Behind a pointer: the cache's destructor may throw, the fixture's may not.
  std::unique_ptr<ConstStringCache> cache_ = std::make_unique<ConstStringCache>();
};

TEST(TaskStatStatus, RunningOverSuspendedOverTimerAndUpperCaseWhenRunnable) {
  const struct {
    uint8_t bits;
    TaskPriority priority;
    const char* expected;
  } rows[] = {
      {Status::kTimer | Status::kTimerRunning | Status::kOnRunQueue, TaskPriority::normal, "TN"},
      {Status::kTimer | Status::kTimerRunning, TaskPriority::normal, "Tn"},
      {Status::kTimer, TaskPriority::high, "th"},
      {Status::kCurrentlyRunning | Status::kSuspended | Status::kTimer, TaskPriority::low, "*l"},
      {Status::kSuspended | Status::kTimer | Status::kTimerRunning, TaskPriority::scavenge, "Ss"},
      {Status::kOnRunQueue, TaskPriority::absolute, " A"},
      {Status::kIsTaskGroup, TaskPriority::high, " h"}};
  for (const auto& r : rows) {
    TaskStat stat(ConstStringRef(), TaskKey(1), r.priority, 0, {}, 0, 0, {}, 0, {}, 0, 0, {}, {}, {}, Status(r.bits));
    EXPECT_EQ(stat.taskStatusString(), r.expected) << unsigned(r.bits);
  }
  EXPECT_EQ(TaskPriority(TaskPriority::oneBeyondLast).oneChar(), '-');
  EXPECT_ASSERTS(TaskPriority::fromNumber(6).toStrep(), "unexpected priority value 6");
  EXPECT_ASSERTS(TaskPriority::fromNumber(200).oneChar(), "unexpected priority 200");
}

TEST_F(TaskStatTest, MergeAddsCountsOverwritesGaugesAndKeepsMaxima) {
  TaskStat a = record("w", 2, Maybe(7), Maybe::none(), milliseconds(30), milliseconds(4), milliseconds(9),
                      Status(Status::kOnRunQueue));
  TaskStat b = record("w", 5, Maybe::none(), Maybe(9), milliseconds(20), milliseconds(1), milliseconds(12),
                      Status(Status::kSuspended));
  a.taskCompletedCountIs(1);
  b.taskCompletedCountIs(40);
  EXPECT_EQ(&(a += b), &a);
  // Added.
  EXPECT_EQ(a.taskRunCount(), 7u);
  EXPECT_EQ(a.taskTotalRunTime(), milliseconds(70));
  EXPECT_EQ(a.taskWorkCountTotal(), 700u);
  EXPECT_EQ(a.taskQuantumViolation500(), 3u + 6u);
  EXPECT_EQ(a.taskQuantumViolation200(), 4u + 7u);
  // Overwritten by the later record.
  EXPECT_FLOAT_EQ(a.taskWorkCountDecayingAverage(), 7.5f);
  EXPECT_EQ(a.taskWorkPending(), 15u);
  EXPECT_EQ(a.taskLastSchedulingLatency(), milliseconds(1));
  EXPECT_EQ(a.taskStatus(), Status(Status::kSuspended));
  // Maxima; a no-value never wins and never loses to nothing.
  EXPECT_EQ(a.taskWorkCountHighWater(), Maybe(7));
  EXPECT_EQ(a.taskWorkPendingHighWater(), Maybe(9));
  EXPECT_EQ(a.taskRunTimeHighWaterMark(), milliseconds(30));
  EXPECT_EQ(a.taskSchedulingLatencyHighWaterMark(), milliseconds(12));
  // One more completion, whatever b counted; identity untouched.
  EXPECT_EQ(a.taskCompletedCount(), 2u);
  EXPECT_EQ(a.taskKey(), TaskKey(7));
  EXPECT_EQ(a.taskPriority(), TaskPriority::low);
  EXPECT_EQ(a.taskName(), "w");
  // No-value merged with no-value stays no-value; 0 is a value and beats none.
  TaskStat none = record("n", 1, Maybe::none(), Maybe(0), milliseconds(-5));
  none += record("n", 1, Maybe::none(), Maybe::none(), milliseconds(-2));
  EXPECT_FALSE(none.taskWorkCountHighWater().hasValue());
  EXPECT_EQ(none.taskWorkPendingHighWater(), Maybe(0));
  EXPECT_EQ(none.taskRunTimeHighWaterMark(), milliseconds(-2));  // signed comparison
}

TEST_F(TaskStatTest, QueueStatsMergePerPriority) {
  TaskSchedulerQueueStats a, b;
  a.emplace(TaskPriority::normal, TaskSchedulerPriorityStats(TaskPriority::normal, 1, 2, 3, 4));
  b.emplace(TaskPriority::normal, TaskSchedulerPriorityStats(TaskPriority::normal, 10, 20, 30, 1ull << 40));
  b.emplace(TaskPriority::absolute, TaskSchedulerPriorityStats(TaskPriority::absolute, 5, 0, 0, 1));
  EXPECT_EQ(&(a += b), &a);
  ASSERT_EQ(a.size(), 2u);
  const auto& normal = a.at(TaskPriority::normal);
  EXPECT_EQ(normal.runnableTasks, 11u);
  EXPECT_EQ(normal.idleTasks, 22u);
  EXPECT_EQ(normal.completedTasks, 33u);
  EXPECT_EQ(normal.totalRunCount, (1ull << 40) + 4);
  EXPECT_EQ(a.at(TaskPriority::absolute).runnableTasks, 5u);
}

using TaskStatDeathTest = TaskStatTest;

TEST_F(TaskStatDeathTest, MergingDifferentNamesOrPrioritiesAborts) {
  TaskStat a = record("alpha", 1);
  EXPECT_ABORTS(a += record("beta", 1), "TaskSchedulerCpp.*operator\\+=.*alpha != beta");
  TaskSchedulerPriorityStats high(TaskPriority::high), low(TaskPriority::low);
  EXPECT_ABORTS(high += low, "TaskSchedulerCpp.*operator\\+=.*high != low");
  TaskSchedulerQueueStats qa, qb;
  qa.emplace(TaskPriority::high, high);
  qb.emplace(TaskPriority::high, low);  // a record filed under the wrong priority
  EXPECT_ABORTS(qa += qb, "high != low");
}

