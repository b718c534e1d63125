#include "Tolan/Locking.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "Tolan/Assert.h"
#include "Tolan/Exception.h"
#include "Tolan/Loco.h"

namespace {

using Tolan::Locking::ConditionalGuard;
using Tolan::Locking::Lock;
using Tolan::Locking::RecursiveLock;
using testing::HasSubstr;
using testing::ThrowsMessage;

class LockingTest : public testing::Test {
 protected:
  void SetUp() override { Tolan::throwOnAssertFailIs(true); }
};

TEST_F(LockingTest, LockTracksItsOwnerAndRefusesToRelock) {
  Lock lock;
  EXPECT_EQ(lock.owner(), pthread_t{0});
  lock.lock();
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_EQ(lock.owner(), pthread_self());
  std::thread([&] {
    EXPECT_FALSE(lock.owns_lock());
    EXPECT_FALSE(lock.try_lock());
  }).join();
  // Not recursive: the holder's own try_lock fails, and lock() throws instead of hanging.
  EXPECT_FALSE(lock.try_lock());
  EXPECT_THAT([&] { lock.lock(); },
              testing::Throws<std::system_error>(
                  testing::Property(&std::system_error::code, testing::Property(&std::error_code::value, EDEADLK))));
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_EQ(lock.owner(), pthread_t{0});
  std::thread([&] {
    ASSERT_TRUE(lock.try_lock());
    EXPECT_TRUE(lock.owns_lock());
    lock.unlock();
  }).join();
}

TEST_F(LockingTest, OnlyTheOwnerReleasesAndRecursiveHoldsAreCounted) {
  Lock lock;
  RecursiveLock rlock;
  lock.lock();
  rlock.lock();
  rlock.lock();
  EXPECT_TRUE(rlock.try_lock());  // the holder may take it again
  EXPECT_EQ(rlock.lockCount(), 3u);
  const pthread_t owner = pthread_self();
  std::thread([&] {
    EXPECT_FALSE(rlock.try_lock());
    const auto expected = fmt::format("attempting to release a lock that is not currently held, owner:{} me:{}", owner,
                                      pthread_self());
    EXPECT_THAT([&] { lock.unlock(); }, ThrowsMessage<Tolan::AssertException>(HasSubstr(expected)));
    EXPECT_THAT([&] { rlock.unlock(); }, ThrowsMessage<Tolan::AssertException>(HasSubstr(expected + " lockCount:")));
  }).join();
  // The failed unlocks left the locks with their owner.
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_EQ(rlock.lockCount(), 3u);
  lock.unlock();
  rlock.unlock();
  rlock.unlock();
  EXPECT_TRUE(rlock.owns_lock());
  std::thread([&] { EXPECT_FALSE(rlock.try_lock()); }).join();
  rlock.unlock();
  EXPECT_FALSE(rlock.owns_lock());
  EXPECT_EQ(rlock.lockCount(), 0u);
  std::thread([&] {
    ASSERT_TRUE(rlock.try_lock());
    rlock.unlock();
  }).join();

  // Releasing a free lock is the same error, with no owner.
  EXPECT_THAT([&] { lock.unlock(); },
              ThrowsMessage<Tolan::AssertException>(HasSubstr(fmt::format("owner:0 me:{}", pthread_self()))));
  EXPECT_THROW(rlock.unlock(), Tolan::AssertException);
}

TEST_F(LockingTest, LocksExcludeEachOther) {
  // A lock that did not exclude would lose increments.
  Lock lock;
  RecursiveLock rlock;
  long plain = 0, recursive = 0;
  constexpr int kRounds = 20000;
  auto work = [&] {
    for (int i = 0; i < kRounds; ++i) {
      {
        std::lock_guard<Lock> g(lock);
        ++plain;
      }
      std::lock_guard<RecursiveLock> g1(rlock), g2(rlock);
      ++recursive;
    }
  };
  std::thread a(work), b(work);
  a.join();
  b.join();
  EXPECT_EQ(plain, 2 * kRounds);
  EXPECT_EQ(recursive, 2 * kRounds);
  EXPECT_EQ(rlock.lockCount(), 0u);
}

TEST_F(LockingTest, ConditionalGuardReleasesOnlyWhenAskedAndOwned) {
  Lock lock;
  {
    ConditionalGuard guard(lock);
    EXPECT_TRUE(lock.owns_lock());
  }
  EXPECT_FALSE(lock.owns_lock());
  {
    ConditionalGuard guard(lock);
    guard.releaseIs(false);
  }
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();

  // Released early by hand: the guard must not unlock a second time (that
  // would be an assertion, thrown from a destructor)...
  {
    ConditionalGuard guard(lock);
    lock.unlock();
  }
  EXPECT_FALSE(lock.owns_lock());
  // ...nor take it from another thread it was handed to meanwhile.
  {
    ConditionalGuard guard(lock);
    lock.unlock();
    std::thread([&] { ASSERT_TRUE(lock.try_lock()); }).join();
  }
  EXPECT_NE(lock.owner(), pthread_t{0});
}

TEST_F(LockingTest, GlobalLockIsOneRecursiveLock) {
  Tolan::Platform::Loco& loco = Tolan::Platform::loco();
  EXPECT_EQ(&loco, &Tolan::Platform::loco());
  EXPECT_FALSE(loco.owns_lock());
  {
    Tolan::Platform::LocoGuard outer;
    Tolan::Platform::LocoGuard inner;
    EXPECT_TRUE(loco.owns_lock());
    std::thread([&] { EXPECT_FALSE(loco.owns_lock()); }).join();
  }
  EXPECT_FALSE(loco.owns_lock());
}

}  // namespace
