// Thread.h - identity of the calling thread, thread names, and the
// per-thread choice between thread-local and process-global singletons.
//
// All functions act on the calling thread and may be called from any thread.
// gettid() is a system call; callers on hot paths should cache it.
#pragma once

#include <sys/types.h>

#include "Tolan/Common.h"

namespace Tolan {

// Kernel thread id of the calling thread.
TOLAN_EXPORT pid_t gettid() noexcept;

// gettid() remembered per thread: one thread-local load after the first call
// (and again after fork(), in the child). For hot paths such as trace lines.
TOLAN_EXPORT pid_t cachedGettid() noexcept;

// True on the thread whose kernel thread id equals the process id.
TOLAN_EXPORT bool isMainThread() noexcept;

// Names the calling thread (as shown by ps and in /proc). At most 15
// characters: the kernel refuses longer names, which is a library assertion,
// as is any other failure of pthread_setname_np. On the main thread this does
// nothing, so that the process name stays as it was.
TOLAN_EXPORT void threadNameIs(const char* name);

// The calling thread's name; read from the system once, then remembered.
// The pointer stays valid for the life of the thread.
TOLAN_EXPORT const char* threadName();

// Singleton getters (the timer wheel, for instance) call this to choose
// between their thread-local and their process-global instance. It also
// records that this thread has looked a singleton up.
TOLAN_EXPORT bool hasThreadLocalSingletons() noexcept;

// Switches the calling thread to thread-local singletons. Call it first thing
// in a new thread: once a singleton has been looked up, switching would leave
// the thread holding a global instance, and is a library assertion.
TOLAN_EXPORT void useThreadLocalSingletons();

}  // namespace Tolan
