// TaskSchedulerRenderJsonAsync.h - the JSON introspection document written
// to a descriptor from inside the scheduler, for readers that may be slow.
//
//   // fd: a non-blocking socket or pipe the caller keeps open until `done`.
//   scheduler->snapshotRenderJsonAsync(fd, {root->snapshot(true, true, true)},
//       [](Tolan::TaskScheduler::SnapshotRenderJsonTask& output) {
//         if (output.writeFailed()) { /* the reader went away */ }
//       });
//
// Use it where the document may be large or the reader slow (an HTTP
// client, a pipe to a tool): the thread keeps serving its other tasks and
// descriptors while the document goes out. For a blocking descriptor or a
// stream, statsRenderJson() is simpler.
//
// How it runs: a render task renders a snapshot into memory and hands the
// text to a write task, a descriptor task that writes it with non-blocking
// writes, yielding by its quantum and waiting for writability when the
// descriptor is full; when a piece is out, the render task runs again for
// the rest or the next snapshot, and finally closes the document. A render
// run ends with its snapshot, its quantum or a piece of 256 KiB, whichever
// comes first, so neither the loop's latency nor the memory held grows with
// the size of the scheduler. Both tasks run at normal priority under the names
// "TaskSchedulerRenderJson-fd:<fd>" and the same with ":FdWrite".
//
// The descriptor:
// - must have O_NONBLOCK set; a blocking one is refused (RuntimeException,
//   nothing started), because a full pipe would otherwise block the thread
//   and switching the caller's file description to non-blocking behind its
//   back would change every other user of it;
// - is taken over by the write task for the length of the output: a
//   descriptor task of this thread that watches the same number lets go of
//   it (see FileDescriptorTask.h) and watches it again when told to, say in
//   `done`;
// - never raises SIGPIPE: a reader that goes away (EPIPE, EBADF) ends the
//   output quietly (trace level 2 on "TaskScheduler"); `done` still runs and
//   writeFailed() says so. EAGAIN waits for writability, EINTR retries; any
//   other error is a library assertion.
//
// The scheduler keeps the tasks alive until the output has ended, and
// destroys unfinished ones with itself.
//
// Threading: everything on the scheduler's thread; the snapshots are
// immutable and may be shared.
#pragma once

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Tolan/FileDescriptorTask.h"
#include "Tolan/Task.h"
#include "Tolan/TaskScheduler.h"
#include "Tolan/TaskSchedulerPrintContext.h"
#include "Tolan/TaskSchedulerSnapshot.h"

namespace Tolan {

class TOLAN_EXPORT TaskScheduler::SnapshotWriteJsonTask : public FileDescriptorTask {
 public:
  using Done = std::function<void()>;
  // Watches `fd` (writability only) on `scheduler`; `done` runs when a piece
  // of text is written out or the reader is gone.
  SnapshotWriteJsonTask(TaskScheduler* scheduler, std::string name, int fd, Done done);

  // The next piece of text; the previous one must be written out.
  void writeStrIs(std::string text);
  // The assertion "Previous write not complete, at offset ..." unless the
  // last piece is out (or was given up).
  void assertWriteComplete() const;
  // The reader went away (EPIPE, EBADF); nothing more is written.
  bool writeFailed() const noexcept { return failed_; }
  size_t bytesWritten() const noexcept { return written_; }

 private:
  void taskExecuteReadable() override;
  void taskExecuteWritable() override;
  // write() or send(): -1 with errno as they set it.
  ssize_t writeSome(const char* p, size_t n);
  void finishPiece();

  int fd_;
  bool socket_;
  bool failed_ = false;
  std::string text_;
  size_t offset_ = 0;
  size_t written_ = 0;
  Done done_;
};

class TOLAN_EXPORT TaskScheduler::SnapshotRenderJsonTask : public Task {
 public:
  // Use TaskScheduler::snapshotRenderJsonAsync(), which checks the descriptor
  // and keeps the task alive.
  SnapshotRenderJsonTask(TaskScheduler* scheduler, int fd,
                         std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> snapshots, RenderJsonDone done);
  ~SnapshotRenderJsonTask() override;

  int fd() const noexcept { return fd_; }
  // The output has ended (`done` has run or is running).
  bool finished() const noexcept { return finished_; }
  bool writeFailed() const noexcept { return writeTask_->writeFailed(); }
  size_t bytesWritten() const noexcept { return writeTask_->bytesWritten(); }
  // The write task, for its statistics.
  const SnapshotWriteJsonTask& writeTask() const noexcept { return *writeTask_; }

 private:
  void taskExecute() override;
  void handOver();
  void finish();

  int fd_;
  std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> snapshots_;
  size_t next_ = 0;
  TaskSchedulerSnapshot::Rendering rendering_;  // of snapshots_[next_ - 1]
  bool renderingActive_ = false;
  std::ostringstream text_;
  TaskSchedulerPrintContext context_;
  bool jsonClosed_ = false;
  bool writeInProgress_ = false;
  bool finished_ = false;
  std::shared_ptr<SnapshotWriteJsonTask> writeTask_;
  RenderJsonDone done_;
};

}  // namespace Tolan
