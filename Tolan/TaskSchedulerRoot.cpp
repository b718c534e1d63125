// TaskSchedulerRoot.cpp - the per-thread root scheduler.
//
// The thread check compares pthread_self() with the owner first: that is the
// answer on every call that passes, and the exemptions (disabled checks,
// auxiliary threads, a forked child) are only looked at when it fails; the
// result is the same in any order. getpid() is a system call, so it is only
// made on that slow path.
//
// Teardown at thread exit: the thread-local holder is destroyed with the
// thread's other thread_local objects; the root's callback control and wheel
// timer keep the thread's event base until they go. A root whose last owner
// lets go on another thread skips its thread checks while it is destroyed: it
// is going away either way.
#include "Tolan/TaskSchedulerRoot.h"

#include <unistd.h>

#include <cstdlib>
#include <ostream>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Impl/TaskSchedulerImpl.h"
#include "Tolan/Random.h"
#include "Tolan/Thread.h"
#include "Tolan/TimerWheel.h"

namespace Tolan {

using Type = TaskSchedulerEventType;

namespace {

inline Platform::DebugHandler& dbg() noexcept { return Impl::taskSchedulerDebug(); }

constexpr unsigned kHistoryEntryCount = 100;

std::atomic<unsigned> auxiliaryThreads{0};

unsigned initialSeed(pid_t tid) {
  if (const uint32_t seed = Random::getSeed()) return seed;
  return static_cast<unsigned>(Impl::taskNow().time_since_epoch().count()) ^ static_cast<unsigned>(tid);
}

}  // namespace

void auxiliaryThreadCountInc() noexcept { auxiliaryThreads.fetch_add(1, std::memory_order_relaxed); }
void auxiliaryThreadCountDec() noexcept { auxiliaryThreads.fetch_sub(1, std::memory_order_relaxed); }
unsigned auxiliaryThreadCount() noexcept { return auxiliaryThreads.load(std::memory_order_relaxed); }

TaskSchedulerRoot::TaskSchedulerRoot(std::string name)
    : TaskScheduler(std::move(name), this, std::make_shared<TaskSchedulerHistory>(kHistoryEntryCount)),
      ownerThread_(pthread_self()),
      ownerPid_(getpid()),
      ownerTid_(Tolan::gettid()),
      mainThread_(isMainThread()),
      randomSeed_(initialSeed(ownerTid_)) {
  if (pthread_getname_np(ownerThread_, ownerName_, sizeof ownerName_) != 0) ownerName_[0] = '\0';
  ownerName_[sizeof ownerName_ - 1] = '\0';
  registerScheduler(this);
  callbackControl_ = Platform::getCallbackControl(this);
  timerWheel_ = getTimerWheelForTaskScheduler(Platform::eventPriorityStrictHigh);
}

TaskSchedulerRoot::~TaskSchedulerRoot() {
  threadSanityDisabled_ = true;
  destroyOwnTasks();
  schedulers_.erase(this);
  --schedulerCount_;
}

// ---- running ----

void TaskSchedulerRoot::requestSchedulerRun() {
  if (TOLAN_UNLIKELY(suspended_)) {
    TOLAN_TRACE(dbg(), 8, "{} ignore requestSchedulerRun, scheduler is suspended", *this);
    return;
  }
  callbackControl_->requestCallback();
}

void TaskSchedulerRoot::callback() { handleSchedulerRun(); }

void TaskSchedulerRoot::handleSchedulerRun() {
  if (mainThread_) {
    const bool fastForward = Platform::fastForward();
    if (TOLAN_UNLIKELY(fastForward != virtualTime_)) virtualTimeIs(fastForward);
  }
  runSchedulerTasks(tasksPerCallback_, callbackBudget_);
}

void TaskSchedulerRoot::tasksPerCallbackIs(unsigned tasks, TaskTimeDuration budget) {
  sanityCheckCurrentRunningThread();
  TOLAN_ASSERT_C(tasks >= 1, TaskSchedulerRoot, "{} tasksPerCallback must be at least 1", *this);
  tasksPerCallback_ = tasks;
  callbackBudget_ = budget;
}

void TaskSchedulerRoot::taskRegister(TaskImpl* task) { TaskScheduler::taskRegister(task); }

void TaskSchedulerRoot::handleTaskForceYieldInTest() {
  // The root runs from the event loop: there is no parent quantum to force.
  TOLAN_TRACE(dbg(), 8, "{} task force yield in test changed", *this);
}

bool TaskSchedulerRoot::resetStatsInProgress() const {
  for (const TaskScheduler* scheduler : schedulers_)
    if (scheduler->TaskScheduler::resetStatsInProgress()) return true;
  return false;
}

// ---- registered schedulers ----

void TaskSchedulerRoot::registerScheduler(TaskScheduler* scheduler) {
  if (!schedulers_.insert(scheduler).second) TOLAN_FAIL_C(TaskSchedulerRoot, "insert failed for {}", *scheduler);
  ++schedulerCount_;
}

void TaskSchedulerRoot::unregisterScheduler(TaskScheduler* scheduler) {
  if (schedulers_.erase(scheduler) == 0) TOLAN_FAIL_C(TaskSchedulerRoot, "erase failed for {}", *scheduler);
  --schedulerCount_;
}

size_t TaskSchedulerRoot::totalRegisteredTaskCount() const noexcept {
  size_t total = 0;
  for (const TaskScheduler* scheduler : schedulers_) total += scheduler->registeredTaskCount();
  return total;
}

TaskScheduler* TaskSchedulerRoot::findSchedulerForTest(const std::string& name) noexcept {
  for (TaskScheduler* scheduler : schedulers_)
    if (scheduler->schedulerName() == name) return scheduler;
  return nullptr;
}

const TaskScheduler* TaskSchedulerRoot::findSchedulerForTest(const std::string& name) const noexcept {
  return const_cast<TaskSchedulerRoot*>(this)->findSchedulerForTest(name);
}

TaskSchedulerQueueStats TaskSchedulerRoot::queueStatsRoot() const {
  TaskSchedulerQueueStats stats;
  for (const TaskScheduler* scheduler : schedulers_) stats += scheduler->queueStats();
  return stats;
}

// ---- switches ----

void TaskSchedulerRoot::suspendedIs(bool suspended) {
  sanityCheckCurrentRunningThread();
  if (suspended == suspended_) return;
  suspended_ = suspended;
  const TaskTimePoint now = Impl::taskNow();
  if (suspended) {
    history().insertSchedulerEvent(now, Type::schedulerSuspended, schedulerNameRef());
  } else {
    history().insertSchedulerEvent(now, Type::schedulerUnsuspended, schedulerNameRef());
    requestTimeIs(now);
    requestSchedulerRun();
  }
}

void TaskSchedulerRoot::virtualTimeIs(bool on) {
  sanityCheckCurrentRunningThread();
  if (on == virtualTime_) return;
  virtualTime_ = on;
  history().insertSchedulerEvent(Impl::taskNow(), on ? Type::schedulerVirtualTimeOn : Type::schedulerVirtualTimeOff,
                                 schedulerNameRef());
  taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::taskTestYieldRatioIs(unsigned char ratio) {
  sanityCheckCurrentRunningThread();
  if (ratio == testYieldRatio_) return;
  testYieldRatio_ = ratio;
  history().insertSchedulerEvent(Impl::taskNow(),
                                 ratio ? Type::schedulerTestYieldRatioOn : Type::schedulerTestYieldRatioOff,
                                 schedulerNameRef());
  taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::taskShouldYieldModeReevaluate() {
  for (TaskScheduler* scheduler : schedulers_)
    scheduler->forEachRegisteredTask([](TaskImpl& task) { task.taskShouldYieldModeReevaluate(); });
}

unsigned TaskSchedulerRoot::randomPercent() noexcept {
  // RAND_MAX / 100 in integer arithmetic: 100 itself comes up (at RAND_MAX).
  return static_cast<unsigned>(rand_r(&randomSeed_)) / 21474836u;
}

// ---- thread checks ----

void TaskSchedulerRoot::threadSanityDisabledIs(bool disabled) {
  if (disabled == threadSanityDisabled_) return;
  TOLAN_TRACE(dbg(), 1, "{} {}able thread sanity checking", *this, disabled ? "dis" : "en");
  threadSanityDisabled_ = disabled;
}

void TaskSchedulerRoot::sanityCheckOtherThread() const {
  if (threadSanityDisabled_ || auxiliaryThreadCount() != 0) return;
  const pid_t pid = getpid();
  if (pid != ownerPid_) return;  // a forked child: the owner thread is not here
  char name[16] = "";
  if (pthread_getname_np(pthread_self(), name, sizeof name) != 0) name[0] = '\0';
  TOLAN_FAIL_C(TaskSchedulerRoot, "Executing in wrong thread {}({}) pid {} scheduler belongs to thread {}({})",
               Tolan::gettid(), name, pid, ownerTid_, ownerName_);
}

// ---- history ----

unsigned TaskSchedulerRoot::historyEntryCount() const noexcept { return history().historyEntryCount(); }

void TaskSchedulerRoot::historyEntryCountIs(unsigned capacity) {
  sanityCheckCurrentRunningThread();
  history().historyEntryCountIs(capacity);
}

void TaskSchedulerRoot::clearHistory() {
  sanityCheckCurrentRunningThread();
  history().clearHistory();
  TOLAN_TRACE_C(dbg(), 2, TaskSchedulerRoot, "{} history cleared", *this);
}

void TaskSchedulerRoot::historyRenderTextForDebug(std::ostream& out) const { history().historyRenderTextForDebug(out); }
void TaskSchedulerRoot::historyRenderTextForDebug(int fd) const { history().historyRenderTextForDebug(fd); }
std::string TaskSchedulerRoot::historyRenderTextForDebugToString() const {
  return history().historyRenderTextForDebugToString();
}
void TaskSchedulerRoot::historyRenderTextForDebugStdErr() const { history().historyRenderTextForDebugStdErr(); }

// ---- the thread's root ----

std::shared_ptr<TaskSchedulerRoot> schedulerRootTolan() {
  thread_local std::shared_ptr<TaskSchedulerRoot> root;
  if (TOLAN_UNLIKELY(!root))
    root = std::make_shared<TaskSchedulerRoot>(isMainThread() ? std::string("main")
                                                              : fmt::format("thread:{}", Tolan::gettid()));
  return root;
}

std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRootIs(const std::string& name) {
  return std::make_shared<TaskSchedulerRoot>(name);
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootTolanNonShared(const std::string& name) {
  return TaskSchedulerRootIs(name);
}

}  // namespace Tolan
