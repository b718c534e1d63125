// Fmt.h - message formatting for trace lines and assertion texts.
//
// Every trace call site and every library assertion formats its message
// here, with {fmt} "{}" placeholders, into a buffer that holds 500 characters
// inline (longer messages spill to the heap and are never truncated). The
// functions are the out-of-line targets of the TOLAN_TRACE and TOLAN_ASSERT
// macros; call the macros, not these.
//
// This header is also the one place where library types learn to print
// themselves with {fmt}: formatters for them are added below.
//
// Thread-safe: everything is built on the caller's stack.
#pragma once

#include <fmt/format.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Tolan/Common.h"

namespace Tolan {
namespace Fmt {

// Inline capacity of a message: messages up to this size never allocate.
constexpr size_t kMessageInlineSize = 500;
using MessageBuffer = fmt::basic_memory_buffer<char, kMessageInlineSize>;

namespace Impl {

// Formats the message and hands it to the trace output as one line.
// `handle` is the Platform::DebugHandler the call site traced on.
// A malformed format string throws fmt::format_error.
void vfmtrace(const void* handle, unsigned level, const char* file, bool withClass, const char* func,
              const char* className, int line, fmt::string_view format, fmt::format_args args);

// Appends "Class::func() " when withClass (both names must be non-null),
// then the formatted message.
void buildMessageBuffer(MessageBuffer& buffer, bool withClass, const char* func, const char* className,
                        fmt::string_view format, fmt::format_args args);

// Clears the buffer, then writes "file:line: " and continues as
// buildMessageBuffer. The text of assertions and exceptions.
void buildDetailedMessageBuffer(MessageBuffer& buffer, const char* file, int line, bool withClass, const char* func,
                                const char* className, fmt::string_view format, fmt::format_args args);

// buildMessageBuffer's text as a string.
std::string vformatstr(bool withClass, const char* func, const char* className, fmt::string_view format,
                       fmt::format_args args);
// buildDetailedMessageBuffer's text as a string.
std::string vformatstr(const char* file, int line, bool withClass, const char* func, const char* className,
                       fmt::string_view format, fmt::format_args args);

// Forwards a finished message to the platform's trace output.
void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handle, const char* file,
                  const char* func, int line);

}  // namespace Impl
}  // namespace Fmt
}  // namespace Tolan

// ---------------------------------------------------------------------------
// Library types and system types in messages: "{}" prints them as below.

namespace Tolan {

// A pointer as messages show it: "0x" and lowercase hex ("0x0" for null).
// Wrap a pointer in it to print its value rather than what it points to (a
// char*, say): TOLAN_TRACE(h, 9, "freed {}", DisplayPointer(p)).
class DisplayPointer {
 public:
  explicit DisplayPointer(const void* pointer) noexcept : pointer_(pointer) {}
  const void* pointer() const noexcept { return pointer_; }
  String toString() const;

 private:
  const void* pointer_;
};

namespace Fmt {
namespace Impl {
// Appends total microseconds (or nanoseconds) as seconds with a fixed number
// of decimals, e.g. -1500000 us -> "-1.500000".
void appendSeconds(fmt::memory_buffer& out, long long units, long long unitsPerSecond, int decimals);
}  // namespace Impl
}  // namespace Fmt
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
  template <typename Context>
  auto format(const timeval& tv, Context& ctx) const {
    fmt::memory_buffer text;
    Tolan::Fmt::Impl::appendSeconds(text, static_cast<long long>(tv.tv_sec) * 1000000 + tv.tv_usec, 1000000, 6);
    return std::copy(text.begin(), text.end(), ctx.out());
  }
};

// A timespec as seconds with nine decimals: {2, 5} -> "2.000000005".
template <>
struct fmt::formatter<timespec> {
  constexpr auto parse(format_parse_context& ctx) { return ctx.begin(); }
  template <typename Context>
  auto format(const timespec& ts, Context& ctx) const {
    fmt::memory_buffer text;
    Tolan::Fmt::Impl::appendSeconds(text, static_cast<long long>(ts.tv_sec) * 1000000000 + ts.tv_nsec, 1000000000,
                                    9);
    return std::copy(text.begin(), text.end(), ctx.out());
  }
};
