// TaskFdControl: the FdControl contract kept on a descriptor task, the
// difference in clearEvents(), and exceptions offered to the handler.
#include "Tolan/TaskFdControl.h"
#include "support/FdTesting.h"
#include "support/SchedulerTesting.h"

using namespace Tolan;
using namespace TolanTest;

namespace {

class TaskFd : public SchedulerFixture {
 protected:
  std::shared_ptr<Platform::FdControl> control(Counting& h) {
    return Platform::getFdControl(&h, root, TaskPriority::high, "peer");
  }
  // Notifications during a short loop run, after `data` was sent to the peer.
  int readsAfter(Counting& h, const char* data) {
    const int before = h.reads;
    ::send(pair.b, data, std::strlen(data), MSG_NOSIGNAL);
    Platform::doEventLoop(0.03);
    return h.reads - before;
  }
  FdPair pair;
};

}  // namespace

// Fresh: no descriptor, reading. Notifications run as the named task at its
// priority; clearEvents() forgets the descriptor just as delFd() does.
TEST_F(TaskFd, KeepsTheControlContractAndForgetsOnClearEvents) {
  for (bool clear : {false, true}) {
    Counting h;
    auto c = control(h);
    EXPECT_EQ(c->getFd(), -1);
    c->setFd(pair.a);
    EXPECT_EQ(c->getFd(), pair.a);
    EXPECT_EQ(readsAfter(h, "x"), 1);
    EXPECT_EQ(h.lastFd, pair.a);
    TaskImpl* task = root->taskForTest("peer");
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->taskRunCount(), 1u);
    EXPECT_EQ(task->taskPriority(), TaskPriority::high);

    clear ? c->clearEvents() : c->delFd();
    EXPECT_EQ(c->getFd(), -1);
    EXPECT_EQ(readsAfter(h, "y"), 0);
    c->setFd(pair.a);  // interest was kept
    EXPECT_EQ(readsAfter(h, ""), 1);

    c->setReads(false);
    EXPECT_EQ(readsAfter(h, "z"), 0);
    c->setWrites(true);
    Platform::doEventLoop(0.03);
    EXPECT_EQ(h.writes, 1);  // one-shot
    EXPECT_NE(root->taskForTest("peer:write"), nullptr);
    c->setWrites(true);
    Platform::doEventLoop(0.03);
    EXPECT_EQ(h.writes, 2);
    c->setReads(true);
    EXPECT_EQ(readsAfter(h, ""), 1);
  }
}

// A throwing readFdEvent/writeFdEvent: handleFdException decides. Swallowed,
// the scheduler goes on; otherwise the exception leaves the event loop.
TEST_F(TaskFd, HandlerExceptionsSwallowedOrRethrown) {
  for (bool swallow : {true, false}) {
    for (bool write : {false, true}) {
      SCOPED_TRACE(::testing::Message() << "swallow " << swallow << " write " << write);
      Counting h;
      h.throwIt = true;
      h.swallow = swallow;
      auto c = control(h);
      c->setFd(pair.a);
      c->setReads(!write);
      c->setWrites(write);
      if (!write) ::send(pair.b, "x", 1, 0);
      if (swallow) {
        EXPECT_NO_THROW(Platform::doEventLoop(0.03));
        auto after = task(TaskPriority::low, "after");
        after->scheduleTask();
        Platform::doEventLoop(0.03);
        EXPECT_EQ(ran(), "after");
      } else {
        EXPECT_THROWS_WITH(Platform::doEventLoop(0.03), std::runtime_error, "handler failed");
      }
      EXPECT_EQ(h.exceptionFd, pair.a);
      EXPECT_EQ(write ? h.writes : h.reads, 1);
      c->delFd();
    }
  }
}
