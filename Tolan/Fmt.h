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
