// Assert.h - the library assertion.
//
// TOLAN_ASSERT(cond, "format {}", args...) guards every invariant of the
// library. On failure it builds "file:line: message" (with "Class::func() "
// before the message for TOLAN_ASSERT_C), traces it at level 0 on
// TOLAN_DEFAULT_HANDLE whether or not level 0 is enabled, and then either
// throws Tolan::AssertException (after Tolan::throwOnAssertFailIs(true), see
// Exception.h) or writes "Tolan::Assert aborting because: <message>" and ends
// the process through std::terminate() (whose handler adds the stack).
//
// Cost on the passing path: the condition and one predicted branch. The
// arguments are evaluated and the message is built only on failure, in a cold
// out-of-line function.
//
// This header is only the interface, so that code at every layer of the
// library may assert: the failure path (trace, then throw or abort) lives with
// the exceptions. Conditions the library can never recover from use
// TOLAN_PROCESS_ASSERT (Common.h) instead. Any thread may assert.
#pragma once

#include <fmt/core.h>

#include "Tolan/Common.h"

#define TOLAN_ASSERT(cond, ...)                                                                     \
  do {                                                                                              \
    if (TOLAN_UNLIKELY(!(cond))) ::Tolan::Impl::assertFail(__FILE__, __LINE__, false, __func__,     \
                                                           nullptr, __VA_ARGS__);                   \
  } while (0)

// As TOLAN_ASSERT, naming the class: TOLAN_ASSERT_C(ok, TimerWheel, "bad state {}", s).
#define TOLAN_ASSERT_C(cond, Class, ...)                                                            \
  do {                                                                                              \
    if (TOLAN_UNLIKELY(!(cond))) ::Tolan::Impl::assertFail(__FILE__, __LINE__, true, __func__,      \
                                                           #Class, __VA_ARGS__);                    \
  } while (0)

// An assertion that has already failed: for branches that must not be reached.
#define TOLAN_FAIL(...) ::Tolan::Impl::assertFail(__FILE__, __LINE__, false, __func__, nullptr, __VA_ARGS__)
#define TOLAN_FAIL_C(Class, ...) ::Tolan::Impl::assertFail(__FILE__, __LINE__, true, __func__, #Class, __VA_ARGS__)

namespace Tolan {
namespace Platform {
class DebugHandler;
class DebugStream;
}  // namespace Platform

// For code that has built its assertion text in a DebugStream: traces the
// stream's text on `handler` at `level` (whether or not that level is on),
// then raises AssertException::throwException() with "file:func:line: " and
// the text. Never returns.
[[noreturn]] TOLAN_EXPORT void debugAndThrowAssertException(Platform::DebugHandler& handler, unsigned level,
                                                            Platform::DebugStream& stream, const char* file,
                                                            const char* func, int line);

namespace Impl {

// Out-of-line body of every failed assertion. Never returns.
[[noreturn]] TOLAN_EXPORT void assertFailV(const char* file, int line, bool withClass, const char* func,
                                           const char* className, fmt::string_view format, fmt::format_args args);

template <typename... Args>
[[noreturn]] TOLAN_COLD void assertFail(const char* file, int line, bool withClass, const char* func,
                                        const char* className, fmt::format_string<Args...> format, Args&&... args) {
  assertFailV(file, line, withClass, func, className, format, fmt::make_format_args(args...));
}

}  // namespace Impl
}  // namespace Tolan
