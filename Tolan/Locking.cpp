#include "Tolan/Locking.h"

#include <bits/gthr.h>

#include <system_error>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

#include "Tolan/Assert.h"

// Without the threads library linked in (only possible with pre-2.34 glibc,
// where libpthread was separate), the mutex functions are absent at run time.
// The locks then only track an owner of 1, which is enough for the ownership
// checks of a single-threaded process. libstdc++ answers the question for us.

namespace Tolan {
namespace Locking {
namespace {

constexpr pthread_t kNoThreadsOwner = 1;

bool threadsActive() noexcept { return __gthread_active_p() != 0; }

pthread_t self() noexcept { return threadsActive() ? pthread_self() : kNoThreadsOwner; }

}  // namespace

namespace Impl {

OwnedMutex::OwnedMutex(int type) noexcept : type_(type) { init(); }

void OwnedMutex::init() noexcept {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, type_);
  pthread_mutex_init(&mutex_, &attr);
  pthread_mutexattr_destroy(&attr);
}

// A mutex held in the parent cannot be unlocked in the child: glibc checks the
// owner's kernel thread id, which the child's thread does not share.
void OwnedMutex::reinitialise() noexcept {
#if defined(__SANITIZE_THREAD__)
  // Re-initialising does not reset what ThreadSanitizer knows: tell it that
  // the holder (this very thread, if anyone) let go at every level.
  if (owns_lock()) {
    __tsan_mutex_pre_unlock(&mutex_, __tsan_mutex_recursive_unlock);
    __tsan_mutex_post_unlock(&mutex_, __tsan_mutex_recursive_unlock);
  }
#endif
  init();
  owner_.store(0, std::memory_order_relaxed);
}

OwnedMutex::~OwnedMutex() { pthread_mutex_destroy(&mutex_); }

void OwnedMutex::lock() {
  if (threadsActive()) {
    if (int rc = pthread_mutex_lock(&mutex_)) throw std::system_error(rc, std::generic_category(), "pthread_mutex_lock");
  }
  owner_.store(self(), std::memory_order_relaxed);
}

bool OwnedMutex::try_lock() noexcept {
  if (threadsActive() && pthread_mutex_trylock(&mutex_) != 0) return false;
  owner_.store(self(), std::memory_order_relaxed);
  return true;
}

bool OwnedMutex::owns_lock() const noexcept { return owner() == self(); }

void OwnedMutex::release(bool lastLevel) noexcept {
  if (lastLevel) owner_.store(0, std::memory_order_relaxed);
  if (threadsActive()) pthread_mutex_unlock(&mutex_);
}

}  // namespace Impl

// Error-checking, so that a thread locking a Lock it already holds gets
// EDEADLK (thrown as std::system_error) instead of hanging for ever.
Lock::Lock() noexcept : OwnedMutex(PTHREAD_MUTEX_ERRORCHECK) {}

void Lock::unlock() {
  TOLAN_ASSERT(owns_lock(), "attempting to release a lock that is not currently held, owner:{} me:{}", owner(), self());
  release(true);
}

RecursiveLock::RecursiveLock() noexcept : OwnedMutex(PTHREAD_MUTEX_RECURSIVE) {}

// The recursion depth is the mutex's own counter: keeping a second count beside
// it could only drift. Reading it is glibc-specific, as is this library.
unsigned RecursiveLock::lockCount() const noexcept {
  if (!threadsActive()) return owns_lock() ? 1u : 0u;
  return owner() == 0 ? 0u : mutex_.__data.__count;
}

void RecursiveLock::unlock() {
  const unsigned count = lockCount();
  TOLAN_ASSERT(owns_lock() && count != 0,
               "attempting to release a lock that is not currently held, owner:{} me:{} lockCount:{}", owner(), self(),
               count);
  release(count == 1);
}

void RecursiveLock::releaseInForkChild() noexcept {
  const unsigned levels = lockCount() - 1;
  reinitialise();
  for (unsigned i = 0; i < levels; ++i) lock();
}

}  // namespace Locking
}  // namespace Tolan
