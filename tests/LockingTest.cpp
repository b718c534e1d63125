#include "Tolan/Locking.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <exception>
#include <functional>
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

class LockingTest : public testing::Test {
 protected:
  void SetUp() override { Tolan::throwOnAssertFailIs(true); }
};

// Runs `fn` on a new thread and rethrows whatever it threw here.
void onOtherThread(const std::function<void()>& fn) {
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

// The message of the AssertException that `fn` throws on another thread.
template <typename Fn>
std::string assertMessageOnOtherThread(Fn fn, pthread_t* who = nullptr) {
  std::string message;
  onOtherThread([&] {
    if (who) *who = pthread_self();
    testing::internal::CaptureStderr();  // the assertion's own trace line
    try {
      fn();
    } catch (const Tolan::AssertException& e) {
      message = e.what();
    }
    testing::internal::GetCapturedStderr();
  });
  return message;
}

TEST_F(LockingTest, LockTracksItsOwner) {
  Lock lock;
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_EQ(lock.owner(), pthread_t{0});
  lock.lock();
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_EQ(lock.owner(), pthread_self());
  onOtherThread([&] {
    EXPECT_FALSE(lock.owns_lock());
    EXPECT_FALSE(lock.try_lock());
  });
  // Not recursive: the holder's own try_lock fails too and changes nothing.
  EXPECT_FALSE(lock.try_lock());
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_EQ(lock.owner(), pthread_t{0});

  onOtherThread([&] {
    ASSERT_TRUE(lock.try_lock());
    EXPECT_TRUE(lock.owns_lock());
    lock.unlock();
  });
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
}

TEST_F(LockingTest, RelockingByTheOwnerThrowsInsteadOfHanging) {
  Lock lock;
  lock.lock();
  try {
    lock.lock();
    ADD_FAILURE() << "second lock() returned";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code().value(), EDEADLK);
  }
  EXPECT_FALSE(lock.try_lock());
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();
  EXPECT_FALSE(lock.owns_lock());
}

TEST_F(LockingTest, UnlockByNonOwnerNamesBothThreads) {
  Lock lock;
  lock.lock();
  pthread_t other{};
  const std::string message = assertMessageOnOtherThread([&] { lock.unlock(); }, &other);
  EXPECT_THAT(message, HasSubstr(fmt::format("attempting to release a lock that is not currently held, owner:{} me:{}",
                                             pthread_self(), other)));
  // The failed unlock left the lock with its owner.
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();

  // Releasing a free lock is the same error, with no owner.
  testing::internal::CaptureStderr();
  try {
    lock.unlock();
    ADD_FAILURE() << "unlock of a free lock did not assert";
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.what(), HasSubstr(fmt::format("owner:0 me:{}", pthread_self())));
  }
  testing::internal::GetCapturedStderr();
}

TEST_F(LockingTest, RecursiveLockCountsItsHolds) {
  RecursiveLock lock;
  EXPECT_EQ(lock.lockCount(), 0u);
  lock.lock();
  lock.lock();
  EXPECT_TRUE(lock.try_lock());  // the holder may take it again
  EXPECT_EQ(lock.lockCount(), 3u);
  onOtherThread([&] { EXPECT_FALSE(lock.try_lock()); });

  lock.unlock();
  lock.unlock();
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_EQ(lock.lockCount(), 1u);
  onOtherThread([&] { EXPECT_FALSE(lock.try_lock()); });

  lock.unlock();
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_EQ(lock.lockCount(), 0u);
  onOtherThread([&] {
    ASSERT_TRUE(lock.try_lock());
    lock.unlock();
  });
}

TEST_F(LockingTest, RecursiveUnlockByNonOwnerFails) {
  RecursiveLock lock;
  lock.lock();
  lock.lock();
  pthread_t other{};
  const std::string message = assertMessageOnOtherThread([&] { lock.unlock(); }, &other);
  EXPECT_THAT(message, HasSubstr(fmt::format("attempting to release a lock that is not currently held, owner:{} me:{} "
                                             "lockCount:",
                                             pthread_self(), other)));
  EXPECT_EQ(lock.lockCount(), 2u);
  lock.unlock();
  lock.unlock();

  testing::internal::CaptureStderr();
  EXPECT_THROW(lock.unlock(), Tolan::AssertException);
  testing::internal::GetCapturedStderr();
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
      std::lock_guard<RecursiveLock> g1(rlock);
      std::lock_guard<RecursiveLock> g2(rlock);
      ++recursive;
    }
  };
  std::thread a(work), b(work);
  a.join();
  b.join();
  EXPECT_EQ(plain, 2 * kRounds);
  EXPECT_EQ(recursive, 2 * kRounds);
  EXPECT_EQ(lock.owner(), pthread_t{0});
  EXPECT_EQ(rlock.lockCount(), 0u);
}

TEST_F(LockingTest, ConditionalGuardReleasesOnlyWhenAskedAndOwned) {
  Lock lock;
  {
    ConditionalGuard guard(lock);
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_TRUE(guard.release());
  }
  EXPECT_FALSE(lock.owns_lock());

  {
    ConditionalGuard guard(lock);
    guard.releaseIs(false);
  }
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();

  // Released early by hand: the guard must not unlock a second time (that
  // would be an assertion, thrown from a destructor).
  {
    ConditionalGuard guard(lock);
    lock.unlock();
  }
  EXPECT_FALSE(lock.owns_lock());

  // Handed to another thread while the guard lives: it stays with that thread.
  {
    ConditionalGuard guard(lock);
    lock.unlock();
    onOtherThread([&] { ASSERT_TRUE(lock.try_lock()); });
  }
  EXPECT_NE(lock.owner(), pthread_t{0});
  EXPECT_FALSE(lock.owns_lock());
}

TEST_F(LockingTest, GlobalLockIsOneRecursiveLock) {
  Tolan::Platform::Loco& loco = Tolan::Platform::loco();
  EXPECT_EQ(&loco, &Tolan::Platform::loco());
  EXPECT_FALSE(loco.owns_lock());
  {
    Tolan::Platform::LocoGuard outer;
    Tolan::Platform::LocoGuard inner;
    EXPECT_TRUE(loco.owns_lock());
    onOtherThread([&] { EXPECT_FALSE(loco.owns_lock()); });
  }
  EXPECT_FALSE(loco.owns_lock());
}

}  // namespace
