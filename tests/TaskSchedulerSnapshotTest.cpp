// The scheduler snapshot and its JSON document: a golden document from
// records set here, what a live snapshot copies, the document frame, and
// rendering on another thread while the scheduler keeps running. Every
// document is checked by an independent parser against the shipped schema.
#include "Tolan/TaskSchedulerSnapshot.h"

#include <mutex>

#include "Tolan/TaskGroup.h"
#include "Tolan/TaskSchedulerPrintContext.h"
#include "support/JsonCheck.h"
#include "support/SchedulerTesting.h"
#include "support/Support.h"

using namespace TolanTest;
using namespace std::chrono_literals;
using Tolan::TaskMaybeU32;
using Tolan::TaskSchedulerSnapshot;
using Tolan::TaskStat;
using P = Tolan::TaskPriority;
using Snapshot = SchedulerFixture;

namespace {

std::string render(const std::vector<const TaskSchedulerSnapshot*>& snapshots) {
  std::ostringstream out;
  Tolan::TaskSchedulerPrintContext context(out);
  for (const auto* snapshot : snapshots) snapshot->renderJson(context);
  context.closeJson();
  return out.str();
}

std::vector<std::string> names(const std::vector<TaskStat>& records) {
  std::vector<std::string> out;
  for (const auto& r : records) out.push_back(r.taskName());
  return out;
}

const std::string kQuiet = R"("currentlyRunning":false,"suspended":false,"hasTimer":false,"timerRunning":false)";
const std::string kNoDelays = R"("lastSchedulingLatency":0.0,"schedulingLatencyHighWaterMark":0.0,)"
                              R"("qv200":0,"qv500":0,"maxMs":0)";

}  // namespace

TEST(SnapshotDocument, GoldenFromRecords) {
  Tolan::ConstStringCache cache;  // outlives the records handed to the snapshots
  TaskSchedulerSnapshot::Contents group, c;
  group.schedulerName = "g";
  group.displayOrder = TaskMaybeU32(3);
  group.queueStats.emplace(P::high, Tolan::TaskSchedulerPriorityStats(P::high));
  c.schedulerName = "main";
  c.isRootScheduler = true;
  c.queueStats.emplace(P::normal, Tolan::TaskSchedulerPriorityStats(P::normal, 1, 2, 3, 4000000000000));
  c.queueStats.emplace(P::scavenge, Tolan::TaskSchedulerPriorityStats(P::scavenge, 0, 1, 0, 7));
  c.maxSchedulerSlip = 250ms;
  c.tasks = {statRecord(cache, "plain", 4, P::normal, 3, 500ms, 125ms, 250ms, 2900us, TaskStat::TaskStatus::kOnRunQueue),
             statRecord(cache, "TaskGroup;g", 9, P::high, 0, 0ns, 0ns, 0ns, 0ns, TaskStat::TaskStatus::kIsTaskGroup),
             TaskStat(cache.intern("wo\"rk\\\x01"), Tolan::TaskKey(5), P::low, 1, 1500ms, (uint64_t(1) << 32) + 5,
                      2.5f, TaskMaybeU32(7), 3, TaskMaybeU32(9), 0, 0, 0ns, 0ns, 0ns,
                      TaskStat::TaskStatus(TaskStat::TaskStatus::kSuspended))};
  c.tasks[0].taskQuantumViolation200Inc(2);
  c.tasks[0].taskQuantumViolation500Inc(1);
  c.skipped = 2;
  c.completedTasks = {statRecord(cache, "old", 3, P::scavenge, 4, 2s)};
  c.completedTasks[0].taskCompletedCountIs(2);
  c.subSchedulers.push_back({"TaskGroup;g@9", TaskSchedulerSnapshot("unused", std::move(group))});
  auto history = std::make_shared<TaskSchedulerSnapshot::History>();
  history->historyEntryCount = 100;
  history->events = {{1000, Tolan::TaskSchedulerEventType::runStart, "plain"},
                     {500, Tolan::TaskSchedulerEventType::schedulerIdle, ""}};
  c.history = history;
  const TaskSchedulerSnapshot snapshot("main", std::move(c));
  EXPECT_EQ(cache.size(), 0u) << "the snapshot holds its names in its own cache";

  const std::string expected =
      R"({"schedulers":{"main":{"schedulerName":"main","isRootScheduler":true,"priorityStats":{)"
      R"("normal":{"runnableTasks":1,"idleTasks":2,"completedTasks":3,"totalRunCount":4000000000000},)"
      R"("scavenge":{"runnableTasks":0,"idleTasks":1,"completedTasks":0,"totalRunCount":7}},)"
      R"("maxSchedulerSlip":0.25,"tasks":{"tasks":[)"
      R"({"name":"wo\"rk\\\u0001","address":"@5","priority":"low","onRunQueue":false,"currentlyRunning":false,)"
      R"("suspended":true,"hasTimer":false,"timerRunning":false,"runCount":1,"totalRunTime":1.5,)" + kNoDelays +
      R"(,"workCount":{"total":5,"decayingAvg":2.5,"highwater":7},"workPending":{"pending":3,"highwater":9}},)"
      R"({"name":"plain","address":"@4","priority":"normal","onRunQueue":true,)" + kQuiet +
      R"(,"runCount":3,"totalRunTime":0.5,"lastSchedulingLatency":0.125,"schedulingLatencyHighWaterMark":0.25,)"
      R"("qv200":2,"qv500":1,"maxMs":2},)"
      R"({"name":"TaskGroup;g","address":"@9","priority":"high","subScheduler":"TaskGroup;g@9",)"
      R"("onRunQueue":false,)" + kQuiet + R"(,"runCount":0,"totalRunTime":0.0,)" + kNoDelays +
      R"(}],"skipped":2},"completedTasks":{"tasks":[{"name":"old","address":"@3","priority":"scavenge",)"
      R"("onRunQueue":false,)" + kQuiet + R"(,"runCount":4,"totalRunTime":2.0,)" + kNoDelays +
      R"(,"completedCount":2}],"skipped":0},"subSchedulers":{"TaskGroup;g@9":{"schedulerName":"g",)"
      R"("displayOrder":3,"isRootScheduler":false,"priorityStats":{"high":{"runnableTasks":0,"idleTasks":0,)"
      R"("completedTasks":0,"totalRunCount":0}},"maxSchedulerSlip":0.0,"tasks":{"tasks":[],"skipped":0},)"
      R"("subSchedulers":{}}},"history":{"historyEntryCount":100,"history":[{"nsSinceBoot":1000,)"
      R"("eventType":"run start","eventId":"plain"},{"nsSinceBoot":500,"eventType":"schedulerIdle"}]}}}})";
  const std::string doc = render({&snapshot});
  EXPECT_EQ(doc, expected);
  EXPECT_EQ(render({&snapshot}), doc) << "rendering leaves the snapshot as it was";
  EXPECT_THROWS_WITH(TaskSchedulerSnapshot::subSchedulerKey(snapshot.contents().tasks[0]), Tolan::RuntimeException,
                     "plain is not TaskGroup");
  EXPECT_VALID_DOCUMENTS({doc});
}

