#include "Tolan/Exception.h"

#include <cxxabi.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <typeinfo>

#include "Tolan/Thread.h"

namespace Tolan {
namespace {

std::atomic<bool> gThrowOnAssertFail{false};

// Set on the thread whose failed assertion is ending the process: whatever
// exception the runtime calls current there is one being handled, not the cause.
thread_local bool tAssertionEnding = false;

// Reports for a dying process go straight to the descriptor: one write per
// piece, nothing left in a stream buffer when abort() comes.
void writeStderr(const char* text, size_t len) noexcept {
  while (len > 0) {
    const ssize_t n = ::write(STDERR_FILENO, text, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    text += n;
    len -= static_cast<size_t>(n);
  }
}

void writeStderr(const String& text) noexcept { writeStderr(text.data(), text.size()); }

}  // namespace

void throwOnAssertFailIs(bool on) noexcept { gThrowOnAssertFail.store(on, std::memory_order_relaxed); }
bool throwOnAssertFail() noexcept { return gThrowOnAssertFail.load(std::memory_order_relaxed); }

// The constructor is noexcept: a failure to copy the message (out of memory)
// ends the process rather than replace the exception being made.
Exception::Exception(const String& msg, bool captureFlag) noexcept : backtrace_(captureFlag), message_(msg) {
  BacktraceTracker::backtraceIs(message_, backtrace_);
}

Exception::~Exception() = default;

String Exception::msg() const { return String(name()) + "(\"" + message_ + "\")"; }

const char* Exception::what() const noexcept {
  if (whatText_.empty()) {
    try {
      whatText_ = msg() + "\n" + backtrace_.pretty();
    } catch (...) {
      // Out of memory: the class name is the best what() can still say.
      return name();
    }
  }
  return whatText_.c_str();
}

#define TOLAN_THROW_EXCEPTION_(Class) \
  void Class::throwException(const String& msg) { throw Class(msg); }
TOLAN_THROW_EXCEPTION_(MemoryResourceException)
TOLAN_THROW_EXCEPTION_(NoPermissionException)
TOLAN_THROW_EXCEPTION_(UnimplementedException)
TOLAN_THROW_EXCEPTION_(InvalidInitializeException)
TOLAN_THROW_EXCEPTION_(RuntimeException)
TOLAN_THROW_EXCEPTION_(OutOfRangeException)
TOLAN_THROW_EXCEPTION_(CorruptionDetectedException)
TOLAN_THROW_EXCEPTION_(InvalidSizeException)
#undef TOLAN_THROW_EXCEPTION_

void AssertException::throwException(const String& msg) {
  if (throwOnAssertFail()) throw AssertException(msg);
  writeStderr("Tolan::Assert aborting because: " + msg + "\n");
  tAssertionEnding = true;
  std::terminate();
}

// ---------------------------------------------------------------------------
// The terminate handler.
//
// Its report: the type of the exception in flight, then for exceptions that
// have one "  what(): " and what() (ours end with the stack they were made
// at), and, for anything else, the stack of the point of termination unless
// TOLAN_BACKTRACE_VERBOSITY=0. A newline separates the what() text from that
// stack, which would otherwise run on in the what() line.

namespace {

// The thread writing the report, 0 before any.
std::atomic<pid_t> gTerminatingThread{0};

[[noreturn]] void terminateHandler() noexcept {
  // The first report is the useful one. A failure while writing it ends the
  // process at once; another thread terminating meanwhile waits for the
  // abort that is coming, rather than abort with the report half written.
  pid_t first = 0;
  if (!gTerminatingThread.compare_exchange_strong(first, Tolan::gettid())) {
    if (first == Tolan::gettid()) std::abort();
    for (;;) pause();
  }
  try {
    String report;
    bool ours = false;
    const std::type_info* type = tAssertionEnding ? nullptr : abi::__cxa_current_exception_type();
    if (type) {
      const char* mangled = type->name();
      if (*mangled == '*') ++mangled;
      writeStderr("terminate called after throwing an instance of '" + typeName(mangled) + "'\n");
      try {
        throw;
      } catch (const Exception& e) {
        ours = true;
        report = String("  what(): ") + e.what();
      } catch (const std::exception& e) {
        report = String("  what(): ") + e.what();
      } catch (...) {
      }
    }
    if (!ours && Backtrace::verbosity() == 1) {
      if (!report.empty() && report.back() != '\n') report += '\n';
      report += Backtrace(true).pretty();
    }
    if (!report.empty()) writeStderr(report + "\n");
  } catch (...) {
    // Whatever could not be reported, the process still ends as promised.
  }
  std::abort();
}

// Installed last at library load, after the trace set-up (priority 101), so
// that everything the report uses is in place.
__attribute__((constructor(102))) void installTerminateHandler() { std::set_terminate(terminateHandler); }

}  // namespace
}  // namespace Tolan
