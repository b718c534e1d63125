// TaskRunQueue.h - the run queues of a scheduler: one FIFO of runnable tasks
// per priority.
//
// Each priority has two intrusive lists. scheduleTask() always appends to the
// persistent list; the scheduler picks from the current list, which is the
// persistent one except while a task group runs one turn: the group moves its
// queues to the temporary lists first, so that a task rescheduled during the
// turn lands on the persistent list and waits for the next turn.
//
// The queues belong to their scheduler (TaskScheduler); tasks get on and off
// them through scheduleTask() and unscheduleTask(). No operation allocates;
// the moves are constant time. Same thread as the scheduler.
#pragma once

#include <array>
#include <cstdint>

#include "Tolan/IntrusiveLinkedListBase.h"
#include "Tolan/Task.h"

namespace Tolan {

class TOLAN_EXPORT TaskRunQueue {
 public:
  using TaskList = List<TaskImpl, ListLinkNode<TaskImpl>, &TaskImpl::taskRunQueueLink_, void>;

  TaskRunQueue() = default;
  TaskRunQueue(const TaskRunQueue&) = delete;
  TaskRunQueue& operator=(const TaskRunQueue&) = delete;

  // The first task of the current list, or null.
  TaskImpl* front() noexcept { return current_->front(); }
  const TaskImpl* front() const noexcept { return current_->front(); }
  // Tasks on the queue: enqueued - dequeued.
  uint64_t pending() const noexcept { return enqueued_ - dequeued_; }
  uint64_t enqueued() const noexcept { return enqueued_; }
  uint64_t dequeued() const noexcept { return dequeued_; }
  uint32_t consecutivePicks() const noexcept { return consecutivePicks_; }
  bool temporaryIsCurrent() const noexcept { return current_ == &temporary_; }

  // Moves every task of the persistent list, in order, to the temporary list
  // and picks from there. The temporary list must be empty (assertion "The
  // temporary run queue should always be empty at this point").
  void movePersistentToTemporary();
  // Puts what is left on the temporary list, in order, in front of the
  // persistent list and picks from the persistent list again.
  void moveTemporaryToPersistent();

 private:
  friend class TaskScheduler;
  friend class TaskImpl;

  void enqueue(TaskImpl& task) noexcept {
    persistent_.pushBack(task);
    ++enqueued_;
  }
  // Takes `task`, which is on this queue, off it.
  void dequeue(TaskImpl& task) noexcept {
    if (TOLAN_UNLIKELY(dequeued_ >= enqueued_)) dequeueFail();
    ++dequeued_;
    task.taskRunQueueLink_.unlink();
  }
  [[noreturn]] TOLAN_COLD static void dequeueFail() noexcept;

  TaskList persistent_;
  TaskList temporary_;
  TaskList* current_ = &persistent_;
  uint32_t consecutivePicks_ = 0;
  uint64_t enqueued_ = 0;
  uint64_t dequeued_ = 0;
};

// The queues of the five priorities, indexed by priority value.
class TOLAN_EXPORT TaskRunQueues {
 public:
  using TaskRunQueue = Tolan::TaskRunQueue;
  static constexpr unsigned kCount = TaskPriority::oneBeyondLast;

  TaskRunQueue& operator[](TaskPriority p) noexcept { return queues_[p.number()]; }
  const TaskRunQueue& operator[](TaskPriority p) const noexcept { return queues_[p.number()]; }

  // The move of the same name on every queue, in priority order.
  void movePersistentToTemporary();
  void moveTemporaryToPersistent();

 private:
  std::array<TaskRunQueue, kCount> queues_;
};

}  // namespace Tolan
