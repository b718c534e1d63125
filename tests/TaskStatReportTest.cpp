// The text statistics report: a golden report from records set here, and
// the root's entry points with their flags.
#include "Tolan/TaskStatReport.h"

#include "support/JsonCheck.h"
#include "support/SchedulerTesting.h"
#include "support/Support.h"

using namespace TolanTest;
using namespace std::chrono_literals;
using Tolan::TaskMaybeU32;
using Tolan::TaskStat;
using P = Tolan::TaskPriority;
using Report = SchedulerFixture;

TEST(TaskStatReport, GoldenFromRecords) {
  Tolan::ConstStringCache names;
  std::vector<TaskStat> live{
      TaskStat(names.intern("b"), Tolan::TaskKey(2), P::low, 3, 250ms, 1234567, 12.3f, TaskMaybeU32(40), 2,
               TaskMaybeU32(17), 0, 0, 0ns, 0ns, 500ms, TaskStat::TaskStatus()),
      statRecord(names, "alpha", 1, P::normal, 12, 1500ms, 1ms, 4ms, 41700us, TaskStat::TaskStatus::kOnRunQueue)};
  live[1].taskQuantumViolation200Inc(1);
  std::vector<TaskStat> completed{statRecord(names, "gone", 1, P::high, 5, 750ms)};
  completed[0].taskCompletedCountIs(3);
  Tolan::TaskSchedulerQueueStats queues;
  queues.emplace(P::normal, Tolan::TaskSchedulerPriorityStats(P::normal, 1, 1, 0, 15));
  queues.emplace(P::high, Tolan::TaskSchedulerPriorityStats(P::high, 0, 0, 3, 5));

  std::ostringstream out;
  Tolan::statsRenderTextImpl(out, queues, 12500us, &live, 3, &completed, 1, false);
  EXPECT_EQ(out.str(),
            "Priority RunnableCount     IdleCount DoneCount   TotalRunCount\n" + std::string(62, '-') +
                "\n"
                "absolute             0             0         0               0\n"
                "high                 0             0         3               5\n"
                "normal               1             1         0              15\n"
                "low                  0             0         0               0\n"
                "scavenge             0             0         0               0\n"
                "Maximum scheduler slip 0.012500 seconds\n\n"
                "SP                = Task status and priority % two characters:\n"
                "   first            T/t for active/idle timers, * for running task or blank\n"
                "   second           priority and runnable status, upper case for runnable\n"
                "RunCount          = Number of times task has run\n"
                "TotalSec          = Total run time in seconds\n"
                "LastDelay         = Scheduling delay last time task ran, in seconds\n"
                "MaxDelay          = Maximum scheduling delay encountered, in seconds\n"
                "200% 500%         = Number of times task used this percentage of quantum\n"
                "MaxMs             = Maximum single run time in milliseconds\n"
                "Completed         = Number of times a task with this name has completed\n"
                "TotalWorkCount    = Counter of total work units processed\n"
                "DecayAvgWorkCount =    exponential decaying average of work units processed\n"
                "MaxWorkCount      =    high watermark of work units processed in one run\n"
                "LastWorkPending   = Work units pending processing\n"
                "MaxWorkPending    =    high watermark of work units pending processing\n\n"
                "TaskName SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Total/DecayA/Max-WorkCount "
                "Last/Max-WorkPending\n"
                "alpha     N         12         1.500  0.001   0.004    1    0    41          -        -      -"
                "         -          -\n"
                "b         l          3         0.250  0.000   0.500    0    0     0    1234567     12.3     40"
                "         2         17\n"
                "Skipped 3 tasks with no runs\n"
                "TaskName (completed) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Completed "
                "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n"
                "gone                  h          5         0.750  0.000   0.000    0    0     0    3          -"
                "        -      -         -          -\n"
                "Skipped 1 task with no runs\n");
}

TEST_F(Report, RootEntryPointsAndFlags) {
  auto ran = task(P::normal, "ran"), never = task(P::low, "never"), gone = task(P::high, "gone");
  ran->scheduleTask();
  gone->scheduleTask();
  drain();
  gone.reset();
  const std::string full = root->statsRenderTextForDebugToString(true, true, false, false);
  EXPECT_THAT(full, HasSubstr("\nCompleted         = "));
  EXPECT_THAT(full, HasSubstr("\nnever     l          0 "));
  EXPECT_THAT(full, HasSubstr("\nran       n          1 "));
  EXPECT_THAT(full, HasSubstr("\nTaskName (completed) SP"));
  EXPECT_THAT(full, Not(HasSubstr("Skipped")));  // nothing skipped, no line
  const std::string lean = root->statsRenderTextForDebugToString(false, false, true, true);
  EXPECT_THAT(lean, Not(HasSubstr("Completed")));
  EXPECT_THAT(lean, HasSubstr("\nran" + ran->taskKey().toStrep() + " "));
  EXPECT_THAT(lean, HasSubstr("Skipped 1 task with no runs\n"));

  std::ostringstream stream;
  root->statsRenderTextForDebug(stream, true, true, false, false);
  EXPECT_EQ(stream.str(), full);
  EXPECT_EQ(writtenToPipe([&](int fd) { root->statsRenderTextForDebug(fd, true, true, false, false); }), full);
  EXPECT_THAT(traceOf([&] { root->statsRenderTextForDebugStdErr(); }), HasSubstr("\nran       n          1 "));
}
