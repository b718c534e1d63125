// TaskFdControl.h - a descriptor control whose notifications run as tasks.
//
// Code written against Platform's FdEventHandler/FdControl moves under a
// task scheduler unchanged: getFdControl(handler, scheduler, priority, name)
// returns an FdControl whose readFdEvent()/writeFdEvent() calls run as the
// read and write halves of a FileDescriptorTask on `scheduler`, accounted,
// prioritised and bounded like every other task, instead of straight from
// the event loop.
//
//   auto control = Tolan::Platform::getFdControl(&handler, Tolan::schedulerRootTolan(),
//                                                Tolan::TaskPriority::normal, "peer");
//   control->setFd(fd);  // read interest is on, as with every fresh control
//
// It keeps the FdControl contract (fresh: no descriptor, read interest on,
// write interest off; read interest persists, write interest is one-shot)
// with one difference: clearEvents() forgets the descriptor, as delFd()
// does. The descriptor contract of FileDescriptorTask applies: delFd()
// before closing the descriptor.
//
// An exception from readFdEvent()/writeFdEvent() is offered to the handler's
// handleFdException(): true swallows it, false lets it leave the scheduler's
// run (and so the event loop).
//
// Threading: the scheduler's thread only.
#pragma once

#include <memory>
#include <string>

#include "Tolan/Common.h"
#include "Tolan/FileDescriptorTask.h"
#include "Tolan/Platform.h"

namespace Tolan {
namespace Platform {

class TOLAN_EXPORT TaskFdControl : public FileDescriptorTask, public FdControl {
 public:
  // `handler` must outlive the control.
  // (The base's private FdEventHandler hides the plain name here.)
  TaskFdControl(::Tolan::Platform::FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                TaskPriority priority, std::string name);
  ~TaskFdControl() override;

  void setReads(bool on) override { taskWatchReadableIs(on); }
  void setWrites(bool on) override { taskWatchWritableIs(on); }
  void setFd(int fd) override { taskWatchFdIs(fd); }
  void delFd() override { taskWatchFdDel(); }
  int getFd() const override { return taskWatchFd(); }
  // Forgets the descriptor, unlike the event-loop control's.
  void clearEvents() override { taskWatchFdDel(); }

  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

 private:
  ::Tolan::Platform::FdEventHandler* handler_;
};

// A TaskFdControl on `scheduler` at `priority`, its tasks named `name`.
TOLAN_EXPORT std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                                                     TaskPriority priority, std::string name);

}  // namespace Platform
}  // namespace Tolan
