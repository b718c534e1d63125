#include "Tolan/Thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>
#include <fstream>
#include <string>
#include <thread>

#include "Tolan/Assert.h"
#include "Tolan/Exception.h"

namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

class ThreadTest : public testing::Test {
 protected:
  void SetUp() override { Tolan::throwOnAssertFailIs(true); }
};

// What the kernel calls the thread, as ps shows it; "" for no such thread.
std::string commOf(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
  std::string name;
  std::getline(in, name);
  return name;
}

TEST_F(ThreadTest, IdentityFollowsThreadsAndFork) {
  EXPECT_EQ(Tolan::gettid(), getpid());
  EXPECT_EQ(Tolan::cachedGettid(), getpid());
  EXPECT_TRUE(Tolan::isMainThread());
  pid_t a = 0, b = 0;
  auto other = [](pid_t& tid) {
    tid = Tolan::gettid();
    EXPECT_EQ(Tolan::cachedGettid(), tid);
    EXPECT_FALSE(Tolan::isMainThread());
    EXPECT_FALSE(commOf(tid).empty());  // a real thread of this process
  };
  std::thread ta(other, std::ref(a)), tb(other, std::ref(b));
  ta.join();
  tb.join();
  EXPECT_NE(a, getpid());
  EXPECT_NE(a, b);

  // A forked child inherits the parent's cached value; it must not keep it.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(Tolan::cachedGettid() == getpid() ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(ThreadTest, NamesUpToFifteenCharacters) {
  std::thread([] {
    const pid_t tid = Tolan::gettid();
    // Before any name is set, the name is the one inherited from the creator.
    EXPECT_EQ(Tolan::threadName(), commOf(tid));
    for (const char* name : {"exactly15-chars", "short"}) {
      Tolan::threadNameIs(name);
      EXPECT_STREQ(Tolan::threadName(), name);
      EXPECT_EQ(commOf(tid), name);
    }
    for (const char* tooLong : {"sixteen-chars-xx", "twenty-characters-xx"}) {
      EXPECT_THAT([&] { Tolan::threadNameIs(tooLong); },
                  ThrowsMessage<Tolan::AssertException>(HasSubstr(fmt::format(
                      "pthread_setname_np() failed:{} for name:{}", ERANGE, tooLong))));
      // A refused name leaves the old one in place.
      EXPECT_STREQ(Tolan::threadName(), "short");
      EXPECT_EQ(commOf(tid), "short");
    }
  }).join();
  // The main thread keeps the process name.
  const std::string before = commOf(getpid());
  Tolan::threadNameIs("renamed-main");
  EXPECT_EQ(commOf(getpid()), before);
  EXPECT_EQ(Tolan::threadName(), before);
}

TEST_F(ThreadTest, ThreadLocalSingletonsMustBeChosenFirst) {
  std::thread([] {
    Tolan::useThreadLocalSingletons();
    EXPECT_TRUE(Tolan::hasThreadLocalSingletons());
    // Choosing again after a look-up is harmless once the choice is made.
    EXPECT_NO_THROW(Tolan::useThreadLocalSingletons());
    EXPECT_TRUE(Tolan::hasThreadLocalSingletons());
  }).join();
  // The choice is per thread: the one above did not reach these.
  std::thread([] {
    EXPECT_FALSE(Tolan::hasThreadLocalSingletons());
    EXPECT_THAT([] { Tolan::useThreadLocalSingletons(); },
                ThrowsMessage<Tolan::AssertException>(HasSubstr(
                    "Attempt to change threadLocalSingletons after a global singleton has already been created. "
                    "Please call useThreadLocalSingletons() immediately after spawning your thread.")));
    EXPECT_FALSE(Tolan::hasThreadLocalSingletons());
  }).join();
}

}  // namespace
