// FileDescriptorTask.cpp - descriptor tasks: two inner tasks behind one
// descriptor watch.
//
// The halves hold a plain pointer to their descriptor task, cleared by its
// destructor: a half that the scheduler keeps alive to the end of its run
// may outlive the descriptor task by that much, and must then not reach it.
// While it runs, a half holds the descriptor task itself alive when a
// shared_ptr owns it, so a handler may drop the last owner.
//
// Stale descriptors: the event library keys its registrations by number. A
// descriptor closed while watched leaves a registration behind that the
// kernel has already dropped; a new descriptor with the same number then
// either goes unwatched (the library thinks it is registered) or is
// reported to the old owner. Each thread therefore keeps which descriptor
// task holds which number; a task that watches a held number makes the
// holder let go first, and every taskWatchFdIs() unregisters before it
// registers, so the kernel is always asked to watch the new file.
//
// Reports for a half that is already queued: readiness is level triggered
// and the scheduler runs one task per loop pass, so every pass re-reports
// each readable descriptor whose half has not run yet (1,000 ready sockets
// make about half a million reports before the last one runs). Such a
// repeat is dropped before anything else: no history event (it would push
// every useful event out of the ring) and no clock read. Only the report
// that queues the half is recorded as "fdReadable"/"fdWritable". A read
// half that keeps waiting has its read interest taken off the event loop
// after kReadRepeatsBeforePause repeats, so that the kernel stops reporting it,
// and given back as soon as the half leaves its queue (it runs, or is
// unscheduled in any way): two epoll_ctl() calls for a task that waits
// long, none for one that runs on the next pass, which is the usual case
// (its one repeat comes in the pass that runs it).
#include "Tolan/FileDescriptorTask.h"

#include <unordered_map>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Impl/TaskSchedulerImpl.h"

namespace Tolan {

namespace {

inline Platform::DebugHandler& dbg() noexcept { return Impl::taskSchedulerDebug(); }

constexpr const char* kNoWriteTask = "WriteTask not created by taskWatchWritableIs( true )";

// The descriptor tasks of this thread by watched number. Allocated while
// any number is held, so nothing is left to destroy at thread exit.
thread_local std::unordered_map<int, FileDescriptorTask*>* fdHolders = nullptr;

FileDescriptorTask* holderOf(int fd) {
  if (!fdHolders) return nullptr;
  const auto it = fdHolders->find(fd);
  return it == fdHolders->end() ? nullptr : it->second;
}

void holdFd(int fd, FileDescriptorTask* task) {
  if (!fdHolders) fdHolders = new std::unordered_map<int, FileDescriptorTask*>;
  (*fdHolders)[fd] = task;
}

void releaseFd(int fd, const FileDescriptorTask* task) {
  if (!fdHolders) return;
  const auto it = fdHolders->find(fd);
  if (it == fdHolders->end() || it->second != task) return;
  fdHolders->erase(it);
  if (fdHolders->empty()) {
    delete fdHolders;
    fdHolders = nullptr;
  }
}

}  // namespace

// ---- the halves ----

class FileDescriptorTask::ReadWriteTaskBase : public Task {
 public:
  ReadWriteTaskBase(FileDescriptorTask& owner, std::string name)
      : Task(owner.scheduler(), owner.taskPriority(), std::move(name)), owner_(&owner) {}

  // A half is busy while either half is queued.
  void handleTaskBusy() override {
    if (!owner_) return;
    if (owner_->readPaused_ && !owner_->readTask()->taskScheduled()) owner_->resumeReadInterest();
    taskBusyIs(owner_->eitherHalfScheduled(), Impl::taskNow());
  }

  FileDescriptorTask* owner_;

 protected:
  FileDescriptorTask& owner() const {
    TOLAN_ASSERT_C(owner_ != nullptr, FileDescriptorTask, "bad_weak_ptr: {} outlived its descriptor task", *this);
    return *owner_;
  }
};

class FileDescriptorTask::ReadTask : public ReadWriteTaskBase {
 public:
  using ReadWriteTaskBase::ReadWriteTaskBase;
  ~ReadTask() override { handleDestroy(); }

