// TaskSchedulerRoot.h - the scheduler that a thread's event loop runs, and the
// owner of what every scheduler of the thread shares.
//
// Each thread reaches its root with schedulerRootTolan(); creating tasks on it
// and running the loop is all a program needs:
//
//   auto root = Tolan::schedulerRootTolan();
//   auto task = std::make_shared<MyTask>(root, Tolan::TaskPriority::normal, "work");
//   task->scheduleTask();
//   Tolan::Platform::doEventLoop();     // returns when nothing is left to do
//
// The root is a CallbackHandler: on the edge from idle to runnable it requests
// one deferred callback, and each callback runs one task and requests the
// next, so that timers and descriptors of the loop are served between any two
// task runs. It also owns the thread's history of scheduling events, the set
// of registered schedulers (itself and its task groups), the thread identity
// that the thread checks compare with, suspension, virtual time, the test
// yield ratio, and the timer wheel of the thread's timer tasks.
//
// Costs: each task run costs one loop pass (a zero-delay timer, no system call
// of its own) and three steady-clock reads, 100 to 160 ns beside libevent's
// pass on a default base (see the README's figures). A root holds a history of
// 100 events, its callback control and a timer wheel.
//
// Throughput mode (off by default). One loop pass per task caps a thread well
// below a million task runs per second, and under load every pass also
// re-reports each readable descriptor whose task has not run yet.
// tasksPerCallbackIs(n) lets one callback run up to n tasks, stopping early
// when the time budget (500 us by default) is spent or nothing is runnable,
// and only then returns to the loop. The trade-off: timers and descriptor
// events wait up to one budget longer (a latency cost), and a stretch of
// runnable tasks of one priority holds back new events of higher priority
// until the batch ends; strict priority among tasks is unchanged (every pick
// is a full pick). Every task run is still recorded as a run, with its own
// history events and statistics. With n = 1 everything is as described
// above.
//
// Exceptions: an exception from a task's taskExecute() leaves callback();
// the root has already requested its next run. handleCallbackException()
// (inherited: false) lets it leave the event loop, so it reaches the caller
// of Platform::doEventLoop; calling the loop again carries on with the next
// task.
//
// Threads: everything here runs on the owning thread, and is checked (see
// sanityCheckCurrentRunningThread). At thread exit the thread's root is
// released; its callback control and wheel timer hold a share of the
// thread's event base, which is freed with the last share, so nothing needs
// ordering (leFree() may be called at any point, or not at all). Tasks keep
// their root alive; destroy them on the root's thread.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <set>
#include <string>

#include "Tolan/Platform.h"
#include "Tolan/TaskScheduler.h"

namespace Tolan {

class TimerWheel;

// The default time budget of one callback in throughput mode.
constexpr TaskTimeDuration kDefaultCallbackBudget{500000};

class TOLAN_EXPORT TaskSchedulerRoot : public TaskScheduler, public Platform::CallbackHandler {
 public:
  // A root named `name` for the calling thread. Prefer schedulerRootTolan();
  // further roots (TaskSchedulerRootIs) are for tests and for code that wants
  // a scheduler of its own on the thread.
  explicit TaskSchedulerRoot(std::string name);

  // Any registered scheduler's reset under way.
  bool resetStatsInProgress() const override;
  // Requests a callback unless the root is suspended.
  void requestSchedulerRun() override;
  void handleTaskForceYieldInTest() override;
  void taskRegister(TaskImpl* task) override;
  ~TaskSchedulerRoot() override;

  // The event loop's turn: handleSchedulerRun().
  void callback() override;

  // Follows fast-forward on the main thread (virtualTimeIs), then runs one
  // task, or up to tasksPerCallback() of them.
  void handleSchedulerRun();

  // ---- throughput mode ----

  // Up to `tasks` task runs per callback (at least 1), within `budget`.
  void tasksPerCallbackIs(unsigned tasks, TaskTimeDuration budget = kDefaultCallbackBudget);
  unsigned tasksPerCallback() const noexcept { return tasksPerCallback_; }
  TaskTimeDuration callbackBudget() const noexcept { return callbackBudget_; }

  // ---- registered schedulers ----

  // A scheduler registered twice fails the assertion "insert failed for ...".
  void registerScheduler(TaskScheduler* scheduler);
  void unregisterScheduler(TaskScheduler* scheduler);
  const std::set<TaskScheduler*>& registeredSchedulers() const noexcept { return schedulers_; }
  size_t registeredSchedulerCount() const noexcept { return schedulerCount_; }
  size_t totalRegisteredTaskCount() const noexcept;
  // Registered schedulers other than the root: its task groups.
  size_t taskGroupCount() const noexcept { return schedulerCount_ - 1; }
  TaskScheduler* findSchedulerForTest(const std::string& name) noexcept;
  const TaskScheduler* findSchedulerForTest(const std::string& name) const noexcept;
  // The per-priority counts of all registered schedulers together.
  TaskSchedulerQueueStats queueStatsRoot() const;

  // ---- switches ----

