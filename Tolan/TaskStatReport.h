// TaskStatReport.h - the fixed-width text report of a scheduler's tasks.
//
// The human-readable counterpart of the JSON snapshot, for operators and
// debugging: the per-priority counts, the maximum scheduler slip, a legend,
// then a table of the tasks with their run statistics, sorted by total run
// time (largest first), and optionally a table of completed tasks. The root
// offers it ready-made (TaskSchedulerRoot::statsRenderTextForDebug and
// friends); the two functions below render records you collected yourself.
//
// A work counter that a task kind does not keep prints "-", right-aligned in
// its column. Formatting goes through boost::format; the report is meant for
// occasional use, not for a hot path.
//
// Threading: the records' names are interned in their scheduler's cache, so
// render on that scheduler's thread (or render a snapshot as JSON instead).
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "Tolan/Common.h"
#include "Tolan/TaskStat.h"
#include "Tolan/TaskTypes.h"

namespace Tolan {

// The whole report. `completedTasks` may be null: then there is neither a
// completed table nor its legend line. `showKeys` follows each name with its
// key ("flush@12"). The records are sorted in place.
TOLAN_EXPORT void statsRenderTextImpl(std::ostream& out, const TaskSchedulerQueueStats& queueStats,
                                      TaskTimeDuration maxSchedulerSlip, std::vector<TaskStat>* tasks,
                                      unsigned skipped, std::vector<TaskStat>* completedTasks,
                                      unsigned completedSkipped, bool showKeys);

// One table headed by `label`: a header line, one row per record (largest
// total run time first; `completed` adds the "Completed" column), then
// "Skipped <n> task(s) with no runs" when `skipped` is not 0. The name column
// is as wide as the label or the longest name, whichever is wider.
TOLAN_EXPORT void statsRenderTextTasks(std::ostream& out, std::vector<TaskStat>& tasks, const std::string& label,
                                       unsigned skipped, bool completed, bool showKeys);

}  // namespace Tolan
