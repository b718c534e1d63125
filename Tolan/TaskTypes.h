// TaskTypes.h - small value types shared by the scheduler, its statistics
// and its history: task priority, task key and the scheduler's time types.
//
// All are trivially copyable values of one to eight bytes; any thread may use
// them.
#pragma once

#include <fmt/core.h>

#include <chrono>
#include <cstdint>
#include <string>  // also declares std::hash

#include "Tolan/Common.h"

namespace Tolan {

// Durations inside the scheduler: signed 64-bit nanoseconds of the steady clock.
using TaskTimeDuration = std::chrono::nanoseconds;
using TaskTimePoint = std::chrono::time_point<std::chrono::steady_clock, TaskTimeDuration>;

// The priority of a task; the smaller value runs first. Converts to and from
// its enumerator, so `p == TaskPriority::normal`, `switch (p)` and ordered
// containers work directly. One byte.
class TOLAN_EXPORT TaskPriority {
 public:
  enum Value : uint8_t {
    absolute = 0,
    high = 1,
    normal = 2,
    low = 3,
    scavenge = 4,
    oneBeyondLast = 5,  // end marker: not a priority a task can have
  };

  constexpr TaskPriority() noexcept : value_(normal) {}
  constexpr TaskPriority(Value value) noexcept : value_(value) {}  // NOLINT: implicit by design
  // From a number, e.g. when iterating; out-of-range values are kept and
  // fail the assertions of toStrep() and oneChar().
  static constexpr TaskPriority fromNumber(unsigned number) noexcept {
    return TaskPriority(static_cast<Value>(number));
  }

  constexpr operator Value() const noexcept { return value_; }  // NOLINT: implicit by design
  constexpr unsigned number() const noexcept { return value_; }
  // True for the five priorities a task can have (not oneBeyondLast).
  constexpr bool isValid() const noexcept { return value_ < oneBeyondLast; }

  // "absolute", "high", "normal", "low", "scavenge", "oneBeyondLast".
  // Library assertion for any other value.
  const char* toStrep() const;
  // 'A', 'H', 'N', 'L', 'S', and '-' for oneBeyondLast. Library assertion
  // for any other value.
  char oneChar() const;
  std::string oneCharString() const { return std::string(1, oneChar()); }

 private:
  Value value_;
};

// A task's identity within its thread's history; printed "@<number>".
class TOLAN_EXPORT TaskKey {
 public:
  constexpr TaskKey() noexcept = default;
  explicit constexpr TaskKey(uint32_t value) noexcept : value_(value) {}

  constexpr uint32_t value() const noexcept { return value_; }
  std::string toStrep() const;

  friend constexpr bool operator==(TaskKey a, TaskKey b) noexcept { return a.value_ == b.value_; }
  friend constexpr bool operator!=(TaskKey a, TaskKey b) noexcept { return a.value_ != b.value_; }
  friend constexpr bool operator<(TaskKey a, TaskKey b) noexcept { return a.value_ < b.value_; }

 private:
  uint32_t value_ = 0;
};

}  // namespace Tolan

namespace std {
template <>
struct hash<Tolan::TaskKey> {
  size_t operator()(Tolan::TaskKey key) const noexcept { return std::hash<uint32_t>()(key.value()); }
};
}  // namespace std

// A priority prints its name ("normal"); format specs apply as to a string.
template <>
struct fmt::formatter<Tolan::TaskPriority> : fmt::formatter<fmt::string_view> {
  TOLAN_EXPORT format_context::iterator format(Tolan::TaskPriority priority, format_context& ctx) const;
};

// A key prints "@" and its number ("@42"); format specs apply to the number.
template <>
struct fmt::formatter<Tolan::TaskKey> : fmt::formatter<uint32_t> {
  TOLAN_EXPORT format_context::iterator format(Tolan::TaskKey key, format_context& ctx) const;
};
