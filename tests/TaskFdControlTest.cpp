// TaskFdControl: the FdControl contract kept on a descriptor task, the
// difference in clearEvents(), and exceptions offered to the handler.
#include "Tolan/TaskFdControl.h"
#include "support/FdTesting.h"
#include "support/SchedulerTesting.h"

using namespace Tolan;
using namespace TolanTest;

class TaskFd : public SchedulerFixture {
 protected:
  // Read notifications during a short loop run after `data` went to the peer.
  int readsAfter(Counting& h, const char* data) {
    const int before = h.reads;
    EXPECT_EQ(::write(pair.b, data, std::strlen(data)), ssize_t(std::strlen(data)));
    Platform::doEventLoop(0.03);
    return h.reads - before;
  }
  FdPair pair;
};

// Fresh: no descriptor, reading. Notifications run as the named task at its
// priority; clearEvents() forgets the descriptor just as delFd() does.
TEST_F(TaskFd, KeepsTheControlContractAndForgetsOnClearEvents) {
  for (bool clear : {false, true}) {
    Counting h;
    auto c = Platform::getFdControl(&h, root, TaskPriority::high, "peer");
    EXPECT_EQ(c->getFd(), -1);
    c->setFd(pair.a);
    EXPECT_EQ(readsAfter(h, "x"), 1);
    EXPECT_EQ(h.lastFd, pair.a);
    const TaskImpl* task = root->taskForTest("peer");
    EXPECT_TRUE(task->taskRunCount() == 1 && task->taskPriority() == TaskPriority::high);
    clear ? c->clearEvents() : c->delFd();
    EXPECT_EQ(c->getFd(), -1);
    EXPECT_EQ(readsAfter(h, "y"), 0);
    c->setFd(pair.a);  // read interest was kept
    EXPECT_EQ(readsAfter(h, ""), 1);
    c->setReads(false);
    EXPECT_EQ(readsAfter(h, "z"), 0);
    for (int i = 1; i <= 2; ++i) {  // one notification per setWrites(true)
      c->setWrites(true);
      Platform::doEventLoop(0.03);
      EXPECT_EQ(h.writes, i);
    }
    EXPECT_EQ(root->taskForTest("peer:write")->taskRunCount(), 2u);
    c->setReads(true);
    EXPECT_EQ(readsAfter(h, ""), 1);
  }
}

// A throwing readFdEvent/writeFdEvent: handleFdException decides. Swallowed,
// the scheduler goes on; otherwise the exception leaves the event loop.
TEST_F(TaskFd, HandlerExceptionsSwallowedOrRethrown) {
  for (int row = 0; row < 4; ++row) {
    const bool swallow = row & 1, write = row & 2;
    SCOPED_TRACE(row);
    Counting h;
    h.throwIt = true;
    h.swallow = swallow;
    auto c = Platform::getFdControl(&h, root, TaskPriority::high, "peer");
    c->setFd(pair.a);
    c->setReads(!write);
    c->setWrites(write);
    ASSERT_EQ(write ? 1 : ::write(pair.b, "x", 1), 1);
    auto after = task(TaskPriority::low, "after");
    if (swallow) {
      after->scheduleTask();
      EXPECT_NO_THROW(Platform::doEventLoop(0.03));
      EXPECT_EQ(ran(), "after");
    } else {
      EXPECT_THROWS_WITH(Platform::doEventLoop(0.03), std::runtime_error, "handler failed");
    }
    EXPECT_EQ(h.exceptionFd, pair.a);
    EXPECT_EQ(write ? h.writes : h.reads, 1);
  }
}
