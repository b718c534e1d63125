// Exception.h - the library's exception family.
//
// Every exception the library throws derives from Tolan::Exception, which
// carries the message it was made with and the call stack of the point where
// it was constructed (a Tolan::Backtrace). msg() is Name("message"); what()
// is msg(), a newline and the stack with symbols, built on first use and
// cached, so a second call costs nothing.
//
// Construction costs one stack capture (a few hundred nanoseconds for a
// typical stack, see Backtrace.h) and, when BacktraceTracker is enabled, a
// locked copy into the tracker. Throw them for errors, not for control flow.
// Constructors never throw: running out of memory while making an exception
// ends the process. An exception object is not synchronised: use it on one
// thread at a time (what() fills its cache on first call).
//
// Library assertions (Assert.h) throw AssertException, or end the process,
// as throwOnAssertFailIs() decides. At library load a terminate handler is
// installed that reports the exception in flight (with its what() and so its
// stack) or, when there is none or it is not one of ours, the stack of the
// point of termination (unless TOLAN_BACKTRACE_VERBOSITY=0), then aborts.
// A failed assertion that ends the process always reports its own stack,
// even inside a catch block, where the runtime would name the handled
// exception as the one in flight (and its old stack) instead. Only the first
// thread to terminate reports: any other thread that terminates meanwhile
// blocks for good, so the first report arrives whole before the abort.
#pragma once

#include <exception>
#include <string>

#include "Tolan/Backtrace.h"
#include "Tolan/Common.h"

namespace Tolan {

class TOLAN_EXPORT Exception : public std::exception {
 public:
  // Captures the stack when `captureFlag` (every derived class does), then
  // offers message and stack to BacktraceTracker.
  Exception(const String& msg, bool captureFlag) noexcept;
  ~Exception() override;

  // msg(), a newline and backtrace().pretty(); built on the first call.
  const char* what() const noexcept override;
  // The class name, e.g. "Tolan::RuntimeException".
  virtual const char* name() const noexcept { return "Tolan::Exception"; }

  // The class name followed by the quoted message in parentheses:
  // Tolan::RuntimeException("disk full").
  String msg() const;
  // The text given to the constructor.
  const String& message() const noexcept { return message_; }
  const Backtrace& backtrace() const noexcept { return backtrace_; }

 private:
  Backtrace backtrace_;
  String message_;
  mutable String whatText_;
};

// The classes below differ only in their names: each derives directly from
// Exception, adds no fields, takes its message in its constructor, returns
// "Tolan::<Class>" from name(), and has a static throwException(msg) that
// throws an instance.
#define TOLAN_EXCEPTION_CLASS_(Class)                                       \
  class TOLAN_EXPORT Class : public Exception {                             \
   public:                                                                  \
    explicit Class(const String& msg) noexcept : Exception(msg, true) {}    \
    const char* name() const noexcept override { return "Tolan::" #Class; } \
    [[noreturn]] static void throwException(const String& msg);             \
  }

// Allocation of memory or another resource failed.
TOLAN_EXCEPTION_CLASS_(MemoryResourceException);
// The caller may not do this (permissions, ownership).
TOLAN_EXCEPTION_CLASS_(NoPermissionException);
// The operation exists in the interface but not in this implementation.
TOLAN_EXCEPTION_CLASS_(UnimplementedException);
// An object was used before, or without, proper initialisation.
TOLAN_EXCEPTION_CLASS_(InvalidInitializeException);
// A failure that only shows at run time (a system call refused, say).
TOLAN_EXCEPTION_CLASS_(RuntimeException);
// An index or value outside its permitted range.
TOLAN_EXCEPTION_CLASS_(OutOfRangeException);
// Data structures found in a state they can never legitimately reach.
TOLAN_EXCEPTION_CLASS_(CorruptionDetectedException);
// A size (of a buffer, a name, a request) that is not acceptable.
TOLAN_EXCEPTION_CLASS_(InvalidSizeException);
// A failed library assertion. Its throwException() throws only when
// throw-on-assert-fail is on; otherwise it writes "Tolan::Assert aborting
// because: <msg>" and a newline on standard error and calls std::terminate().
TOLAN_EXCEPTION_CLASS_(AssertException);

#undef TOLAN_EXCEPTION_CLASS_

// When on, failed library assertions throw Tolan::AssertException instead of
// ending the process. Off at load: a production process should die with a
// report. Tests, and callers that must survive an assertion, turn it on once
// at start-up.
TOLAN_EXPORT void throwOnAssertFailIs(bool on) noexcept;
TOLAN_EXPORT bool throwOnAssertFail() noexcept;

}  // namespace Tolan
