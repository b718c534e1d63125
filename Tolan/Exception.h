// Exception.h - the library's exception family.
//
// Every exception the library throws derives from Tolan::Exception, which
// carries the message it was made with and (see Backtrace.h) the call stack of
// the point where it was constructed. msg() is "Name(\"message\")"; what()
// adds the stack and is built once, on first use.
//
// Construction costs one stack capture; throw them for errors, not for
// control flow. Exceptions are per-thread objects like any other.
#pragma once

#include <exception>

#include "Tolan/Common.h"

namespace Tolan {

class Exception : public std::exception {
 public:
  Exception(const String& msg, bool captureFlag);
  ~Exception() override;

  // msg() followed by a newline and the captured stack; built on first call.
  const char* what() const noexcept override;
  // The class name, e.g. "Tolan::RuntimeException".
  virtual const char* name() const noexcept { return "Tolan::Exception"; }

  // The class name followed by the quoted message in parentheses.
  String msg() const;
  // The text given to the constructor.
  const String& message() const noexcept { return message_; }

 private:
  String message_;
  mutable String whatText_;
};

#define TOLAN_DECLARE_EXCEPTION_(Class)                                    \
  class Class : public Exception {                                         \
   public:                                                                 \
    explicit Class(const String& msg) : Exception(msg, true) {}            \
    const char* name() const noexcept override { return "Tolan::" #Class; } \
    [[noreturn]] static void throwException(const String& msg);            \
  };

TOLAN_DECLARE_EXCEPTION_(MemoryResourceException)
TOLAN_DECLARE_EXCEPTION_(NoPermissionException)
TOLAN_DECLARE_EXCEPTION_(UnimplementedException)
TOLAN_DECLARE_EXCEPTION_(InvalidInitializeException)
TOLAN_DECLARE_EXCEPTION_(RuntimeException)
TOLAN_DECLARE_EXCEPTION_(OutOfRangeException)
TOLAN_DECLARE_EXCEPTION_(CorruptionDetectedException)
TOLAN_DECLARE_EXCEPTION_(InvalidSizeException)

#undef TOLAN_DECLARE_EXCEPTION_

// Thrown by failed library assertions when throw-on-assert-fail is on.
class AssertException : public Exception {
 public:
  explicit AssertException(const String& msg) : Exception(msg, true) {}
  const char* name() const noexcept override { return "Tolan::AssertException"; }
  // Throws an AssertException when throw-on-assert-fail is on; otherwise
  // writes "Tolan::Assert aborting because: <msg>" on standard error and
  // calls std::terminate().
  [[noreturn]] static void throwException(const String& msg);
};

}  // namespace Tolan
