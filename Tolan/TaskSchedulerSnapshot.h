// TaskSchedulerSnapshot.h - a scheduler's state and statistics, copied out
// for rendering as the JSON introspection document.
//
// Take a snapshot on the scheduler's thread (TaskScheduler::snapshot), then
// render it as often and wherever you like: it is immutable, shared through
// a pointer to const, and holds nothing of the live scheduler. Task names are
// interned again in a string cache of the snapshot's own, so no reference
// count of the scheduler's names is touched by another thread, and the
// scheduler's hot path pays nothing for it.
//
//   auto snap = root->snapshot(true, true, true);
//   std::thread([snap] {
//     Tolan::TaskSchedulerPrintContext context(std::cout);
//     snap->renderJson(context);
//   }).join();
//
// The document, with no whitespace:
//   {"schedulers":{"<key>":{"schedulerName":..., ["displayOrder":n,]
//     "isRootScheduler":b, "priorityStats":{"<priority>":{"runnableTasks":n,
//     "idleTasks":n,"completedTasks":n,"totalRunCount":n},...},
//     "maxSchedulerSlip":seconds, "tasks":{"tasks":[task...],"skipped":n},
//     ["completedTasks":{"tasks":[task...],"skipped":n},]
//     "subSchedulers":{"<key>":{scheduler object},...}, ["history":{...}]}}}
// Task objects list "name", "address" ("@<key>"), "priority",
// ["subScheduler"], "onRunQueue", "currentlyRunning", "suspended", "hasTimer",
// "timerRunning", "runCount", "totalRunTime", "lastSchedulingLatency",
// "schedulingLatencyHighWaterMark" (seconds), "qv200", "qv500", "maxMs"
// (whole milliseconds), ["completedCount"], ["workCount":{"total" (low 32
// bits),"decayingAvg","highwater"}], ["workPending":{"pending","highwater"}],
// sorted by total run time, largest first. schema/TaskSchedulerSnapshot.schema.json
// (installed under share/Tolan/schema) is the checkable contract.
//
// Costs: a snapshot copies one TaskStat per task (about 100 bytes) and
// interns each distinct name once; rendering writes about 450 bytes per task.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Tolan/Common.h"
#include "Tolan/ConstStringCache.h"
#include "Tolan/TaskSchedulerHistory.h"
#include "Tolan/TaskStat.h"
#include "Tolan/TaskTypes.h"

namespace Tolan {

class TaskScheduler;
class TaskSchedulerPrintContext;
namespace Impl {
class JsonWriter;
}

class TOLAN_EXPORT TaskSchedulerSnapshot {
 public:
  // A copy of a root's history: its capacity and its events, newest first,
  // with the names as plain strings.
  struct TOLAN_EXPORT History {
    struct Event {
      int64_t nsSinceBoot = 0;
      TaskSchedulerEventType eventType = TaskSchedulerEventType::schedule;
      std::string eventId;  // empty: no "eventId" member
    };
    unsigned historyEntryCount = 0;
    std::vector<Event> events;

    static std::shared_ptr<const History> copyOf(const TaskSchedulerHistory& history);
    // "history":{"historyEntryCount":n,"history":[{"nsSinceBoot":n,
    // "eventType":"...","eventId":"..."},...]}
    void renderJson(TaskSchedulerPrintContext& context) const;
  };

  struct SubScheduler;

  // Everything a snapshot holds besides its key; the records' names may come
  // from any cache (the snapshot interns them again in its own).
  struct Contents {
    std::string schedulerName;
    TaskMaybeU32 displayOrder = TaskMaybeU32::none();
    bool isRootScheduler = false;
    TaskSchedulerQueueStats queueStats;
    TaskTimeDuration maxSchedulerSlip{0};
    std::vector<TaskStat> tasks;
    unsigned skipped = 0;
    std::vector<TaskStat> completedTasks;
    unsigned completedSkipped = 0;
    std::vector<SubScheduler> subSchedulers;  // rendered in this order
    std::shared_ptr<const History> history;   // only a root's, and only when asked for
  };

