#include "Tolan/Thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "Tolan/Assert.h"
#include "Tolan/Exception.h"

namespace {

using testing::HasSubstr;

class ThreadTest : public testing::Test {
 protected:
  void SetUp() override { Tolan::throwOnAssertFailIs(true); }
};

void onNewThread(const std::function<void()>& fn) {
  std::exception_ptr error;
  std::thread t([&] {
    try {
      fn();
    } catch (...) {
      error = std::current_exception();
    }
  });
  t.join();
  if (error) std::rethrow_exception(error);
}

// What the kernel calls the thread, as ps shows it.
std::string commOf(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
  std::string name;
  std::getline(in, name);
  return name;
}

// The assertion text `fn` throws, or "" if it does not throw.
std::string assertText(const std::function<void()>& fn) {
  testing::internal::CaptureStderr();
  std::string text;
  try {
    fn();
  } catch (const Tolan::AssertException& e) {
    text = e.what();
  }
  testing::internal::GetCapturedStderr();
  return text;
}

TEST_F(ThreadTest, IdentityOfMainAndOtherThreads) {
  EXPECT_EQ(Tolan::gettid(), getpid());
  EXPECT_TRUE(Tolan::isMainThread());
  pid_t a = 0, b = 0;
  std::thread ta([&] { a = Tolan::gettid(); EXPECT_FALSE(Tolan::isMainThread()); });
  std::thread tb([&] { b = Tolan::gettid(); EXPECT_FALSE(Tolan::isMainThread()); });
  ta.join();
  tb.join();
  EXPECT_NE(a, getpid());
  EXPECT_NE(a, b);
  // A real kernel thread id of this process, not some other number.
  onNewThread([] { EXPECT_FALSE(commOf(Tolan::gettid()).empty()); });
}

TEST_F(ThreadTest, CachedThreadIdFollowsThreadsAndFork) {
  EXPECT_EQ(Tolan::cachedGettid(), Tolan::gettid());
  onNewThread([] {
    EXPECT_EQ(Tolan::cachedGettid(), Tolan::gettid());
    EXPECT_NE(Tolan::cachedGettid(), getpid());
  });
  // The child inherits the parent's cached value; it must not keep it.
  const pid_t parentTid = Tolan::cachedGettid();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(Tolan::cachedGettid() == getpid() && Tolan::cachedGettid() != parentTid ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(ThreadTest, NamesUpToFifteenCharacters) {
  onNewThread([] {
    const pid_t tid = Tolan::gettid();
    // Before any name is set, the name is the one inherited from the creator.
    EXPECT_EQ(Tolan::threadName(), commOf(tid));

    Tolan::threadNameIs("exactly15-chars");
    EXPECT_STREQ(Tolan::threadName(), "exactly15-chars");
    EXPECT_EQ(commOf(tid), "exactly15-chars");

    Tolan::threadNameIs("short");
    EXPECT_STREQ(Tolan::threadName(), "short");
    EXPECT_EQ(commOf(tid), "short");

    for (const char* tooLong : {"sixteen-chars-xx", "twenty-characters-xx"}) {
      EXPECT_THAT(assertText([&] { Tolan::threadNameIs(tooLong); }),
                  HasSubstr(std::string("pthread_setname_np() failed:") + std::to_string(ERANGE) + " for name:" +
                            tooLong));
      // A refused name leaves the old one in place.
      EXPECT_STREQ(Tolan::threadName(), "short");
      EXPECT_EQ(commOf(tid), "short");
    }
  });
}

TEST_F(ThreadTest, MainThreadKeepsTheProcessName) {
  const std::string before = commOf(getpid());
  Tolan::threadNameIs("renamed-main");
  EXPECT_EQ(commOf(getpid()), before);
  EXPECT_EQ(Tolan::threadName(), before);
}

TEST_F(ThreadTest, ThreadLocalSingletonsMustBeChosenFirst) {
  onNewThread([] {
    Tolan::useThreadLocalSingletons();
    EXPECT_TRUE(Tolan::hasThreadLocalSingletons());
    // Choosing again after a look-up is harmless once the choice is made.
    EXPECT_NO_THROW(Tolan::useThreadLocalSingletons());
    EXPECT_TRUE(Tolan::hasThreadLocalSingletons());
  });
  onNewThread([] {
    EXPECT_FALSE(Tolan::hasThreadLocalSingletons());
    EXPECT_THAT(assertText([] { Tolan::useThreadLocalSingletons(); }),
                HasSubstr("Attempt to change threadLocalSingletons after a global singleton has already been created. "
                          "Please call useThreadLocalSingletons() immediately after spawning your thread."));
    EXPECT_FALSE(Tolan::hasThreadLocalSingletons());
  });
  // The choice is per thread: other threads' choices did not reach this one,
  // and a thread that never looked anything up may still switch.
  onNewThread([] { EXPECT_EQ(assertText([] { Tolan::useThreadLocalSingletons(); }), ""); });
}

}  // namespace
