// Impl/TaskSchedulerAssert.h - how the scheduler reports a broken invariant
// of its own (an event type it never records, a task found in two queues):
// by the C library's assertion report, naming "TaskSchedulerCpp" as the file,
// which ends the process even under NDEBUG. Internal to the scheduler units.
#pragma once

#include <string>

#include "Tolan/Common.h"

namespace Tolan {
namespace Impl {

[[noreturn]] inline void taskSchedulerAssertFail(const char* function, unsigned line,
                                                 const std::string& message) noexcept {
  processAssertFail(message.c_str(), "TaskSchedulerCpp", line, function);
}

}  // namespace Impl
}  // namespace Tolan
