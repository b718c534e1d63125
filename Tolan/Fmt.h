// Fmt.h - how library and system values print in trace and assertion
// messages.
//
// Messages are formatted with {fmt} "{}" placeholders (see TOLAN_TRACE in
// Debug.h and TOLAN_ASSERT in Assert.h). This header teaches {fmt} the values
// that have no text of their own: a pointer shown as an address
// (DisplayPointer), and the C library's timeval and timespec shown as seconds.
// The library's own types print through formatters declared beside them.
//
// Light on purpose: it needs only <fmt/core.h>; the formatting work is done
// out of line. Any thread may use it.
#pragma once

#include <fmt/core.h>
#include <sys/time.h>
#include <time.h>

#include <cstdint>

#include "Tolan/Common.h"

namespace Tolan {

// A pointer as messages show it: "0x" and lowercase hex ("0x0" for null).
// Wrap a pointer in it to print its value rather than what it points to (a
// char*, say): TOLAN_TRACE(h, 9, "freed {}", DisplayPointer(p)).
class TOLAN_EXPORT DisplayPointer {
 public:
  explicit DisplayPointer(const void* pointer) noexcept : pointer_(pointer) {}
  const void* pointer() const noexcept { return pointer_; }
  String toString() const;

 private:
  const void* pointer_;
};

}  // namespace Tolan

template <>
struct fmt::formatter<Tolan::DisplayPointer> {
  constexpr auto parse(format_parse_context& ctx) { return ctx.begin(); }
  template <typename Context>
  auto format(const Tolan::DisplayPointer& p, Context& ctx) const {
    return fmt::format_to(ctx.out(), "{:#x}", reinterpret_cast<uintptr_t>(p.pointer()));
  }
};

// A timeval as seconds with six decimals: {1, 500000} -> "1.500000". Meant
// for durations and timestamps alike; negative values print with a sign.
template <>
struct fmt::formatter<timeval> {
  constexpr auto parse(format_parse_context& ctx) { return ctx.begin(); }
  TOLAN_EXPORT format_context::iterator format(const timeval& tv, format_context& ctx) const;
};

// A timespec as seconds with nine decimals: {2, 5} -> "2.000000005".
template <>
struct fmt::formatter<timespec> {
  constexpr auto parse(format_parse_context& ctx) { return ctx.begin(); }
  TOLAN_EXPORT format_context::iterator format(const timespec& ts, format_context& ctx) const;
};
