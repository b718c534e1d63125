// The per-thread root: one per thread, thread checks and their exemptions.
// The TaskSchedulerThreads tests are the ones to run under ThreadSanitizer.
#include "Tolan/Thread.h"
#include "support/Support.h"
#include "support/SchedulerTesting.h"

namespace {

using namespace Tolan;
using TolanTest::Probe;
using ::testing::HasSubstr;

// The assertion message `f` fails with on another thread, "" if it passes.
std::string onOtherThread(const std::function<void()>& f) {
  std::string message;
  std::thread([&] {
    try {
      f();
    } catch (const AssertException& e) {
      message = e.msg();
    }
  }).join();
  return message;
}

// First: ThreadSanitizer does not support threads started after a fork of a
// process that already has several.
TEST(TaskSchedulerThreads, ForkedChildIsExempt) {
  auto root = TaskSchedulerRootIs("parent");
  auto t = std::make_shared<Probe>(root, TaskPriority::normal, "t", nullptr);
  // A thread of the child uses the parent's scheduler: the owner is not here.
  EXPECT_EQ(TolanTest::exitStatusInChild([&] { return onOtherThread([&] { t->unscheduleTask(); }).empty() ? 0 : 1; }), 0);
}

TEST(TaskSchedulerThreads, EachThreadHasItsOwnRootReleasedAtThreadExit) {
  EXPECT_EQ(schedulerRootTolan(), schedulerRootTolan());
  EXPECT_EQ(schedulerRootTolan()->schedulerName(), "main");
  struct Seen { std::weak_ptr<TaskSchedulerRoot> root; std::string name, expected; int runs = 0; } seen[2];
  std::vector<std::thread> threads;
  for (Seen& s : seen) {
    threads.emplace_back([&s] {
      auto root = schedulerRootTolan();
      s.root = root;
      s.name = root->schedulerName();
      s.expected = "thread:" + std::to_string(Tolan::gettid());
      auto t = std::make_shared<Probe>(root, TaskPriority::normal, "there", nullptr, [&s](Probe& self) {
        if (++s.runs < 1000) self.scheduleTask();
      });
      t->scheduleTask();
      Platform::doEventLoop();
    });
  }
  for (auto& t : threads) t.join();
  for (const Seen& s : seen) {
    EXPECT_EQ(s.name, s.expected);
    EXPECT_TRUE(s.root.expired());
    EXPECT_EQ(s.runs, 1000);
  }
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

TEST(TaskSchedulerRoot, RandomPercentCanBeAHundred) {
  auto root = TaskSchedulerRootIs("random");
  root->randomSeedIs(57966750);  // rand_r's first draw from it is RAND_MAX - 2
  EXPECT_EQ(root->randomPercent(), 100u);
}

}  // namespace
