#include "Tolan/TaskStatReport.h"

#include <unistd.h>

#include <algorithm>
#include <boost/format.hpp>
#include <iostream>
#include <sstream>

#include "Tolan/FdToStream.h"
#include "Tolan/TaskScheduler.h"

namespace Tolan {

namespace {

double seconds(TaskTimeDuration d) { return static_cast<double>(d.count()) / 1e9; }

// Left column, text. The "%" of the first text is an argument, not part of a
// format, so it prints as it is.
struct LegendRow {
  const char* left;
  const char* text;
};
constexpr LegendRow kLegendHead[] = {
    {"SP", "= Task status and priority % two characters:"},
    {"   first", "  T/t for active/idle timers, * for running task or blank"},
    {"   second", "  priority and runnable status, upper case for runnable"},
    {"RunCount", "= Number of times task has run"},
    {"TotalSec", "= Total run time in seconds"},
    {"LastDelay", "= Scheduling delay last time task ran, in seconds"},
    {"MaxDelay", "= Maximum scheduling delay encountered, in seconds"},
    {"200% 500%", "= Number of times task used this percentage of quantum"},
    {"MaxMs", "= Maximum single run time in milliseconds"},
};
constexpr LegendRow kLegendCompleted = {"Completed", "= Number of times a task with this name has completed"};
constexpr LegendRow kLegendWork[] = {
    {"TotalWorkCount", "= Counter of total work units processed"},
    {"DecayAvgWorkCount", "=    exponential decaying average of work units processed"},
    {"MaxWorkCount", "=    high watermark of work units processed in one run"},
    {"LastWorkPending", "= Work units pending processing"},
    {"MaxWorkPending", "=    high watermark of work units pending processing"},
};

void legendLine(std::ostream& out, const LegendRow& row) { out << boost::format("%-17s %s\n") % row.left % row.text; }

std::string displayName(const TaskStat& stat, bool showKeys) {
  return showKeys ? stat.taskName() + stat.taskKey().toStrep() : stat.taskName();
}

// A work field as text, or "-" when the task keeps no such counter.
template <typename T>
std::string workField(bool present, const char* format, T value) {
  return present ? (boost::format(format) % value).str() : std::string("-");
}

}  // namespace

void statsRenderTextTasks(std::ostream& out, std::vector<TaskStat>& tasks, const std::string& label,
                          unsigned skipped, bool completed, bool showKeys) {
  std::vector<const TaskStat*> order;
  order.reserve(tasks.size());
  for (const TaskStat& stat : tasks) order.push_back(&stat);
  std::sort(order.begin(), order.end(),
            [](const TaskStat* a, const TaskStat* b) { return a->taskTotalRunTime() > b->taskTotalRunTime(); });
  std::vector<std::string> names;
  names.reserve(order.size());
  size_t width = label.size();
  for (const TaskStat* stat : order) {
    names.push_back(displayName(*stat, showKeys));
    width = std::max(width, names.back().size());
  }
  const auto fill = [width](const std::string& s) { return std::string(width - s.size(), ' '); };

  if (completed) {
    out << boost::format("%s%s %2s %10s %13s %14s %4s %4s %5s %4s %26s %20s\n") % label % fill(label) % "SP" %
               "RunCount" % "TotalSec" % "Last/Max-Delay" % "200%" % "500%" % "MaxMs" % "Completed" %
               "Total/DecayA/Max-WorkCount" % "Last/Max-WorkPending";
  } else {
    out << boost::format("%s%s %2s %10s %13s %14s %4s %4s %5s %26s %20s\n") % label % fill(label) % "SP" %
               "RunCount" % "TotalSec" % "Last/Max-Delay" % "200%" % "500%" % "MaxMs" %
               "Total/DecayA/Max-WorkCount" % "Last/Max-WorkPending";
  }
  boost::format row(completed ? "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %4u %10s %8s %6s %9s %10s\n"
                              : "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %10s %8s %6s %9s %10s\n");
  for (size_t i = 0; i < order.size(); ++i) {
    const TaskStat& s = *order[i];
    const bool work = s.taskWorkCountHighWater().hasValue();
    const bool pending = s.taskWorkPendingHighWater().hasValue();
    row % names[i] % fill(names[i]) % s.taskStatusString() % s.taskRunCount() % seconds(s.taskTotalRunTime()) %
        seconds(s.taskLastSchedulingLatency()) % seconds(s.taskSchedulingLatencyHighWaterMark()) %
        s.taskQuantumViolation200() % s.taskQuantumViolation500() %
        static_cast<unsigned>(std::max<int64_t>(0, s.taskRunTimeHighWaterMark().count()) / 1000000);
    if (completed) row % s.taskCompletedCount();
    row % workField(work, "%llu", static_cast<unsigned long long>(s.taskWorkCountTotal())) %
        workField(work, "%6.1f", static_cast<double>(s.taskWorkCountDecayingAverage())) %
        workField(work, "%u", s.taskWorkCountHighWater().raw()) % workField(pending, "%u", s.taskWorkPending()) %
        workField(pending, "%u", s.taskWorkPendingHighWater().raw());
    out << row;
  }
  if (skipped != 0) out << boost::format("Skipped %u task%s with no runs\n") % skipped % (skipped >= 2 ? "s" : "");
}

void statsRenderTextImpl(std::ostream& out, const TaskSchedulerQueueStats& queueStats,
                         TaskTimeDuration maxSchedulerSlip, std::vector<TaskStat>* tasks, unsigned skipped,
                         std::vector<TaskStat>* completedTasks, unsigned completedSkipped, bool showKeys) {
  out << boost::format("%-8s %13s %13s %9s %15s\n") % "Priority" % "RunnableCount" % "IdleCount" % "DoneCount" %
             "TotalRunCount";
  out << std::string(62, '-') << '\n';
  for (unsigned n = 0; n <= TaskPriority::scavenge; ++n) {
    const TaskPriority p = TaskPriority::fromNumber(n);
    const auto it = queueStats.find(p);
    const TaskSchedulerPriorityStats stats = it != queueStats.end() ? it->second : TaskSchedulerPriorityStats(p);
    out << boost::format("%-8s %13u %13u %9u %15llu\n") % p.toStrep() % stats.runnableTasks % stats.idleTasks %
               stats.completedTasks % static_cast<unsigned long long>(stats.totalRunCount);
  }
  out << boost::format("Maximum scheduler slip %.6f seconds\n") % seconds(maxSchedulerSlip);
  out << '\n';
  for (const LegendRow& row : kLegendHead) legendLine(out, row);
  if (completedTasks) legendLine(out, kLegendCompleted);
  for (const LegendRow& row : kLegendWork) legendLine(out, row);
  out << '\n';
  statsRenderTextTasks(out, *tasks, "TaskName", skipped, false, showKeys);
  if (completedTasks) statsRenderTextTasks(out, *completedTasks, "TaskName (completed)", completedSkipped, true, showKeys);
}

// ---- the root's entry points ----

void TaskSchedulerRoot::statsRenderTextForDebug(std::ostream& out, bool includeNeverRan, bool includeCompleted,
                                                bool allSchedulers, bool showKeys) const {
  sanityCheckCurrentRunningThread();
  std::vector<const TaskScheduler*> schedulers{this};
  if (allSchedulers)
    for (const TaskScheduler* s : registeredSchedulers())
      if (s != this) schedulers.push_back(s);
  std::vector<TaskStat> tasks, completed;
  unsigned skipped = 0, completedSkipped = 0;
  TaskTimeDuration slip{0};
  for (const TaskScheduler* s : schedulers) {
    skipped += s->getTaskStats(&tasks, includeNeverRan);
    if (includeCompleted) completedSkipped += s->getCompletedTaskStats(&completed, includeNeverRan);
    slip = std::max(slip, s->maxSchedulerLatency());
  }
  statsRenderTextImpl(out, allSchedulers ? queueStatsRoot() : queueStats(), slip, &tasks, skipped,
                      includeCompleted ? &completed : nullptr, completedSkipped, showKeys);
}

void TaskSchedulerRoot::statsRenderTextForDebug(int fd, bool includeNeverRan, bool includeCompleted,
                                                bool allSchedulers, bool showKeys) const {
  FdToStream out(fd, false);
  statsRenderTextForDebug(out, includeNeverRan, includeCompleted, allSchedulers, showKeys);
}

std::string TaskSchedulerRoot::statsRenderTextForDebugToString(bool includeNeverRan, bool includeCompleted,
                                                               bool allSchedulers, bool showKeys) const {
  std::ostringstream out;
  statsRenderTextForDebug(out, includeNeverRan, includeCompleted, allSchedulers, showKeys);
  return std::move(out).str();
}

void TaskSchedulerRoot::statsRenderTextForDebugStdErr() const {
  statsRenderTextForDebug(std::cerr, true, true, true, false);
}

}  // namespace Tolan
