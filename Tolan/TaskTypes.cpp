#include "Tolan/TaskTypes.h"

#include "Tolan/Assert.h"

namespace Tolan {

const char* TaskPriority::toStrep() const {
  switch (value_) {
    case absolute: return "absolute";
    case high: return "high";
    case normal: return "normal";
    case low: return "low";
    case scavenge: return "scavenge";
    case oneBeyondLast: return "oneBeyondLast";
  }
  TOLAN_FAIL_C(TaskPriority, "unexpected priority value {}", unsigned(value_));
}

char TaskPriority::oneChar() const {
  switch (value_) {
    case absolute: return 'A';
    case high: return 'H';
    case normal: return 'N';
    case low: return 'L';
    case scavenge: return 'S';
    case oneBeyondLast: return '-';
  }
  TOLAN_FAIL_C(TaskPriority, "unexpected priority {}", unsigned(value_));
}

std::string TaskKey::toStrep() const { return fmt::format("@{}", value_); }

namespace Impl {

void taskSchedulerAssertFail(const char* function, unsigned line, const std::string& message) noexcept {
  processAssertFail(message.c_str(), "TaskSchedulerCpp", line, function);
}

}  // namespace Impl
}  // namespace Tolan
