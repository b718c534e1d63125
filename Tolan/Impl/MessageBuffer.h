// Impl/MessageBuffer.h - the buffers trace lines and assertion texts are
// built in. Internal: the trace and assertion macros reach these through
// Debug.h and Assert.h.
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <string>

namespace Tolan {
namespace Fmt {

// Inline capacity of a message: messages up to this size never allocate
// (longer ones spill to the heap and are never truncated).
constexpr size_t kMessageInlineSize = 500;
using MessageBuffer = fmt::basic_memory_buffer<char, kMessageInlineSize>;

namespace Impl {

// Appends "Class::func() " when withClass (both names must be non-null: a
// process assertion), then the formatted message. A malformed format string
// throws fmt::format_error.
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

}  // namespace Impl
}  // namespace Fmt
}  // namespace Tolan
