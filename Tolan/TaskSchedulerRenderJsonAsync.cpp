// TaskSchedulerRenderJsonAsync.cpp - the asynchronous JSON output.
//
// Why a blocking descriptor is refused rather than switched: O_NONBLOCK is a
// flag of the open file description, shared with every dup() and every
// process that inherited it (a terminal on stdout, a shell's pipe). Setting
// it behind the caller's back breaks their blocking writes with EAGAIN.
//
// Why `done` runs after a failed write too: the caller typically owns the
// descriptor and waits for `done` to close it or to watch it again; an
// output that ended without telling would leak exactly that.
//
// Signals: a socket is written with send(MSG_NOSIGNAL), which cannot raise
// SIGPIPE and costs nothing extra; anything else with write() under the
// trace sink's QuietWrite, which holds SIGPIPE and SIGXFSZ back for the
// length of the call.
#include "Tolan/TaskSchedulerRenderJsonAsync.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <optional>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Errno.h"
#include "Tolan/Exception.h"
#include "Tolan/Impl/JsonWriter.h"
#include "Tolan/Impl/QuietWrite.h"
#include "Tolan/Impl/TaskSchedulerImpl.h"

namespace Tolan {

namespace {

inline Platform::DebugHandler& dbg() noexcept { return Impl::taskSchedulerDebug(); }

constexpr const char* kTaskName = "TaskSchedulerRenderJson";
// The most text a render run produces before it hands it to the writer.
constexpr size_t kPieceBytes = 256 * 1024;

bool isSocket(int fd) {
  struct stat st;
  return ::fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}

}  // namespace

// ---- the write task ----

TaskScheduler::SnapshotWriteJsonTask::SnapshotWriteJsonTask(TaskScheduler* scheduler, std::string name, int fd,
                                                            Done done)
    : FileDescriptorTask(scheduler, TaskPriority::normal, std::move(name)),
      fd_(fd),
      socket_(isSocket(fd)),
      done_(std::move(done)) {
  taskWatchFdIs(fd);
}

void TaskScheduler::SnapshotWriteJsonTask::writeStrIs(std::string text) {
  TOLAN_TRACE_C(dbg(), 3, TaskScheduler::SnapshotWriteJsonTask, "Request write to fd {} of {} bytes", fd_,
                text.size());
  text_ = std::move(text);
  offset_ = 0;
  taskWatchWritableIs(true);
}

void TaskScheduler::SnapshotWriteJsonTask::assertWriteComplete() const {
  TOLAN_ASSERT_C(failed_ || offset_ == text_.size(), TaskScheduler::SnapshotWriteJsonTask,
                 "Previous write not complete, at offset {} of {}", offset_, text_.size());
}

void TaskScheduler::SnapshotWriteJsonTask::taskExecuteReadable() {
  TOLAN_ASSERT_C(false, TaskScheduler::SnapshotWriteJsonTask, "We never register for readable events");
}

ssize_t TaskScheduler::SnapshotWriteJsonTask::writeSome(const char* p, size_t n) {
  if (socket_) return ::send(fd_, p, n, MSG_NOSIGNAL | MSG_DONTWAIT);
  Impl::QuietWrite quiet;
  const ssize_t w = ::write(fd_, p, n);
  if (w < 0) {
    const int error = errno;
    quiet.failedWith(error);
    errno = error;
  }
  return w;
}

void TaskScheduler::SnapshotWriteJsonTask::taskExecuteWritable() {
  if (failed_) return;
  const size_t size = text_.size();
  while (offset_ < size) {
    const ssize_t n = writeSome(text_.data() + offset_, size - offset_);
    if (n < 0) {
      const int error = errno;
      const size_t left = size - offset_;
      if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR) {
        TOLAN_TRACE_C(dbg(), 3, TaskScheduler::SnapshotWriteJsonTask, "Writing to fd {} at offset {} of {} got {}",
                      fd_, offset_, size, Tolan::strerror(error));
        taskWorkPendingIs(static_cast<unsigned>(left));
        if (error == EINTR)
          scheduleTaskWritable();
        else
          taskWatchWritableIs(true);
        return;
      }
      TOLAN_ASSERT_C(error == EBADF || error == EPIPE || error == ECONNRESET, TaskScheduler::SnapshotWriteJsonTask,
                     "Write to fd {} failed {} ({})", fd_, Tolan::strerror(error), error);
      // The reader is gone: give up on the rest, quietly.
      TOLAN_TRACE_C(dbg(), 2, TaskScheduler::SnapshotWriteJsonTask, "Writing to fd {} at offset {} of {} failed {}",
                    fd_, offset_, size, Tolan::strerror(error));
      failed_ = true;
      taskWorkPendingIs(0);
      finishPiece();
      return;
    }
    const bool yield = taskShouldYield();
    const size_t wrote = static_cast<size_t>(n);
    TOLAN_TRACE_C(dbg(), 3, TaskScheduler::SnapshotWriteJsonTask,
                  "Writing to fd {} at offset {} of {} wrote {} bytes of {} remaining{}", fd_, offset_, size, wrote,
                  size - offset_, yield ? " yielding" : "");
    TOLAN_ASSERT_C(offset_ + wrote <= size, TaskScheduler::SnapshotWriteJsonTask, "invalid offset {} size {}",
                   offset_ + wrote, size);
    offset_ += wrote;
    written_ += wrote;
    taskWorkCountInc(wrote);
    if (yield && offset_ < size) {
      taskWorkPendingIs(static_cast<unsigned>(size - offset_));
      scheduleTaskWritable();
      return;
    }
  }
  TOLAN_TRACE_C(dbg(), 3, TaskScheduler::SnapshotWriteJsonTask, "Completed writing to fd {}", fd_);
  assertWriteComplete();
  taskWorkPendingIs(0);
  finishPiece();
}

