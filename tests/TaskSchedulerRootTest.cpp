// The per-thread root: one per thread, thread checks and their exemptions.
// The TaskSchedulerThreads tests are the ones to run under ThreadSanitizer.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "Tolan/Thread.h"
#include "support/EventTesting.h"
#include "support/SchedulerTesting.h"

namespace {

using namespace Tolan;
using TolanTest::Probe;
using ::testing::HasSubstr;

const bool throwing = (throwOnAssertFailIs(true), true);

// The assertion message `f` fails with on another thread, "" if it passes.
// The other thread lives as long as the process: a thread that ends after
// a library exception was made on it runs libunwind's per-thread cache
// destructor, which crashes under ThreadSanitizer.
std::string onOtherThread(std::function<void()> f) {
  struct Worker {
    std::mutex mutex;
    std::condition_variable changed;
    std::function<void()> job;
    bool done = false;
  };
  static Worker* const worker = [] {
    auto* w = new Worker;  // never destroyed: its thread never ends
    std::thread([w] {
      for (;;) {
        std::unique_lock<std::mutex> lock(w->mutex);
        w->changed.wait(lock, [w] { return static_cast<bool>(w->job); });
        auto job = std::move(w->job);
        w->job = nullptr;
        lock.unlock();
        job();
        lock.lock();
        w->done = true;
        w->changed.notify_all();
      }
    }).detach();
    return w;
  }();
  std::string message;
  std::unique_lock<std::mutex> lock(worker->mutex);
  worker->done = false;
  worker->job = [&] {
    try {
      f();
    } catch (const AssertException& e) {
      message = e.msg();
    }
  };
  worker->changed.notify_all();
  worker->changed.wait(lock, [] { return worker->done; });
  return message;
}

// First: ThreadSanitizer does not support threads started after a fork of a
// process that has several, and onOtherThread's thread stays.
TEST(TaskSchedulerThreads, ForkedChildIsExempt) {
  auto root = TaskSchedulerRootIs("parent");
  auto t = std::make_shared<Probe>(root, TaskPriority::normal, "t", nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // A thread of the child uses the parent's scheduler: the owner is not here.
    bool passed = false;
    std::thread([&] {
      t->unscheduleTask();
      passed = true;
    }).join();
    _exit(passed ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(TaskSchedulerThreads, EachThreadHasItsOwnRootReleasedAtThreadExit) {
  auto mine = schedulerRootTolan();
  EXPECT_EQ(mine, schedulerRootTolan());
  EXPECT_EQ(mine->schedulerName(), "main");
  std::weak_ptr<TaskSchedulerRoot> theirs;
  std::string name;
  pid_t tid = 0;
  std::vector<std::string> log;
  std::thread([&] {
    // Destroyed after the root (made later): the base outlives it.
    thread_local struct FreeBase {
      ~FreeBase() { leFree(); }
    } freeBase;
    (void)freeBase;
    auto root = schedulerRootTolan();
    theirs = root;
    name = root->schedulerName();
    tid = Tolan::gettid();
    auto t = std::make_shared<Probe>(root, TaskPriority::normal, "there", &log);
    t->scheduleTask();
    Platform::doEventLoop();
  }).join();
  EXPECT_EQ(name, "thread:" + std::to_string(tid));
  EXPECT_TRUE(theirs.expired());
  EXPECT_EQ(log, std::vector<std::string>{"there"});
}

TEST(TaskSchedulerThreads, OtherThreadsFailTheCheckUnlessExempt) {
  auto root = TaskSchedulerRootIs("owner");
  auto t = std::make_shared<Probe>(root, TaskPriority::normal, "t", nullptr);
  auto unschedule = [&] { t->unscheduleTask(); };
  const std::string message = onOtherThread(unschedule);
  EXPECT_THAT(message, HasSubstr("Executing in wrong thread "));
  EXPECT_THAT(message, HasSubstr(" pid " + std::to_string(getpid()) + " scheduler belongs to thread " +
                                 std::to_string(Tolan::gettid()) + "("));
  EXPECT_THAT(onOtherThread([&] { root->suspendedIs(true); }), HasSubstr("Executing in wrong thread "));

  root->threadSanityDisabledIs(true);
  EXPECT_EQ(onOtherThread(unschedule), "");
  root->threadSanityDisabledIs(false);
  auxiliaryThreadCountInc();
  EXPECT_EQ(onOtherThread(unschedule), "");
  auxiliaryThreadCountDec();
  EXPECT_NE(onOtherThread(unschedule), "");
}

TEST(TaskSchedulerRoot, RandomPercentRunsFromZeroToAHundredInclusive) {
  auto root = TaskSchedulerRootIs("random");
  root->randomSeedIs(57966750);  // rand_r's first draw from it is RAND_MAX - 2
  EXPECT_EQ(root->randomPercent(), 100u);
  unsigned low = 100, high = 0;
  for (int i = 0; i < 10000; ++i) {
    const unsigned r = root->randomPercent();
    low = std::min(low, r);
    high = std::max(high, r);
  }
  EXPECT_EQ(low, 0u);
  EXPECT_EQ(high, 99u);  // 100 needs one of the 47 largest draws
}

}  // namespace
