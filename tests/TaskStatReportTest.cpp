// The text statistics report: a golden report from records set here, the
// skipped line, and the root's entry points with their flags.
#include "Tolan/TaskStatReport.h"

#include "support/SchedulerTesting.h"
#include "support/Support.h"

using namespace TolanTest;
using namespace std::chrono_literals;
using Tolan::TaskMaybeU32;
using Tolan::TaskStat;
using P = Tolan::TaskPriority;
using Report = SchedulerFixture;

namespace {

TaskStat record(Tolan::ConstStringCache& names, const char* name, P priority, uint32_t runs,
                std::chrono::nanoseconds total, std::chrono::nanoseconds lastLatency,
                std::chrono::nanoseconds maxLatency, std::chrono::nanoseconds maxRun, uint8_t status) {
  return TaskStat(names.intern(name), Tolan::TaskKey(1), priority, runs, total, 0, 0, TaskMaybeU32::none(), 0,
                  TaskMaybeU32::none(), 0, 0, maxRun, lastLatency, maxLatency, TaskStat::TaskStatus(status));
}

const char* const kLegend =
    "SP                = Task status and priority % two characters:\n"
    "   first            T/t for active/idle timers, * for running task or blank\n"
    "   second           priority and runnable status, upper case for runnable\n"
    "RunCount          = Number of times task has run\n"
    "TotalSec          = Total run time in seconds\n"
    "LastDelay         = Scheduling delay last time task ran, in seconds\n"
    "MaxDelay          = Maximum scheduling delay encountered, in seconds\n"
    "200% 500%         = Number of times task used this percentage of quantum\n"
    "MaxMs             = Maximum single run time in milliseconds\n";
const char* const kCompletedLegend =
    "Completed         = Number of times a task with this name has completed\n";
const char* const kWorkLegend =
    "TotalWorkCount    = Counter of total work units processed\n"
    "DecayAvgWorkCount =    exponential decaying average of work units processed\n"
    "MaxWorkCount      =    high watermark of work units processed in one run\n"
    "LastWorkPending   = Work units pending processing\n"
    "MaxWorkPending    =    high watermark of work units pending processing\n";
const char* const kTableHeader =
    " SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Total/DecayA/Max-WorkCount Last/Max-WorkPending\n";

}  // namespace

TEST(TaskStatReport, GoldenFromRecords) {
  Tolan::ConstStringCache names;
  std::vector<TaskStat> live{
      TaskStat(names.intern("b"), Tolan::TaskKey(2), P::low, 3, 250ms, 1234567, 12.3f, TaskMaybeU32(40), 2,
               TaskMaybeU32(17), 0, 0, 0ns, 0ns, 500ms, TaskStat::TaskStatus()),
      record(names, "alpha", P::normal, 12, 1500ms, 1ms, 4ms, 41700us, TaskStat::TaskStatus::kOnRunQueue)};
  live[1].taskQuantumViolation200Inc(1);
  std::vector<TaskStat> completed{record(names, "gone", P::high, 5, 750ms, 0ns, 0ns, 0ns, 0)};
  completed[0].taskCompletedCountIs(3);
  Tolan::TaskSchedulerQueueStats queues;
  queues.emplace(P::normal, Tolan::TaskSchedulerPriorityStats(P::normal, 1, 1, 0, 15));
  queues.emplace(P::high, Tolan::TaskSchedulerPriorityStats(P::high, 0, 0, 3, 5));

  std::ostringstream out;
  Tolan::statsRenderTextImpl(out, queues, 12500us, &live, 3, &completed, 1, false);
  const std::string expected =
      std::string("Priority RunnableCount     IdleCount DoneCount   TotalRunCount\n") + std::string(62, '-') +
      "\n"
      "absolute             0             0         0               0\n"
      "high                 0             0         3               5\n"
      "normal               1             1         0              15\n"
      "low                  0             0         0               0\n"
      "scavenge             0             0         0               0\n"
      "Maximum scheduler slip 0.012500 seconds\n\n" +
      kLegend + kCompletedLegend + kWorkLegend + "\n" + "TaskName" + kTableHeader +
      "alpha     N         12         1.500  0.001   0.004    1    0    41          -        -      -         -"
      "          -\n"
      "b         l          3         0.250  0.000   0.500    0    0     0    1234567     12.3     40         2"
      "         17\n"
      "Skipped 3 tasks with no runs\n"
      "TaskName (completed) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Completed "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n"
      "gone                  h          5         0.750  0.000   0.000    0    0     0    3          -        -"
      "      -         -          -\n"
      "Skipped 1 task with no runs\n";
  EXPECT_EQ(out.str(), expected);
}

TEST(TaskStatReport, SkippedLine) {
  const std::pair<unsigned, const char*> cases[] = {
      {0, ""}, {1, "Skipped 1 task with no runs\n"}, {3, "Skipped 3 tasks with no runs\n"}};
  for (const auto& [skipped, line] : cases) {
    std::vector<TaskStat> none;
    std::ostringstream out;
    Tolan::statsRenderTextTasks(out, none, "TaskName", skipped, false, false);
    EXPECT_EQ(out.str(), std::string("TaskName") + kTableHeader + line) << skipped;
  }
}

TEST_F(Report, RootEntryPointsAndFlags) {
  auto ran = task(P::normal, "ran");
  auto never = task(P::low, "never");
  auto gone = task(P::high, "gone");
  ran->scheduleTask();
  gone->scheduleTask();
  drain();
  gone.reset();
  const std::string full = root->statsRenderTextForDebugToString(true, true, false, false);
  EXPECT_THAT(full, HasSubstr(kCompletedLegend));
  EXPECT_THAT(full, HasSubstr("\nTaskName (completed)"));
  EXPECT_THAT(full, HasSubstr("\nnever     l          0 "));
  EXPECT_THAT(full, HasSubstr("\nran       n          1 "));

  const std::string lean = root->statsRenderTextForDebugToString(false, false, true, true);
  EXPECT_THAT(lean, Not(HasSubstr("Completed")));
  EXPECT_THAT(lean, HasSubstr("\nran" + ran->taskKey().toStrep() + " "));
  EXPECT_THAT(lean, HasSubstr("Skipped 1 task with no runs\n"));
  EXPECT_THAT(lean, Not(HasSubstr("never")));

  std::ostringstream stream;
  root->statsRenderTextForDebug(stream, true, true, false, false);
  EXPECT_EQ(stream.str(), full);
  int p[2];
  ASSERT_EQ(::pipe(p), 0);
  root->statsRenderTextForDebug(p[1], true, true, false, false);
  ::close(p[1]);
  std::string fromFd(full.size() + 1, '\0');
  fromFd.resize(static_cast<size_t>(std::max<ssize_t>(0, ::read(p[0], fromFd.data(), fromFd.size()))));
  ::close(p[0]);
  EXPECT_EQ(fromFd, full);
  EXPECT_THAT(traceOf([&] { root->statsRenderTextForDebugStdErr(); }), HasSubstr("\nran       n          1 "));
}
