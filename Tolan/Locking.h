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

#include "Tolan/Common.h"

namespace Tolan {
namespace Locking {

namespace Impl {

// What both locks share: a pthread mutex of a given type and its holder.
class TOLAN_EXPORT OwnedMutex {
 public:
  OwnedMutex(const OwnedMutex&) = delete;
  OwnedMutex& operator=(const OwnedMutex&) = delete;

  // Blocks until the lock is held. A pthread failure is thrown as
  // std::system_error carrying its error number.
  void lock();
  // Takes the lock if it is free; returns false (never throws) otherwise.
  bool try_lock() noexcept;
  // True when the calling thread holds the lock.
  bool owns_lock() const noexcept;
  // Holding thread, 0 when free. For diagnostics only.
  pthread_t owner() const noexcept { return owner_.load(std::memory_order_relaxed); }
  // For a fork() child handler only: makes the lock free, as if new. The
  // child's only thread is the one that forked, so nothing else can hold it.
  void reinitialise() noexcept;

 protected:
  explicit OwnedMutex(int type) noexcept;
  ~OwnedMutex();
  void init() noexcept;
  // Clears the holder and releases one level of the mutex.
  void release(bool lastLevel) noexcept;

  pthread_mutex_t mutex_;
  int type_;
  // Atomic only so that a non-holder may ask owns_lock() without a data race;
  // relaxed accesses compile to plain loads and stores.
  std::atomic<pthread_t> owner_{0};
};

}  // namespace Impl

// Non-recursive. Locking it again from the holding thread throws
// std::system_error (EDEADLK) instead of hanging.
class TOLAN_EXPORT Lock : public Impl::OwnedMutex {
 public:
  Lock() noexcept;
  // Releases the lock. Library assertion when the caller does not hold it.
  void unlock();
};

// The holder may lock again, and must unlock as often.
class TOLAN_EXPORT RecursiveLock : public Impl::OwnedMutex {
 public:
  RecursiveLock() noexcept;
  // Releases one level. Library assertion when the caller does not hold it.
  void unlock();
  // How often the holder has locked it (0 when free).
  unsigned lockCount() const noexcept;
  // For a fork() child handler only, after the prepare handler took one
  // level: drops that level and keeps those the forking thread held before
  // (it may fork while holding the lock).
  void releaseInForkChild() noexcept;
};

// Locks on construction; unlocks on destruction unless told not to with
// releaseIs(false), or unless the lock has already been handed on (the
// destructor only releases a lock the calling thread owns).
class TOLAN_EXPORT ConditionalGuard {
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
