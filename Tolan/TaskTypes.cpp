#include "Tolan/TaskTypes.h"

#include <fmt/format.h>

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

}  // namespace Tolan

fmt::format_context::iterator fmt::formatter<Tolan::TaskPriority>::format(Tolan::TaskPriority priority,
                                                                          format_context& ctx) const {
  return formatter<string_view>::format(priority.toStrep(), ctx);
}

fmt::format_context::iterator fmt::formatter<Tolan::TaskKey>::format(Tolan::TaskKey key, format_context& ctx) const {
  auto out = ctx.out();
  *out++ = '@';
  ctx.advance_to(out);
  return formatter<uint32_t>::format(key.value(), ctx);
}