  void taskExecute() override {
    FileDescriptorTask& fdTask = owner();
    const std::shared_ptr<_TaskBase> keep = fdTask.weak_from_this().lock();
    TOLAN_ASSERT_C(fdTask.watchReadable_, ReadTask, "ReadTask should only run if taskWatchReadable");
    fdTask.resumeReadInterest();
    fdTask.runHalf(*this, true);
  }
  // The descriptor task is not registered itself: pass the reset on to it.
  void handleResetStats() override {
    if (owner_) owner_->handleResetStats();
  }
};

class FileDescriptorTask::WriteTask : public ReadWriteTaskBase {
 public:
  using ReadWriteTaskBase::ReadWriteTaskBase;
  ~WriteTask() override { handleDestroy(); }

  void taskExecute() override {
    FileDescriptorTask& fdTask = owner();
    const std::shared_ptr<_TaskBase> keep = fdTask.weak_from_this().lock();
    fdTask.taskWatchWritableIs(false);  // one-shot: the handler asks again
    fdTask.runHalf(*this, false);
  }
};

// ---- life ----

FileDescriptorTask::FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                                       std::string name)
    : _TaskBase(std::move(scheduler), priority, name) {
  construct();
}

FileDescriptorTask::FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority, std::string name)
    : _TaskBase(scheduler, priority, name) {
  construct();
}

void FileDescriptorTask::construct() {
  readTask_ = std::make_shared<ReadTask>(*this, taskName());
  control_ = Platform::getFdControl(static_cast<Platform::FdEventHandler*>(this));
  control_->setReads(false);  // a fresh control reads; this task starts watching nothing
}

FileDescriptorTask::~FileDescriptorTask() {
  control_.reset();
  if (fd_ >= 0) releaseFd(fd_, this);
  for (ReadWriteTaskBase* half : {static_cast<ReadWriteTaskBase*>(readTask_.get()),
                                  static_cast<ReadWriteTaskBase*>(writeTask_.get())})
    if (half) half->owner_ = nullptr;
  readTask_.reset();
  writeTask_.reset();
}

// ---- watching ----

void FileDescriptorTask::unscheduleBoth() {
  readTask_->unscheduleTask();
  if (writeTask_) writeTask_->unscheduleTask();
}

void FileDescriptorTask::taskWatchFdIs(int fd) {
  TOLAN_ASSERT_C(fd >= 0, FileDescriptorTask, "{} cannot watch descriptor {}", *this, fd);
  unscheduleBoth();
  if (fd_ >= 0) releaseFd(fd_, this);
  if (FileDescriptorTask* holder = holderOf(fd); holder && holder != this) holder->descriptorLost(*this);
  control_->delFd();
  fd_ = fd;
  holdFd(fd, this);
  control_->setFd(fd);
}

void FileDescriptorTask::taskWatchFdDel() {
  unscheduleBoth();
  control_->delFd();
  if (fd_ >= 0) releaseFd(fd_, this);
  fd_ = -1;
}

void FileDescriptorTask::descriptorLost(const FileDescriptorTask& taker) {
  TOLAN_TRACE(dbg(), 1, "{} loses descriptor {} to {}: was it closed while watched?", *this, fd_, taker);
  unscheduleBoth();
  control_->delFd();
  fd_ = -1;
}

void FileDescriptorTask::resumeReadInterest() {
  readRepeats_ = 0;
  if (!readPaused_) return;
  readPaused_ = false;
  if (control_ && watchReadable_ && !readTask_->taskSuspended()) control_->setReads(true);
}

void FileDescriptorTask::taskWatchReadableIs(bool on) {
  readTask_->sanityCheckCurrentRunningThread();
  if (on == watchReadable_) return;
  readPaused_ = false;
  watchReadable_ = on;
  control_->setReads(on && !readTask_->taskSuspended());
  if (!on) readTask_->unscheduleTask();
}

void FileDescriptorTask::taskWatchWritableIs(bool on) {
  readTask_->sanityCheckCurrentRunningThread();
  if (on == watchWritable_) return;
  checkCreateWriteTask();
  watchWritable_ = on;
  control_->setWrites(on && !readTask_->taskSuspended());
  if (!on) writeTask_->unscheduleTask();
}