// An empty live scheduler lists every priority; an empty document; closing
// twice. (Several snapshots in one document, closed by destruction, are the
// asynchronous output's expected text.)
TEST(SnapshotDocument, EmptySchedulerAndFrame) {
  const auto root = Tolan::TaskSchedulerRootIs("empty");
  std::string zeros;
  for (const char* p : {"absolute", "high", "normal", "low", "scavenge"})
    zeros += std::string(zeros.empty() ? "\"" : ",\"") + p +
             R"(":{"runnableTasks":0,"idleTasks":0,"completedTasks":0,"totalRunCount":0})";
  const std::string doc = render({root->snapshot(false, true, true, ~0u, false).get()});
  EXPECT_EQ(doc, R"({"schedulers":{"empty":{"schedulerName":"empty","isRootScheduler":true,"priorityStats":{)" + zeros +
                     R"(},"maxSchedulerSlip":0.0,"tasks":{"tasks":[],"skipped":0},"subSchedulers":{}}}})");
  std::ostringstream out;
  Tolan::TaskSchedulerPrintContext closed(out);
  closed.closeJson();
  EXPECT_ASSERTS(closed.closeJson(), "JSON already closed");
  EXPECT_EQ(render({}), R"({"schedulers":{}})");
  EXPECT_VALID_DOCUMENTS({doc, render({})});
}