  // Copies `scheduler`, on its thread (checked), to be listed under `key`.
  //  includeNeverRan: records of tasks that never ran too; otherwise they
  //    are only counted in "skipped".
  //  includeCompleted: the completed-task records ("completedTasks").
  //  includeSubSchedulers: a snapshot of each task group whose parent task
  //    runs on the scheduler (and of theirs, recursively), with the same
  //    flags, numbered by "displayOrder" in the order the groups were made.
  //  limit: at most this many live records (those with the largest total run
  //    time); the rest add to "skipped". ~0u: no limit.
  //  withHistory: a root's history ("history"); ignored for other
  //    schedulers and for sub-snapshots.
  TaskSchedulerSnapshot(const TaskScheduler* scheduler, std::string key, bool includeNeverRan,
                        bool includeCompleted, bool includeSubSchedulers, unsigned limit, bool withHistory);
  // A snapshot made of parts: for tests and for tools that assemble documents.
  TaskSchedulerSnapshot(std::string key, Contents contents);
  TaskSchedulerSnapshot(TaskSchedulerSnapshot&&) noexcept;
  // Not assignable: the records must go before the cache their names live in.
  TaskSchedulerSnapshot& operator=(TaskSchedulerSnapshot&&) = delete;
  ~TaskSchedulerSnapshot();

  const std::string& key() const noexcept { return key_; }
  // The records' names live in the snapshot's cache: a copied record must
  // not outlive the snapshot.
  const Contents& contents() const noexcept { return contents_; }

  // Adds this snapshot to the document: its key, then renderJsonImpl().
  void renderJson(TaskSchedulerPrintContext& context) const;
  // The scheduler object.
  void renderJsonImpl(TaskSchedulerPrintContext& context) const;
  // `label`, then {"tasks":[...],"skipped":skipped}; the records sorted by
  // total run time, largest first. `completed` adds "completedCount".
  static void renderJsonTasks(TaskSchedulerPrintContext& context, const std::vector<TaskStat>& tasks,
                              const std::string& label, unsigned skipped, bool completed);
  // A rendering of this snapshot that can be done in pieces: the
  // asynchronous writer renders as much per task run as its quantum allows.
  // renderSome() writes pieces until all are written (true) or until
  // `shouldYield` (asked now and then; empty: never) answers true (false:
  // call again with the same context). The snapshot must outlive it.
  class TOLAN_EXPORT Rendering {
   public:
    Rendering();
    Rendering(Rendering&&) noexcept;
    Rendering& operator=(Rendering&&) noexcept;
    ~Rendering();
    bool renderSome(TaskSchedulerPrintContext& context, const std::function<bool()>& shouldYield);
    bool done() const noexcept;

   private:
    friend class TaskSchedulerSnapshot;
    struct Step;
    void addSnapshot(const TaskSchedulerSnapshot& s, bool withKey);
    void addTasks(const std::vector<TaskStat>& tasks, const std::string& label, unsigned skipped, bool completed);
    void addHistory(const History& history);
    static void renderStep(Impl::JsonWriter& w, const Step& step);

    std::vector<Step> steps_;
    std::vector<std::unique_ptr<std::string>> labels_;
    size_t next_ = 0;
  };
  // With the key (as renderJson) or without (as renderJsonImpl).
  Rendering rendering(bool withKey) const;

  // The key of a task group's sub-scheduler: the record's name followed by
  // its key ("TaskGroup;io@7"). A record that is not a task group throws
  // Tolan::RuntimeException("<name> is not TaskGroup").
  static std::string subSchedulerKey(const TaskStat& stat);

 private:
  void internNames();

  std::string key_;
  // Declared before the records so that it outlives them; on the heap so
  // that a moved snapshot's names still point at it.
  std::unique_ptr<ConstStringCache> names_;
  Contents contents_;
};

struct TaskSchedulerSnapshot::SubScheduler {
  std::string key;  // subSchedulerKey() of the group's task
  TaskSchedulerSnapshot snapshot;
};

}  // namespace Tolan