  // While suspended, runs do nothing ("schedulerRunIgnoredWhileSuspended")
  // and request nothing; the queues keep their tasks. Resuming requests one
  // run.
  void suspendedIs(bool suspended);
  bool suspended() const noexcept { return suspended_; }
  // Tasks yield by Tolan::time() instead of the steady clock. On the main
  // thread it follows Platform::fastForward() at every run.
  void virtualTimeIs(bool on);
  bool virtualTime() const noexcept { return virtualTime_; }
  // Every task whose own ratio is 0 yields on every n-th taskShouldYield();
  // 0 switches it off.
  void taskTestYieldRatioIs(unsigned char ratio);
  unsigned char taskTestYieldRatio() const noexcept { return testYieldRatio_; }
  // Re-evaluates the yield mode of every task of every registered scheduler.
  void taskShouldYieldModeReevaluate();
  // 0 to 100 inclusive, from rand_r on the root's own seed.
  unsigned randomPercent() noexcept;
  // The seed is the process's Random::getSeed() when one was chosen (so
  // KVTEST_RANDSEED reproduces it), else taken from the clock.
  void randomSeedIs(unsigned seed) noexcept { randomSeed_ = seed; }

  // ---- thread checks ----

  void threadSanityDisabledIs(bool disabled);
  bool threadSanityDisabled() const noexcept { return threadSanityDisabled_; }
  // Passes when checking is disabled, when the process runs auxiliary
  // threads (auxiliaryThreadCount() > 0), on the owner thread, and in a
  // forked child. Otherwise fails the assertion "Executing in wrong thread
  // <tid>(<name>) pid <pid> scheduler belongs to thread <tid>(<name>)".
  void sanityCheckCurrentRunningThread() const {
    if (TOLAN_LIKELY(pthread_equal(pthread_self(), ownerThread_) != 0)) return;
    sanityCheckOtherThread();
  }
  bool mainThread() const noexcept { return mainThread_; }
  pid_t ownerTid() const noexcept { return ownerTid_; }
  // The owner thread's name when the root was made.
  const char* currentThreadName() const noexcept { return ownerName_; }

  // ---- history ----

  unsigned historyEntryCount() const noexcept;
  void historyEntryCountIs(unsigned capacity);
  void clearHistory();
  void historyRenderTextForDebug(std::ostream& out) const;
  void historyRenderTextForDebug(int fd) const;
  std::string historyRenderTextForDebugToString() const;
  void historyRenderTextForDebugStdErr() const;

  // ---- text statistics report (defined with TaskStatReport.h) ----

  // The per-priority counts, a legend and one table of tasks (and one of
  // completed tasks), sorted by total run time. The flags:
  //  includeNeverRan: list tasks that never ran (else counted as skipped);
  //  includeCompleted: add the completed-task table;
  //  allSchedulers: every registered scheduler of this root (its task groups
  //    too) in one report; otherwise the root's own tasks only;
  //  showKeys: each name followed by its key ("flush@12"), to tell tasks of
  //    one name apart.
  // On the root's thread. The descriptor form needs a blocking descriptor
  // (FdToStream) and leaves it open.
  void statsRenderTextForDebug(std::ostream& out, bool includeNeverRan, bool includeCompleted, bool allSchedulers,
                               bool showKeys) const;
  void statsRenderTextForDebug(int fd, bool includeNeverRan, bool includeCompleted, bool allSchedulers,
                               bool showKeys) const;
  std::string statsRenderTextForDebugToString(bool includeNeverRan, bool includeCompleted, bool allSchedulers,
                                              bool showKeys) const;
  // Everything (never-ran tasks, completed tasks, all schedulers), no keys.
  void statsRenderTextForDebugStdErr() const;

  // The wheel of the thread's timer tasks (its loop timer runs at priority 0).
  const std::shared_ptr<TimerWheel>& timerWheel() const noexcept { return timerWheel_; }

 private:
  TOLAN_COLD void sanityCheckOtherThread() const;

  std::set<TaskScheduler*> schedulers_;
  size_t schedulerCount_ = 0;
  std::shared_ptr<Platform::CallbackControl> callbackControl_;
  std::shared_ptr<TimerWheel> timerWheel_;
  pthread_t ownerThread_;
  pid_t ownerPid_;
  pid_t ownerTid_;
  char ownerName_[16];
  bool threadSanityDisabled_ = false;
  bool suspended_ = false;
  bool virtualTime_ = false;
  bool mainThread_;
  unsigned char testYieldRatio_ = 0;
  unsigned randomSeed_;
  unsigned tasksPerCallback_ = 1;
  TaskTimeDuration callbackBudget_ = kDefaultCallbackBudget;
};

// The calling thread's root, created on first use and released at thread
// exit; named "main" on the main thread, "thread:<tid>" elsewhere.
TOLAN_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootTolan();
// A new root named `name` on the calling thread, apart from the thread's
// shared one.
TOLAN_EXPORT std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRootIs(const std::string& name);
TOLAN_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootTolanNonShared(const std::string& name);

// Auxiliary threads: threads that touch schedulers of other threads under
// their own synchronisation (a watchdog, a debugger hook). While the count is
// non-zero, thread checks pass everywhere in the process. Process-wide,
// atomic; any thread.
TOLAN_EXPORT void auxiliaryThreadCountInc() noexcept;
TOLAN_EXPORT void auxiliaryThreadCountDec() noexcept;
TOLAN_EXPORT unsigned auxiliaryThreadCount() noexcept;

}  // namespace Tolan