TEST_F(Snapshot, CopiesTheLiveSchedulerAsAsked) {
  auto busy = task(P::normal, "busy", [](Probe& self) {
    if (self.taskRunCount() < 3) self.scheduleTask();
  });
  auto idle = task(P::low, "idle"), done = task(P::high, "done");
  busy->scheduleTask();
  done->scheduleTask();
  drain();
  done.reset();
  const auto& liveNames = root->history().stringCache();
  const uint32_t busyRefs = liveNames.refCount("busy");
  const auto ran = root->snapshot(false, true, true);
  EXPECT_EQ(liveNames.refCount("busy"), busyRefs) << "a snapshot holds no reference into the scheduler";
  const auto& c = ran->contents();
  EXPECT_TRUE(c.isRootScheduler);
  EXPECT_EQ(names(c.tasks), std::vector<std::string>{"busy"});
  EXPECT_EQ(c.skipped, 1u);
  EXPECT_EQ(names(c.completedTasks), std::vector<std::string>{"done"});
  EXPECT_EQ(c.queueStats.at(P::high).completedTasks, 1u);
  ASSERT_TRUE(c.history);
  ASSERT_EQ(c.history->events.size(), root->history().size());
  EXPECT_EQ(c.history->events[0].eventId, root->history().events()[0].name.str());

  const auto limitedSnapshot = root->snapshot(true, false, true, 1, false);
  const auto& limited = limitedSnapshot->contents();
  EXPECT_EQ(names(limited.tasks), std::vector<std::string>{"busy"}) << "the longest-running is kept";
  EXPECT_EQ(limited.skipped, 1u);
  EXPECT_TRUE(limited.completedTasks.empty());
  EXPECT_FALSE(limited.history);

  const std::string doc = root->statsRenderJsonToString(true, true, true);
  EXPECT_THAT(doc, HasSubstr(R"({"name":"busy","address":")" + busy->taskKey().toStrep() +
                             R"(","priority":"normal","onRunQueue":false,)" + kQuiet + R"(,"runCount":3,)"));
  EXPECT_THAT(doc, HasSubstr(R"(,"runCount":0,"totalRunTime":0.0,)" + kNoDelays + "}"));
  EXPECT_THAT(doc, HasSubstr(R"(,"history":{"historyEntryCount":100,"history":[{"nsSinceBoot":)"));
  EXPECT_VALID_DOCUMENTS({doc, root->statsRenderJsonToString(false, false, false)});
}

// Task groups appear under the scheduler their parent task runs on, in the
// order they were made, each joined to its parent task's record by key.
TEST_F(Snapshot, TaskGroupsAreSubSchedulersInTheOrderMade) {
  const auto a = Tolan::TaskGroupIs("a", P::normal, root), b = Tolan::TaskGroupIs("b", P::low, root);
  const auto inner = Tolan::TaskGroupIs("inner", P::normal, a);
  const auto work = std::make_shared<Probe>(inner, P::normal, "work", &log);
  work->scheduleTask();
  drain();
  const auto snap = root->snapshot(true, false, true, ~0u, false);
  const auto& subs = snap->contents().subSchedulers;
  ASSERT_EQ(subs.size(), 2u);
  std::vector<std::string> keys;
  for (const auto& record : snap->contents().tasks)
    if (record.taskStatus().taskIsTaskGroup()) keys.push_back(TaskSchedulerSnapshot::subSchedulerKey(record));
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<std::string>{subs[0].key, subs[1].key}));
  EXPECT_THAT(subs[0].key, StartsWith("TaskGroup;a@"));
  for (unsigned i = 0; i < 2; ++i) {
    EXPECT_EQ(subs[i].snapshot.contents().displayOrder.raw(), i);
    EXPECT_FALSE(subs[i].snapshot.contents().isRootScheduler);
  }
  const auto& nested = subs[0].snapshot.contents().subSchedulers;
  ASSERT_EQ(nested.size(), 1u);
  EXPECT_EQ(nested[0].snapshot.contents().schedulerName, "inner");
  EXPECT_EQ(names(nested[0].snapshot.contents().tasks), std::vector<std::string>{"work"});
  EXPECT_TRUE(root->snapshot(true, false, false)->contents().subSchedulers.empty());
  const std::string doc = render({snap.get()});
  EXPECT_THAT(doc, HasSubstr(R"("subSchedulers":{")" + subs[0].key + R"(":{"schedulerName":"a","displayOrder":0,)"));
  EXPECT_VALID_DOCUMENTS({doc});
}

// Snapshots taken on the scheduler's thread, rendered and dropped on another
// one while tasks of the same name come and go (the ThreadSanitizer case).
TEST_F(Snapshot, RendersOnAnotherThreadWhileTheSchedulerRuns) {
  std::mutex mutex;
  std::shared_ptr<const TaskSchedulerSnapshot> slot;
  std::atomic<bool> stop{false};
  std::atomic<unsigned> rendered{0};
  std::string last;
  std::thread renderer([&] {
    while (!stop) {
      std::unique_lock<std::mutex> lock(mutex);
      auto snap = std::move(slot);
      lock.unlock();
      if (snap) last = render({snap.get()}), ++rendered;
    }
  });
  for (int i = 0; i < 300 || rendered < 10; ++i) {
    auto churn = task(P::normal, "churn");
    churn->scheduleTask();
    drain();
    auto snap = root->snapshot(true, true, true);
    churn.reset();
    std::lock_guard<std::mutex> lock(mutex);
    slot = std::move(snap);
  }
  stop = true;
  renderer.join();
  EXPECT_THAT(last, HasSubstr(R"("completedTasks":{"tasks":[{"name":"churn")"));
  EXPECT_VALID_DOCUMENTS({last});
}
