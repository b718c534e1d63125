#include "Tolan/TaskSchedulerSnapshot.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <cstring>
#include <sstream>

#include "Tolan/Exception.h"
#include "Tolan/Impl/JsonWriter.h"
#include "Tolan/TaskGroup.h"
#include "Tolan/TaskScheduler.h"
#include "Tolan/TaskSchedulerPrintContext.h"

// Why the snapshot interns names again: a TaskStat copied from a task holds
// a ConstStringRef into the scheduler's history cache, whose counts are plain
// integers. Were a snapshot to keep those references, every copy, sort or
// destruction on a rendering thread would race with the scheduler thread's
// own counting. The snapshot therefore moves each record's name into a cache
// of its own while it is still on the scheduler's thread; afterwards nothing
// in it is shared. The scheduler's hot path is untouched: the extra cost (one
// hash lookup per record, one allocation per distinct name) is paid by the
// snapshot.
//
// Task groups: each group whose parent task runs on the snapshot's scheduler
// is listed under "subSchedulers", keyed by subSchedulerKey() of its parent
// task's record, in the order the groups were made (their parent tasks'
// keys), and numbered in that order by "displayOrder": a JSON object's
// member order is lost by many readers, so the number keeps it for them.

namespace Tolan {

using Impl::JsonWriter;

namespace {

double seconds(TaskTimeDuration d) { return static_cast<double>(d.count()) / 1e9; }

void writeString(JsonWriter& w, const std::string& s) {
  w.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
}

template <size_t N>
void literalKey(JsonWriter& w, const char (&literal)[N]) {
  w.literalKey(literal);
}

void writeKey(JsonWriter& w, const std::string& s) {
  w.Key(s.data(), static_cast<rapidjson::SizeType>(s.size()));
}

template <size_t N>
void writeKeyString(JsonWriter& w, const char (&literal)[N], const std::string& value) {
  literalKey(w, literal);
  writeString(w, value);
}

bool longerRun(const TaskStat* a, const TaskStat* b) { return a->taskTotalRunTime() > b->taskTotalRunTime(); }

void renderTask(JsonWriter& w, const TaskStat& stat, bool completed) {
  const TaskStat::TaskStatus status = stat.taskStatus();
  w.StartObject();
  writeKeyString(w, "name", stat.taskName());
  // TaskKey::toStrep() without its allocation and format parsing.
  const fmt::format_int number(stat.taskKey().value());
  char address[16] = {'@'};
  std::copy(number.data(), number.data() + number.size(), address + 1);
  literalKey(w, "address");
  w.plainString(address, number.size() + 1);
  literalKey(w, "priority");
  const char* priority = stat.taskPriority().toStrep();
  w.plainString(priority, std::strlen(priority));
  if (status.taskIsTaskGroup()) writeKeyString(w, "subScheduler", TaskSchedulerSnapshot::subSchedulerKey(stat));
  w.literalBool("onRunQueue", status.taskOnRunQueue());
  w.literalBool("currentlyRunning", status.taskCurrentlyRunning());
  w.literalBool("suspended", status.taskSuspended());
  w.literalBool("hasTimer", status.taskTimer());
  w.literalBool("timerRunning", status.taskTimerRunning());
  literalKey(w, "runCount");
  w.Uint(stat.taskRunCount());
  literalKey(w, "totalRunTime");
  w.Double(seconds(stat.taskTotalRunTime()));
  literalKey(w, "lastSchedulingLatency");
  w.Double(seconds(stat.taskLastSchedulingLatency()));
  literalKey(w, "schedulingLatencyHighWaterMark");
  w.Double(seconds(stat.taskSchedulingLatencyHighWaterMark()));
  literalKey(w, "qv200");
  w.Uint(stat.taskQuantumViolation200());
  literalKey(w, "qv500");
  w.Uint(stat.taskQuantumViolation500());
  // Whole milliseconds, the fraction dropped (a negative mark cannot occur).
  literalKey(w, "maxMs");
  w.Uint(static_cast<unsigned>(std::max<int64_t>(0, stat.taskRunTimeHighWaterMark().count()) / 1000000));
  if (completed) {
    literalKey(w, "completedCount");
    w.Uint(stat.taskCompletedCount());
  }
  if (stat.taskWorkCountHighWater().hasValue()) {
    literalKey(w, "workCount");
    w.StartObject();
    // The format carries the counter modulo 2^32, on purpose.
    literalKey(w, "total");
    w.Uint(static_cast<uint32_t>(stat.taskWorkCountTotal()));
    literalKey(w, "decayingAvg");
    w.Double(stat.taskWorkCountDecayingAverage());
    literalKey(w, "highwater");
    w.Uint(stat.taskWorkCountHighWater().raw());
    w.EndObject();
  }
  if (stat.taskWorkPendingHighWater().hasValue()) {
    literalKey(w, "workPending");
    w.StartObject();
    literalKey(w, "pending");
    w.Uint(stat.taskWorkPending());
    literalKey(w, "highwater");
    w.Uint(stat.taskWorkPendingHighWater().raw());
    w.EndObject();
  }
  w.EndObject();
}

}  // namespace

// ---- History ----

std::shared_ptr<const TaskSchedulerSnapshot::History> TaskSchedulerSnapshot::History::copyOf(
    const TaskSchedulerHistory& history) {
  auto copy = std::make_shared<History>();
  copy->historyEntryCount = history.historyEntryCount();
  copy->events.reserve(history.size());
  for (const auto& event : history.events())
    copy->events.push_back(Event{event.time.time_since_epoch().count(), event.eventType, event.name.str()});
  return copy;
}

// ---- the snapshot ----

TaskSchedulerSnapshot::TaskSchedulerSnapshot(const TaskScheduler* scheduler, std::string key, bool includeNeverRan,
                                             bool includeCompleted, bool includeSubSchedulers, unsigned limit,
                                             bool withHistory)
    : key_(std::move(key)), names_(std::make_unique<ConstStringCache>()) {
  TaskSchedulerRoot* root = scheduler->root();
  root->sanityCheckCurrentRunningThread();
  Contents& c = contents_;
  c.schedulerName = scheduler->schedulerName();
  c.isRootScheduler = static_cast<const TaskScheduler*>(root) == scheduler;
  c.queueStats = scheduler->queueStats();
  c.maxSchedulerSlip = scheduler->maxSchedulerLatency();
  c.skipped = scheduler->getTaskStats(&c.tasks, includeNeverRan);
  if (c.tasks.size() > limit) {
    // Keep the records a reader looks at first: the longest-running ones.
    std::nth_element(c.tasks.begin(), c.tasks.begin() + limit, c.tasks.end(),
                     [](const TaskStat& a, const TaskStat& b) { return longerRun(&a, &b); });
    c.skipped += static_cast<unsigned>(c.tasks.size() - limit);
    c.tasks.erase(c.tasks.begin() + limit, c.tasks.end());
  }
  if (includeCompleted) c.completedSkipped = scheduler->getCompletedTaskStats(&c.completedTasks, includeNeverRan);
  if (withHistory && c.isRootScheduler) c.history = History::copyOf(scheduler->history());
  if (includeSubSchedulers) {
    std::vector<const TaskGroup*> groups;
    for (const TaskScheduler* s : root->registeredSchedulers()) {
      const auto* group = dynamic_cast<const TaskGroup*>(s);
      if (group && group->parentTask() && group->parentTask()->scheduler() == scheduler) groups.push_back(group);
    }
    std::sort(groups.begin(), groups.end(), [](const TaskGroup* a, const TaskGroup* b) {
      return a->parentTask()->taskKey().value() < b->parentTask()->taskKey().value();
    });
    c.subSchedulers.reserve(groups.size());
    for (const TaskGroup* group : groups) {
      const TaskImpl* parent = group->parentTask();
      std::string subKey = parent->taskName() + parent->taskKey().toStrep();
      c.subSchedulers.push_back(SubScheduler{
          subKey, TaskSchedulerSnapshot(group, subKey, includeNeverRan, includeCompleted, true, limit, false)});
      c.subSchedulers.back().snapshot.contents_.displayOrder =
          TaskMaybeU32(static_cast<uint32_t>(c.subSchedulers.size() - 1));
    }
  }
  internNames();
}

TaskSchedulerSnapshot::TaskSchedulerSnapshot(std::string key, Contents contents)
    : key_(std::move(key)), names_(std::make_unique<ConstStringCache>()), contents_(std::move(contents)) {
  internNames();
}

TaskSchedulerSnapshot::TaskSchedulerSnapshot(TaskSchedulerSnapshot&&) noexcept = default;
TaskSchedulerSnapshot::~TaskSchedulerSnapshot() = default;

void TaskSchedulerSnapshot::internNames() {
  names_->reserve(contents_.tasks.size() + contents_.completedTasks.size());
  for (auto* records : {&contents_.tasks, &contents_.completedTasks})
    for (TaskStat& stat : *records)
      if (!stat.taskNameRef().empty()) stat.taskNameIs(names_->intern(stat.taskName()));
}

std::string TaskSchedulerSnapshot::subSchedulerKey(const TaskStat& stat) {
  if (!stat.taskStatus().taskIsTaskGroup())
    RuntimeException::throwException(fmt::format("{} is not TaskGroup", stat.taskName()));
  return stat.taskName() + stat.taskKey().toStrep();
}

// ---- rendering, in pieces ----

// A document is rendered as a flat list of steps, each writing one piece:
// a scheduler object's head, one task object, one history event, a closing
// bracket. The synchronous renderers run all steps at once; the
// asynchronous writer runs as many as its quantum allows per task run, so a
// snapshot of any size never holds the thread for long. One list, one
// layout: both paths write the same bytes.
struct TaskSchedulerSnapshot::Rendering::Step {
  enum Kind : uint8_t { kOpen, kListOpen, kTask, kListClose, kSubsOpen, kSubKey, kSubsClose, kHistoryOpen, kEvent,
                        kHistoryClose, kClose };
  Kind kind;
  bool flag;         // kOpen: with the key; kListOpen/kTask: completed records
  unsigned n;        // kListClose: skipped
  const void* what;  // the snapshot, record, history, event, sub-scheduler or label
};

TaskSchedulerSnapshot::Rendering::Rendering() = default;
TaskSchedulerSnapshot::Rendering::Rendering(Rendering&&) noexcept = default;
TaskSchedulerSnapshot::Rendering& TaskSchedulerSnapshot::Rendering::operator=(Rendering&&) noexcept = default;
TaskSchedulerSnapshot::Rendering::~Rendering() = default;
bool TaskSchedulerSnapshot::Rendering::done() const noexcept { return next_ == steps_.size(); }

TaskSchedulerSnapshot::Rendering TaskSchedulerSnapshot::rendering(bool withKey) const {
  Rendering r;
  r.addSnapshot(*this, withKey);
  return r;
}

void TaskSchedulerSnapshot::Rendering::addSnapshot(const TaskSchedulerSnapshot& s, bool withKey) {
  const Contents& c = s.contents_;
  steps_.push_back({Step::kOpen, withKey, 0, &s});
  addTasks(c.tasks, "tasks", c.skipped, false);
  if (!c.completedTasks.empty()) addTasks(c.completedTasks, "completedTasks", c.completedSkipped, true);
  steps_.push_back({Step::kSubsOpen, false, 0, nullptr});
  for (const SubScheduler& sub : c.subSchedulers) {
    steps_.push_back({Step::kSubKey, false, 0, &sub});
    addSnapshot(sub.snapshot, false);
  }
  steps_.push_back({Step::kSubsClose, false, 0, nullptr});
  if (c.history) addHistory(*c.history);
  steps_.push_back({Step::kClose, false, 0, nullptr});
}

void TaskSchedulerSnapshot::Rendering::addTasks(const std::vector<TaskStat>& tasks, const std::string& label,
                                                unsigned skipped, bool completed) {
  labels_.push_back(std::make_unique<std::string>(label));
  steps_.push_back({Step::kListOpen, completed, 0, labels_.back().get()});
  // Longest first, equal times in record order. Sorted by a copy of the key
  // next to the pointer: comparing through the pointers would miss the cache
  // on every step of the sort.
  std::vector<std::pair<TaskTimeDuration, const TaskStat*>> order;
  order.reserve(tasks.size());
  for (const TaskStat& stat : tasks) order.emplace_back(stat.taskTotalRunTime(), &stat);
  std::sort(order.begin(), order.end(),
            [](const auto& a, const auto& b) { return a.first != b.first ? a.first > b.first : a.second < b.second; });
  for (const auto& entry : order) steps_.push_back({Step::kTask, completed, 0, entry.second});
  steps_.push_back({Step::kListClose, false, skipped, nullptr});
}

void TaskSchedulerSnapshot::Rendering::addHistory(const History& history) {
  steps_.push_back({Step::kHistoryOpen, false, 0, &history});
  for (const History::Event& event : history.events) steps_.push_back({Step::kEvent, false, 0, &event});
  steps_.push_back({Step::kHistoryClose, false, 0, nullptr});
}

bool TaskSchedulerSnapshot::Rendering::renderSome(TaskSchedulerPrintContext& context,
                                                  const std::function<bool()>& shouldYield) {
  // Asking costs a clock read: ask once per batch of small pieces.
  constexpr size_t kBatch = 32;
  while (next_ < steps_.size()) {
    const size_t end = shouldYield ? std::min(steps_.size(), next_ + kBatch) : steps_.size();
    for (; next_ < end; ++next_) renderStep(context.writer(), steps_[next_]);
    if (next_ < steps_.size() && shouldYield && shouldYield()) return false;
  }
  return true;
}

void TaskSchedulerSnapshot::Rendering::renderStep(JsonWriter& w, const Step& step) {
  switch (step.kind) {
    case Step::kOpen: {
      const auto& s = *static_cast<const TaskSchedulerSnapshot*>(step.what);
      const Contents& c = s.contents_;
      if (step.flag) writeKey(w, s.key_);
      w.StartObject();
      writeKeyString(w, "schedulerName", c.schedulerName);
      if (c.displayOrder.hasValue()) {
        literalKey(w, "displayOrder");
        w.Uint(c.displayOrder.raw());
      }
      w.literalBool("isRootScheduler", c.isRootScheduler);
      literalKey(w, "priorityStats");
      w.StartObject();
      for (const auto& entry : c.queueStats) {
        const TaskSchedulerPriorityStats& p = entry.second;
        w.Key(entry.first.toStrep());
        w.StartObject();
        literalKey(w, "runnableTasks");
        w.Uint(p.runnableTasks);
        literalKey(w, "idleTasks");
        w.Uint(p.idleTasks);
        literalKey(w, "completedTasks");
        w.Uint(p.completedTasks);
        literalKey(w, "totalRunCount");
        w.Uint64(p.totalRunCount);
        w.EndObject();
      }
      w.EndObject();
      literalKey(w, "maxSchedulerSlip");
      w.Double(seconds(c.maxSchedulerSlip));
      return;
    }
    case Step::kListOpen:
      writeKey(w, *static_cast<const std::string*>(step.what));
      w.StartObject();
      literalKey(w, "tasks");
      w.StartArray();
      return;
    case Step::kTask:
      return renderTask(w, *static_cast<const TaskStat*>(step.what), step.flag);
    case Step::kListClose:
      w.EndArray();
      literalKey(w, "skipped");
      w.Uint(step.n);
      w.EndObject();
      return;
    case Step::kSubsOpen:
      literalKey(w, "subSchedulers");
      w.StartObject();
      return;
    case Step::kSubKey:
      return writeKey(w, static_cast<const SubScheduler*>(step.what)->key);
    case Step::kHistoryOpen:
      literalKey(w, "history");
      w.StartObject();
      literalKey(w, "historyEntryCount");
      w.Uint(static_cast<const History*>(step.what)->historyEntryCount);
      literalKey(w, "history");
      w.StartArray();
      return;
    case Step::kEvent: {
      const auto& event = *static_cast<const History::Event*>(step.what);
      w.StartObject();
      literalKey(w, "nsSinceBoot");
      w.Uint64(static_cast<uint64_t>(event.nsSinceBoot));
      literalKey(w, "eventType");
      w.String(TaskSchedulerHistory::Event{event.eventType, {}, {}}.eventTypeDisplay());
      if (!event.eventId.empty()) writeKeyString(w, "eventId", event.eventId);
      w.EndObject();
      return;
    }
    case Step::kHistoryClose:
      w.EndArray();
      w.EndObject();
      return;
    case Step::kSubsClose:
    case Step::kClose:
      w.EndObject();
      return;
  }
}

void TaskSchedulerSnapshot::History::renderJson(TaskSchedulerPrintContext& context) const {
  Rendering r;
  r.addHistory(*this);
  r.renderSome(context, {});
}

void TaskSchedulerSnapshot::renderJson(TaskSchedulerPrintContext& context) const {
  rendering(true).renderSome(context, {});
}

void TaskSchedulerSnapshot::renderJsonImpl(TaskSchedulerPrintContext& context) const {
  rendering(false).renderSome(context, {});
}

void TaskSchedulerSnapshot::renderJsonTasks(TaskSchedulerPrintContext& context, const std::vector<TaskStat>& tasks,
                                            const std::string& label, unsigned skipped, bool completed) {
  Rendering r;
  r.addTasks(tasks, label, skipped, completed);
  r.renderSome(context, {});
}

// ---- the scheduler's entry points ----

std::shared_ptr<const TaskSchedulerSnapshot> TaskScheduler::snapshot(bool includeNeverRan, bool includeCompleted,
                                                                     bool includeSubSchedulers, unsigned limit,
                                                                     bool withHistory) const {
  return std::make_shared<const TaskSchedulerSnapshot>(this, schedulerName(), includeNeverRan, includeCompleted,
                                                       includeSubSchedulers, limit, withHistory);
}

std::unique_ptr<TaskSchedulerPrintContext> TaskScheduler::PrintContextIs(std::ostream& out) {
  return std::make_unique<TaskSchedulerPrintContext>(out);
}

std::unique_ptr<TaskSchedulerPrintContext> TaskScheduler::PrintContextIs(int fd, bool throwOnError) {
  return std::make_unique<TaskSchedulerPrintContext>(fd, throwOnError);
}

void TaskScheduler::statsRenderJson(std::ostream& out, bool includeNeverRan, bool includeCompleted,
                                    bool includeSubSchedulers) const {
  const auto snap = snapshot(includeNeverRan, includeCompleted, includeSubSchedulers);
  TaskSchedulerPrintContext context(out);
  snap->renderJson(context);
  context.closeJson();
}

std::string TaskScheduler::statsRenderJsonToString(bool includeNeverRan, bool includeCompleted,
                                                   bool includeSubSchedulers) const {
  std::ostringstream out;
  statsRenderJson(out, includeNeverRan, includeCompleted, includeSubSchedulers);
  return std::move(out).str();
}

void TaskScheduler::statsRenderJsonToBlockingFdForTest(int fd, bool includeNeverRan, bool includeCompleted,
                                                       bool includeSubSchedulers) const {
  const auto snap = snapshot(includeNeverRan, includeCompleted, includeSubSchedulers);
  TaskSchedulerPrintContext context(fd, false);
  snap->renderJson(context);
  context.closeJson();
}

}  // namespace Tolan
