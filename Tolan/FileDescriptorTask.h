// FileDescriptorTask.h - a task driven by one file descriptor.
//
// Derive from FileDescriptorTask, implement taskExecuteReadable() and
// taskExecuteWritable(), and watch a descriptor:
//
//   class Conn : public Tolan::FileDescriptorTask {
//    public:
//     Conn(int fd) : FileDescriptorTask(Tolan::schedulerRootTolan(), Tolan::TaskPriority::normal, "conn") {
//       taskWatchFdIs(fd);
//       taskWatchReadableIs(true);
//     }
//     void taskExecuteReadable() override {
//       while (!taskShouldYield() && readSome()) {}  // still readable: we run again
//     }
//     void taskExecuteWritable() override {
//       if (!flushSome()) taskWatchWritableIs(true);  // more to write: ask again
//     }
//   };
//
// When the thread's event loop reports the descriptor readable (writable),
// the task's read (write) half is put on the run queue of its priority and
// later runs taskExecuteReadable() (taskExecuteWritable()) as a task of its
// own: each direction has its own run-queue entry, quantum accounting and
// statistics (the read half under the task's name, the write half under the
// name followed by ":write").
//
// Readability stays watched until taskWatchReadableIs(false): while data
// remains, the read half is scheduled again after each run (level
// triggered). Writability is one-shot: the write half switches it off before
// it runs taskExecuteWritable(), which calls taskWatchWritableIs(true) again
// when it still has output. A run may find nothing to do (a report taken
// before an earlier run drained the descriptor): read until EAGAIN and take
// it in stride.
//
// Descriptor contract: call taskWatchFdDel() (or destroy the task) before
// closing the descriptor. A closed descriptor's number is soon reused by the
// kernel; as a defence, a descriptor task that watches a number still held by
// another descriptor task of the thread takes it over: the earlier task is
// unwatched and unscheduled (its taskWatchFd() becomes -1, traced at level 1)
// and never runs for the new descriptor. One descriptor task per descriptor
// per thread, then. taskWatchFdIs() always registers the descriptor anew, so
// a task may also watch a reused number that it held itself. Descriptors
// shared with another process or dup()ed are beyond this defence: the kernel
// keeps reporting the old file until every copy is closed.
//
// Ownership: hold the task by std::shared_ptr; a running half then keeps it
// alive, so a handler may drop the last owner (say, on end of file). A task
// owned otherwise must outlive its runs.
//
// Costs: a readiness report that queues a half is one history event and one
// scheduleTask(); a run is one task run. While a half waits, the loop
// re-reports its descriptor on every pass; such a repeat returns at once, and
// after kReadRepeatsBeforePause of them read interest leaves the event loop
// until the half leaves its queue (two epoll_ctl() calls). The write half is created on the first
// taskWatchWritableIs(true). taskWatchFdIs() makes two fcntl() calls and
// registers anew with the event loop.
//
// Threading: the task belongs to the thread of its scheduler, like every task.
#pragma once

#include <memory>
#include <string>

#include "Tolan/Common.h"
#include "Tolan/Platform.h"
#include "Tolan/Task.h"
#include "Tolan/TaskScheduler.h"

namespace Tolan {

class TOLAN_EXPORT FileDescriptorTask : public _TaskBase, private Platform::FdEventHandler {
 public:
  class ReadTask;
  class WriteTask;

  // Repeated reports of a waiting read half before its read interest pauses.
  static constexpr uint8_t kReadRepeatsBeforePause = 16;

  // Renames the statistics of both halves (the write half's gets ":write").
  void taskStatsNameIs(const std::string& name) override;
  // Either half on a run queue.
  bool taskScheduled() const override;
  // Asks the half that is running now (else the read half).
  bool taskShouldYield() const noexcept override;
  // From inside taskExecuteReadable()/taskExecuteWritable(): counted on the
  // running half. Outside a run: the assertion "... outside a run".
  void taskWorkCountInc(unsigned long long n) override;
  void taskWorkPendingIs(unsigned int n) override;
  // Unwatches the descriptor (never closes it) and ends both halves.
  ~FileDescriptorTask() override;

  // The work of each direction. An exception leaves the event loop, as from
  // any task.
  virtual void taskExecuteReadable() = 0;
  virtual void taskExecuteWritable() = 0;

