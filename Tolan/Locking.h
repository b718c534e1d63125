// Locking.h - mutexes that know their owner.
//
// `Lock` (non-recursive) and `RecursiveLock` wrap a pthread mutex and record
// the holding thread, so that releasing a lock the caller does not hold is a
// library assertion instead of silent undefined behaviour, and so that code
// can check `owns_lock()` before touching state the lock guards.
//
// Cost: one pthread call plus one store per lock and unlock. Any thread may
// use them. Both satisfy the standard Lockable requirements, so they work
// with std::lock_guard and std::unique_lock.
#pragma once

#include <pthread.h>

#include <atomic>

namespace Tolan {
namespace Locking {

class Lock {
 public:
  Lock() noexcept;
  ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  // Blocks until the lock is held. A pthread failure is thrown as
  // std::system_error carrying its error number; so is locking a Lock the
  // caller already holds (EDEADLK), which would otherwise hang.
  void lock();
  // Takes the lock if it is free; returns false (never throws) otherwise.
  bool try_lock() noexcept;
  // True when the calling thread holds the lock.
  bool owns_lock() const noexcept;
  // Releases the lock. Library assertion when the caller does not hold it.
  void unlock();

  // Holding thread, 0 when free. For diagnostics only.
  pthread_t owner() const noexcept { return owner_.load(std::memory_order_relaxed); }

 private:
  pthread_mutex_t mutex_;
  // Atomic only so that a non-holder may ask owns_lock() without a data race;
  // relaxed accesses compile to plain loads and stores.
  std::atomic<pthread_t> owner_{0};
};

class RecursiveLock {
 public:
  RecursiveLock() noexcept;
  ~RecursiveLock();
  RecursiveLock(const RecursiveLock&) = delete;
  RecursiveLock& operator=(const RecursiveLock&) = delete;

  // As for Lock; the holder may lock again, and must unlock as often.
  void lock();
  bool try_lock() noexcept;
  bool owns_lock() const noexcept;
  // Releases one level. Library assertion when the caller does not hold it.
  void unlock();

  pthread_t owner() const noexcept { return owner_.load(std::memory_order_relaxed); }
  // How often the holder has locked it (0 when free).
  unsigned lockCount() const noexcept;

 private:
  pthread_mutex_t mutex_;
  std::atomic<pthread_t> owner_{0};
};

// Locks on construction; unlocks on destruction unless told not to with
// releaseIs(false), or unless the lock has already been handed on (the
// destructor only releases a lock the calling thread owns).
class ConditionalGuard {
 public:
  explicit ConditionalGuard(Lock& lock) : lock_(lock) { lock_.lock(); }
  ~ConditionalGuard() {
    if (release_ && lock_.owns_lock()) lock_.unlock();
  }
  ConditionalGuard(const ConditionalGuard&) = delete;
  ConditionalGuard& operator=(const ConditionalGuard&) = delete;

  void releaseIs(bool release) noexcept { release_ = release; }
  bool release() const noexcept { return release_; }

 private:
  Lock& lock_;
  bool release_ = true;
};

}  // namespace Locking
}  // namespace Tolan