void TaskScheduler::SnapshotWriteJsonTask::finishPiece() {
  if (done_) done_();
}

// ---- the render task ----

TaskScheduler::SnapshotRenderJsonTask::SnapshotRenderJsonTask(
    TaskScheduler* scheduler, int fd, std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> snapshots,
    RenderJsonDone done)
    : Task(scheduler, TaskPriority::normal, fmt::format("{}-fd:{}", kTaskName, fd)),
      fd_(fd),
      snapshots_(std::move(snapshots)),
      context_(text_),
      done_(std::move(done)) {
  // The write task only asks for the next run: the render task decides
  // there, on its own turn, whether to render, close or finish.
  writeTask_ = std::make_shared<SnapshotWriteJsonTask>(scheduler, taskName() + ":FdWrite", fd, [this] {
    writeInProgress_ = false;
    scheduleTask();
  });
}

// An unfinished output goes with its scheduler: the write task stops
// watching the descriptor as it goes.
TaskScheduler::SnapshotRenderJsonTask::~SnapshotRenderJsonTask() = default;

void TaskScheduler::SnapshotRenderJsonTask::taskExecute() {
  TOLAN_ASSERT_C(!writeInProgress_, TaskScheduler::SnapshotRenderJsonTask,
                 "Executing before previous write completed.");
  if (finished_) return;
  if (writeTask_->writeFailed()) return finish();
  if (!renderingActive_ && next_ < snapshots_.size()) {
    rendering_ = snapshots_[next_++]->rendering(true);
    renderingActive_ = true;
  }
  if (renderingActive_) {
    const bool complete = rendering_.renderSome(
        context_, [this] { return text_.tellp() >= static_cast<std::streamoff>(kPieceBytes) || taskShouldYield(); });
    if (complete) {
      renderingActive_ = false;
      taskWorkCountInc(1);
      taskWorkPendingIs(static_cast<unsigned>(snapshots_.size() - next_));
    }
    context_.writer().flushBlock();
    return handOver();
  }
  if (!jsonClosed_) {
    taskWorkPendingIs(0);
    context_.closeJson();
    jsonClosed_ = true;
    return handOver();
  }
  finish();
}

void TaskScheduler::SnapshotRenderJsonTask::handOver() {
  writeTask_->assertWriteComplete();
  std::string piece = std::move(text_).str();
  text_.str(std::string());
  writeInProgress_ = true;
  writeTask_->writeStrIs(std::move(piece));
}

void TaskScheduler::SnapshotRenderJsonTask::finish() {
  finished_ = true;
  writeTask_->taskWatchFdDel();
  if (done_) done_(*this);
  scheduler()->renderJsonTaskDone(*this);  // may destroy us: the run's own reference keeps us to its end
}

// ---- the scheduler's entry points ----

void TaskScheduler::snapshotRenderJsonAsync(int fd, std::shared_ptr<const TaskSchedulerSnapshot> snapshot) {
  snapshotRenderJsonAsync(fd, {std::move(snapshot)}, {});
}

void TaskScheduler::snapshotRenderJsonAsync(int fd,
                                            std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> snapshots,
                                            RenderJsonDone done) {
  root()->sanityCheckCurrentRunningThread();
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0)
    RuntimeException::throwException(
        fmt::format("snapshotRenderJsonAsync: fd {}: {}", fd, Tolan::strerror(errno)));
  if (!(flags & O_NONBLOCK))
    RuntimeException::throwException(
        fmt::format("snapshotRenderJsonAsync: fd {} is blocking, not supported (set O_NONBLOCK)", fd));
  auto task = std::make_shared<SnapshotRenderJsonTask>(this, fd, std::move(snapshots), std::move(done));
  renderJsonTasks_.insert(task);
  task->scheduleTask();
}

void TaskScheduler::renderJsonTaskDone(SnapshotRenderJsonTask& task) {
  for (auto it = renderJsonTasks_.begin(); it != renderJsonTasks_.end(); ++it)
    if (it->get() == &task) {
      renderJsonTasks_.erase(it);
      return;
    }
}

}  // namespace Tolan
