// TaskFdControl.cpp - the descriptor control on a descriptor task.
#include "Tolan/TaskFdControl.h"

namespace Tolan {
namespace Platform {

TaskFdControl::TaskFdControl(::Tolan::Platform::FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                             TaskPriority priority, std::string name)
    : FileDescriptorTask(std::move(scheduler), priority, std::move(name)), handler_(handler) {
  taskWatchReadableIs(true);  // what every fresh FdControl promises
}

TaskFdControl::~TaskFdControl() = default;

void TaskFdControl::taskExecuteReadable() {
  try {
    handler_->readFdEvent(getFd());
  } catch (...) {
    if (!handler_->handleFdException(getFd())) throw;
  }
}

void TaskFdControl::taskExecuteWritable() {
  try {
    handler_->writeFdEvent(getFd());
  } catch (...) {
    if (!handler_->handleFdException(getFd())) throw;
  }
}

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                                        TaskPriority priority, std::string name) {
  return std::make_shared<TaskFdControl>(handler, std::move(scheduler), priority, std::move(name));
}

}  // namespace Platform
}  // namespace Tolan
