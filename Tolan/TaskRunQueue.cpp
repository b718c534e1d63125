#include "Tolan/TaskRunQueue.h"

#include "Tolan/Assert.h"
#include "Tolan/Impl/TaskSchedulerAssert.h"

namespace Tolan {

namespace {
constexpr const char* kTemporaryNotEmpty = "The temporary run queue should always be empty at this point";
}

void TaskRunQueue::movePersistentToTemporary() {
  TOLAN_ASSERT_C(temporary_.empty(), TaskRunQueue, "{}", kTemporaryNotEmpty);
  temporary_.spliceBack(persistent_);
  current_ = &temporary_;
}

void TaskRunQueue::moveTemporaryToPersistent() {
  // Tasks that did not get their turn go ahead of those scheduled meanwhile:
  // append the persistent tasks behind them, then move the lot back.
  temporary_.spliceBack(persistent_);
  persistent_.spliceBack(temporary_);
  TOLAN_ASSERT_C(temporary_.empty(), TaskRunQueue, "{}", kTemporaryNotEmpty);
  current_ = &persistent_;
}

void TaskRunQueue::dequeueFail() noexcept {
  Impl::taskSchedulerAssertFail("taskSchedulerUnlinkTask", __LINE__, "taskSchedulerUnlinkTask");
}

void TaskRunQueues::movePersistentToTemporary() {
  for (TaskRunQueue& queue : queues_) queue.movePersistentToTemporary();
}

void TaskRunQueues::moveTemporaryToPersistent() {
  for (TaskRunQueue& queue : queues_) queue.moveTemporaryToPersistent();
}

}  // namespace Tolan
