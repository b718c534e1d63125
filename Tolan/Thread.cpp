#include "Tolan/Thread.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include "Tolan/Assert.h"

namespace Tolan {
namespace {

// pthread names hold 15 characters and the terminating NUL.
constexpr size_t kThreadNameSize = 16;

thread_local char tlsThreadName[kThreadNameSize];
thread_local bool tlsUseThreadLocalSingletons = false;
thread_local bool tlsSingletonLookedUp = false;

// 0 until first asked. A forked child starts with its parent thread's value,
// so fork() resets it in the child (whose only thread is the one that forked).
thread_local pid_t tlsTid = 0;
void forgetTidInChild() { tlsTid = 0; }

}  // namespace

pid_t gettid() noexcept { return static_cast<pid_t>(syscall(SYS_gettid)); }

pid_t cachedGettid() noexcept {
  if (TOLAN_UNLIKELY(tlsTid == 0)) {
    static const int registered = pthread_atfork(nullptr, nullptr, forgetTidInChild);
    (void)registered;
    tlsTid = gettid();
  }
  return tlsTid;
}

bool isMainThread() noexcept { return gettid() == getpid(); }

void threadNameIs(const char* name) {
  TOLAN_ASSERT(name != nullptr, "threadNameIs() given a null name");
  if (isMainThread()) return;
  const int rc = pthread_setname_np(pthread_self(), name);
  TOLAN_ASSERT(rc == 0, "pthread_setname_np() failed:{} for name:{}", rc, name);
  std::strncpy(tlsThreadName, name, kThreadNameSize);
  tlsThreadName[kThreadNameSize - 1] = '\0';
}

const char* threadName() {
  if (tlsThreadName[0] == '\0') {
    const int rc = pthread_getname_np(pthread_self(), tlsThreadName, kThreadNameSize);
    TOLAN_ASSERT(rc == 0, "pthread_getname_np() failed:{}", rc);
  }
  return tlsThreadName;
}

bool hasThreadLocalSingletons() noexcept {
  tlsSingletonLookedUp = true;
  return tlsUseThreadLocalSingletons;
}

void useThreadLocalSingletons() {
  TOLAN_ASSERT(tlsUseThreadLocalSingletons || !tlsSingletonLookedUp,
               "Attempt to change threadLocalSingletons after a global singleton has already been created. Please call "
               "useThreadLocalSingletons() immediately after spawning your thread.");
  tlsUseThreadLocalSingletons = true;
}

}  // namespace Tolan
