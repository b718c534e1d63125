// Owner-tracking locks, thread identity and names, and the choice of
// thread-local singletons. (The library-global lock is a recursive lock
// that the trace registry takes nested; DebugTest fails if it is not.)
#include <mutex>
#include <system_error>

#include "Tolan/Locking.h"
#include "Tolan/Thread.h"
#include "support/Support.h"

using namespace TolanTest;
using Tolan::Locking::ConditionalGuard;
using Tolan::Locking::Lock;
using Tolan::Locking::RecursiveLock;

void inThread(const std::function<void()>& f) { std::thread(f).join(); }

// What the kernel calls the thread, as ps shows it; "" for no such thread.
std::string commOf(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
  std::string name;
  std::getline(in, name);
  return name;
}

TEST(Locking, OnlyTheOwnerHoldsAndReleasesRecursiveHoldsAreCounted) {
  Lock lock;
  RecursiveLock rlock;
  lock.lock();
  EXPECT_EQ(lock.owner(), pthread_self());
  // Not recursive: the holder's own try_lock fails, and lock() throws instead of hanging.
  EXPECT_FALSE(lock.try_lock());
  EXPECT_THROWS_WITH(lock.lock(), std::system_error, std::strerror(EDEADLK));
  rlock.lock();
  rlock.lock();
  EXPECT_TRUE(rlock.try_lock());
  EXPECT_EQ(rlock.lockCount(), 3u);
  const pthread_t owner = pthread_self();
  inThread([&] {
    EXPECT_FALSE(lock.owns_lock() || lock.try_lock() || rlock.owns_lock() || rlock.try_lock());
    const auto expected =
        fmt::format("attempting to release a lock that is not currently held, owner:{} me:{}", owner, pthread_self());
    EXPECT_ASSERTS(lock.unlock(), expected);
    EXPECT_ASSERTS(rlock.unlock(), expected + " lockCount:");
  });
  EXPECT_TRUE(lock.owns_lock());  // the failed unlocks changed nothing
  lock.unlock();
  EXPECT_EQ(lock.owner(), pthread_t{0});
  EXPECT_ASSERTS(lock.unlock(), fmt::format("owner:0 me:{}", pthread_self()));
  rlock.unlock();
  rlock.unlock();
  EXPECT_TRUE(rlock.owns_lock());
  inThread([&] { EXPECT_FALSE(rlock.try_lock()); });
  rlock.unlock();
  EXPECT_EQ(rlock.lockCount(), 0u);
  EXPECT_ASSERTS(rlock.unlock(), "lockCount:0");
  inThread([&] {
    ASSERT_TRUE(lock.try_lock() && rlock.try_lock());
    lock.unlock();
    rlock.unlock();
  });
}

TEST(Locking, ConditionalGuardReleasesOnlyWhenAskedAndOwned) {
  Lock lock;
  { ConditionalGuard guard(lock); }
  EXPECT_FALSE(lock.owns_lock());
  {
    ConditionalGuard guard(lock);
    guard.releaseIs(false);
  }
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();
  // Released early and taken by another thread meanwhile: the guard must
  // neither unlock twice (an assertion thrown from a destructor) nor take it
  // back. The other thread releases it before the lock is destroyed.
  std::atomic<int> step{0};
  std::thread holder;
  {
    ConditionalGuard guard(lock);
    lock.unlock();
    holder = std::thread([&] {
      lock.lock();
      for (step = 1; step != 2;) {
      }
      lock.unlock();
    });
    while (step != 1) {
    }
  }
  EXPECT_NE(lock.owner(), pthread_t{0});
  step = 2;
  holder.join();
}

TEST(Thread, IdentityFollowsThreadsAndFork) {
  EXPECT_EQ(Tolan::gettid(), getpid());
  EXPECT_EQ(Tolan::cachedGettid(), getpid());
  EXPECT_TRUE(Tolan::isMainThread());
  pid_t a = 0, b = 0;
  auto other = [](pid_t& tid) {
    tid = Tolan::gettid();
    EXPECT_EQ(Tolan::cachedGettid(), tid);
    EXPECT_EQ(Tolan::Backtrace(true).tid(), tid);  // a stack names the thread that took it
    EXPECT_FALSE(Tolan::isMainThread());
    EXPECT_FALSE(commOf(tid).empty());  // a real thread of this process
  };
  std::thread ta(other, std::ref(a)), tb(other, std::ref(b));
  ta.join();
  tb.join();
  EXPECT_NE(a, getpid());
  EXPECT_NE(a, b);
  // A forked child inherits the parent's cached value; it must not keep it.
  EXPECT_EQ(exitStatusInChild([] { return Tolan::cachedGettid() == getpid() && Tolan::Backtrace(true).tid() == getpid() ? 0 : 1; }), 0);
}

TEST(Thread, NamesUpToFifteenCharactersButNotTheProcessName) {
  inThread([] {
    const pid_t tid = Tolan::gettid();
    EXPECT_EQ(Tolan::threadName(), commOf(tid));  // inherited from the creator
    for (const char* name : {"exactly15-chars", "short"}) {
      Tolan::threadNameIs(name);
      EXPECT_STREQ(Tolan::threadName(), name);
      EXPECT_EQ(commOf(tid), name);
    }
    for (const char* tooLong : {"sixteen-chars-xx", "twenty-characters-xx"}) {
      EXPECT_ASSERTS(Tolan::threadNameIs(tooLong), fmt::format("pthread_setname_np() failed:{} for name:{}", ERANGE, tooLong));
      EXPECT_STREQ(Tolan::threadName(), "short");  // a refused name changes nothing
      EXPECT_EQ(commOf(tid), "short");
    }
  });
  const std::string before = commOf(getpid());
  Tolan::threadNameIs("renamed-main");
  EXPECT_EQ(commOf(getpid()), before);
  EXPECT_EQ(Tolan::threadName(), before);
}

// The choice is per thread and must come before the first singleton is looked up.
TEST(Thread, ThreadLocalSingletonsMustBeChosenFirst) {
  inThread([] {
    Tolan::useThreadLocalSingletons();
    EXPECT_TRUE(Tolan::hasThreadLocalSingletons());
    EXPECT_NO_THROW(Tolan::useThreadLocalSingletons());  // again, once chosen
  });
  inThread([] {
    EXPECT_FALSE(Tolan::hasThreadLocalSingletons());
    EXPECT_ASSERTS(Tolan::useThreadLocalSingletons(),
                   "Attempt to change threadLocalSingletons after a global singleton has already been created. "
                   "Please call useThreadLocalSingletons() immediately after spawning your thread.");
    EXPECT_FALSE(Tolan::hasThreadLocalSingletons());
  });
}

