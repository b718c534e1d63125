// TaskSchedulerImpl.h - what the scheduler's own units share and users do not
// see: the trace handle and the clock of the run loop.
#pragma once

#include <time.h>

#include <atomic>

#include "Tolan/Common.h"
#include "Tolan/TaskTypes.h"

namespace Tolan {
namespace Platform {
class DebugHandler;
}
namespace Impl {

// Set once, on first use; read with a plain load on every trace site.
extern std::atomic<Platform::DebugHandler*> taskSchedulerDebugHandle;
TOLAN_COLD Platform::DebugHandler& taskSchedulerDebugCreate();

// The handle "TaskScheduler" on which tasks and schedulers trace. Never
// destroyed, so late destructors may trace.
inline Platform::DebugHandler& taskSchedulerDebug() noexcept {
  Platform::DebugHandler* handle = taskSchedulerDebugHandle.load(std::memory_order_acquire);
  return TOLAN_LIKELY(handle != nullptr) ? *handle : taskSchedulerDebugCreate();
}

// The steady clock (CLOCK_MONOTONIC, as std::chrono::steady_clock), read
// without the library call in between.
inline TaskTimePoint taskNow() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return TaskTimePoint(TaskTimeDuration(static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec));
}

}  // namespace Impl
}  // namespace Tolan