void FileDescriptorTask::checkCreateWriteTask() {
  if (writeTask_) return;
  writeTask_ = std::make_shared<WriteTask>(*this, taskName() + ":write");
  writeTask_->taskQuantumNoCheckIs(readTask_->taskQuantum());
  writeTask_->taskTestYieldRatioIs(readTask_->taskTestYieldRatio());
  if (readTask_->taskSuspended()) writeTask_->taskSuspendedIs(true);
  if (taskStatsName() != taskName()) writeTask_->taskStatsNameIs(taskStatsName() + ":write");
}

// ---- events and runs ----

void FileDescriptorTask::readFdEvent(int fd) {
  TOLAN_ASSERT_C(watchReadable_, FileDescriptorTask, "readFdEvent() called with taskWatchReadable off");
  TOLAN_ASSERT_C(fd == fd_, FileDescriptorTask, "Notified about {} watching {}", fd, fd_);
  if (readTask_->taskScheduled()) {  // the repeat of a level-triggered report (see the top)
    if (++readRepeats_ == kReadRepeatsBeforePause) {
      readPaused_ = true;
      control_->setReads(false);
    }
    return;
  }
  readRepeats_ = 0;
  scheduler_->history().insertTaskEvent(Impl::taskNow(), TaskSchedulerEventType::fdReadable, taskName_);
  readTask_->scheduleTask();
}

void FileDescriptorTask::writeFdEvent(int fd) {
  TOLAN_ASSERT_C(watchWritable_, FileDescriptorTask, "writeFdEvent() called with taskWatchWritable off");
  TOLAN_ASSERT_C(fd == fd_, FileDescriptorTask, "Notified about {} watching {}", fd, fd_);
  if (writeTask_->taskScheduled()) return;
  scheduler_->history().insertTaskEvent(Impl::taskNow(), TaskSchedulerEventType::fdWritable, taskName_);
  writeTask_->scheduleTask();
}

void FileDescriptorTask::runHalf(TaskImpl& half, bool readable) {
  TOLAN_ASSERT_C(executing_ == nullptr, FileDescriptorTask, "Executing task already set");
  executing_ = &half;
  struct Clear {
    TaskImpl*& executing;
    ~Clear() { executing = nullptr; }
  } clear{executing_};
  if (readable) {
    taskExecuteReadable();
  } else {
    taskExecuteWritable();
  }
}

void FileDescriptorTask::scheduleTaskReadable() { readTask_->scheduleTask(); }

void FileDescriptorTask::scheduleTaskWritable() {
  checkWriteTask();
  writeTask_->scheduleTask();
}

bool FileDescriptorTask::eitherHalfScheduled() const {
  return (readTask_ && readTask_->taskScheduled()) || (writeTask_ && writeTask_->taskScheduled());
}

bool FileDescriptorTask::taskScheduled() const { return eitherHalfScheduled(); }
bool FileDescriptorTask::taskScheduledReadable() const { return readTask_->taskScheduled(); }
bool FileDescriptorTask::taskScheduledWritable() const { return writeTask_ && writeTask_->taskScheduled(); }

uint32_t FileDescriptorTask::taskRunCountReadable() const noexcept { return readTask_->taskRunCount(); }
uint32_t FileDescriptorTask::taskRunCountWritable() const noexcept {
  return writeTask_ ? writeTask_->taskRunCount() : 0;
}

bool FileDescriptorTask::taskShouldYield() const noexcept {
  return (executing_ ? executing_ : readTask_.get())->taskShouldYield();
}

TaskImpl* FileDescriptorTask::readTask() const noexcept { return readTask_.get(); }
TaskImpl* FileDescriptorTask::writeTask() const noexcept { return writeTask_.get(); }

// ---- settings of both halves ----

TaskTimeDuration FileDescriptorTask::taskQuantum() const noexcept { return readTask_->taskQuantum(); }
bool FileDescriptorTask::taskSuspended() const noexcept { return readTask_->taskSuspended(); }
bool FileDescriptorTask::taskForceYieldInTest() const noexcept { return readTask_->taskForceYieldInTest(); }
unsigned char FileDescriptorTask::taskTestYieldRatio() const noexcept { return readTask_->taskTestYieldRatio(); }

void FileDescriptorTask::taskQuantumIs(TaskTimeDuration quantum) {
  readTask_->taskQuantumIs(quantum);
  if (writeTask_) writeTask_->taskQuantumIs(quantum);
}