  // The descriptor watched, or -1.
  int taskWatchFd() const noexcept { return fd_; }
  // Unschedules both halves and watches `fd` (switching it to non-blocking
  // mode) for the directions switched on. `fd` must be open (see Platform's
  // FdControl::setFd); see the descriptor contract above.
  void taskWatchFdIs(int fd);
  // Unschedules both halves and stops watching; the flags stay, so a later
  // taskWatchFdIs() watches the same directions.
  void taskWatchFdDel();
  // Off initially. Switching off unschedules the read half.
  void taskWatchReadableIs(bool on);
  bool taskWatchReadable() const noexcept { return watchReadable_; }
  // Off initially; the first `true` creates the write half. Switching off
  // unschedules the write half.
  void taskWatchWritableIs(bool on);
  bool taskWatchWritable() const noexcept { return watchWritable_; }

  // Run a half as if its direction had been reported.
  void scheduleTaskReadable();
  void scheduleTaskWritable();
  bool taskScheduledReadable() const;
  // False while there is no write half.
  bool taskScheduledWritable() const;

  uint32_t taskRunCount() const noexcept { return taskRunCountReadable() + taskRunCountWritable(); }
  uint32_t taskRunCountReadable() const noexcept;
  uint32_t taskRunCountWritable() const noexcept;

  // Settings of both halves (a write half created later takes them over);
  // the getters read the read half. A suspended task's interest is off the
  // event loop; resuming runs each watched half once.
  TaskTimeDuration taskQuantum() const noexcept;
  void taskQuantumIs(TaskTimeDuration quantum);
  void taskSuspendedIs(bool suspended);
  bool taskSuspended() const noexcept;
  void taskForceYieldInTestIs(bool force);
  bool taskForceYieldInTest() const noexcept;
  void taskTestYieldRatioIs(unsigned char ratio);
  unsigned char taskTestYieldRatio() const noexcept;

  // Work counters per direction (see TaskImpl::taskWorkCountInc). The
  // Writable ones need the write half: before the first
  // taskWatchWritableIs(true) they fail the assertion
  // "WriteTask not created by taskWatchWritableIs( true )".
  void taskWorkCountReadableInc(unsigned long long n);
  void taskWorkPendingReadableIs(unsigned int n);
  uint64_t taskWorkCountReadableTotal() const;
  float taskWorkCountReadableDecayAvg() const;
  TaskMaybeU32 taskWorkCountReadableHighWaterMark() const;
  uint32_t taskWorkPendingReadable() const;
  TaskMaybeU32 taskWorkPendingReadableHighWaterMark() const;
  void taskWorkCountWritableInc(unsigned long long n);
  void taskWorkPendingWritableIs(unsigned int n);
  uint64_t taskWorkCountWritableTotal() const;
  float taskWorkCountWritableDecayAvg() const;
  TaskMaybeU32 taskWorkCountWritableHighWaterMark() const;
  uint32_t taskWorkPendingWritable() const;
  TaskMaybeU32 taskWorkPendingWritableHighWaterMark() const;

  // The halves themselves (statistics, tests); the write half is null until created.
  TaskImpl* readTask() const noexcept;
  TaskImpl* writeTask() const noexcept;

 protected:
  // A task of `priority` on `scheduler` (which must be on the calling
  // thread), watching nothing yet.
  FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name);
  FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority, std::string name);

 private:
  class ReadWriteTaskBase;
  friend class ReadWriteTaskBase;

  // From the event loop: "fdReadable"/"fdWritable" history event, then the
  // half is scheduled. A report while the direction is off, or for another
  // descriptor, fails an assertion.
  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;

  void construct();
  TaskImpl& checkWriteTask() const;
  void checkCreateWriteTask();
  void unscheduleBoth();
  // The thread's other task watching our number lost its descriptor.
  void descriptorLost(const FileDescriptorTask& taker);
  void runHalf(TaskImpl& half, bool readable);
  bool eitherHalfScheduled() const;
  // Gives back read interest taken off while the read half waited.
  void resumeReadInterest();

  bool watchReadable_ = false;
  bool watchWritable_ = false;
  bool readPaused_ = false;
  uint8_t readRepeats_ = 0;
  int fd_ = -1;
  std::shared_ptr<Platform::FdControl> control_;
  std::shared_ptr<ReadTask> readTask_;
  std::shared_ptr<WriteTask> writeTask_;
  TaskImpl* executing_ = nullptr;
};

}  // namespace Tolan