// A suspended task's interest leaves the event loop: a readable descriptor
// nobody reads would otherwise end every loop wait at once, and the loop
// would spin until the task is resumed.
void FileDescriptorTask::taskSuspendedIs(bool suspended) {
  if (suspended == readTask_->taskSuspended()) return;
  readTask_->taskSuspendedIs(suspended);
  if (writeTask_) writeTask_->taskSuspendedIs(suspended);
  if (watchReadable_) control_->setReads(!suspended);
  if (watchWritable_) control_->setWrites(!suspended);
  if (suspended) return;
  // Resuming runs a task once; a half whose direction is not watched must
  // not run (the read half would fail, the write half report a stale
  // writability).
  if (!watchReadable_) readTask_->unscheduleTask();
  if (writeTask_ && !watchWritable_) writeTask_->unscheduleTask();
}

void FileDescriptorTask::taskForceYieldInTestIs(bool force) {
  readTask_->taskForceYieldInTestIs(force);
  if (writeTask_) writeTask_->taskForceYieldInTestIs(force);
}

void FileDescriptorTask::taskTestYieldRatioIs(unsigned char ratio) {
  readTask_->taskTestYieldRatioIs(ratio);
  if (writeTask_) writeTask_->taskTestYieldRatioIs(ratio);
}

void FileDescriptorTask::taskStatsNameIs(const std::string& name) {
  taskStatsNameRefIs(scheduler_->history().stringCache().intern(name));
  readTask_->taskStatsNameIs(name);
  if (writeTask_) writeTask_->taskStatsNameIs(name + ":write");
}

// ---- work counters ----

void FileDescriptorTask::taskWorkCountInc(unsigned long long n) {
  TOLAN_ASSERT_C(executing_ != nullptr, FileDescriptorTask, "{} taskWorkCountInc() outside a run", *this);
  executing_->taskWorkCountInc(n);
}

void FileDescriptorTask::taskWorkPendingIs(unsigned int n) {
  TOLAN_ASSERT_C(executing_ != nullptr, FileDescriptorTask, "{} taskWorkPendingIs() outside a run", *this);
  executing_->taskWorkPendingIs(n);
}

TaskImpl& FileDescriptorTask::checkWriteTask() const {
  TOLAN_ASSERT_C(writeTask_ != nullptr, FileDescriptorTask, "{}", kNoWriteTask);
  return *writeTask_;
}

void FileDescriptorTask::taskWorkCountReadableInc(unsigned long long n) { readTask_->taskWorkCountInc(n); }
void FileDescriptorTask::taskWorkPendingReadableIs(unsigned int n) { readTask_->taskWorkPendingIs(n); }
uint64_t FileDescriptorTask::taskWorkCountReadableTotal() const { return readTask_->taskWorkCountTotal(); }
float FileDescriptorTask::taskWorkCountReadableDecayAvg() const { return readTask_->taskWorkCountDecayingAverage(); }
TaskMaybeU32 FileDescriptorTask::taskWorkCountReadableHighWaterMark() const {
  return readTask_->taskWorkCountHighWater();
}
uint32_t FileDescriptorTask::taskWorkPendingReadable() const { return readTask_->taskWorkPending(); }
TaskMaybeU32 FileDescriptorTask::taskWorkPendingReadableHighWaterMark() const {
  return readTask_->taskWorkPendingHighWater();
}

void FileDescriptorTask::taskWorkCountWritableInc(unsigned long long n) { checkWriteTask().taskWorkCountInc(n); }
void FileDescriptorTask::taskWorkPendingWritableIs(unsigned int n) { checkWriteTask().taskWorkPendingIs(n); }
uint64_t FileDescriptorTask::taskWorkCountWritableTotal() const { return checkWriteTask().taskWorkCountTotal(); }
float FileDescriptorTask::taskWorkCountWritableDecayAvg() const {
  return checkWriteTask().taskWorkCountDecayingAverage();
}
TaskMaybeU32 FileDescriptorTask::taskWorkCountWritableHighWaterMark() const {
  return checkWriteTask().taskWorkCountHighWater();
}
uint32_t FileDescriptorTask::taskWorkPendingWritable() const { return checkWriteTask().taskWorkPending(); }
TaskMaybeU32 FileDescriptorTask::taskWorkPendingWritableHighWaterMark() const {
  return checkWriteTask().taskWorkPendingHighWater();
}

}  // namespace Tolan
