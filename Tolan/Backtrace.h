// Backtrace.h - call stacks captured cheaply, symbolised only when printed.
//
// `Backtrace` records up to 100 raw return addresses of the calling thread,
// with the thread id and the time of capture. Every Tolan::Exception carries
// one; the terminate handler prints a fresh one. Capture walks the stack with
// libunwind's cached frame tracer and stores addresses only (a 20-frame stack
// costs about as much as unw_backtrace itself); the expensive part, resolving
// symbols with dladdr, happens in pretty().
//
// `BacktraceTracker` optionally remembers the most recent exceptions made
// anywhere in the process (message and stack), even those that were caught,
// for post-mortem inspection. Disabled, it costs one flag test per exception.
//
// Any thread may capture, print and record. A Backtrace object itself is a
// plain value: do not share one between threads while modifying it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "Tolan/Common.h"

namespace Tolan {

class TOLAN_EXPORT Backtrace {
 public:
  static constexpr uint32_t kMaxFrames = 100;

  // Records the calling thread's id; the timestamp stays +infinity and no
  // frame is stored unless `capture`, in which case the stack is captured as
  // by unwind(). Never throws.
  explicit Backtrace(bool capture) noexcept;

  // Replaces the frames with the current stack, innermost first: frame 0 is
  // the return address in the function that called unwind() (or constructed
  // the Backtrace). Stops after kMaxFrames. Sets the timestamp to the time of
  // capture. If the unwinder cannot start, no frames are stored.
  void unwind() noexcept;

  // "Timestamp:<seconds, 6 decimals> tid:<tid> Backtrace:\n" followed by one
  // line per frame, "object(symbol+0xoffset)[address]" as far as the dynamic
  // loader knows them (symbols are mangled; functions of an executable are
  // only known when it exports them, e.g. linked with -rdynamic), or
  // "No backtrace available" when there are no frames. The symbol is the one
  // that made the call, even when the return address lies past its end (a
  // call to a noreturn function); the offset is the return address's. Looks
  // up symbols: meant for error reports, not hot paths.
  String pretty() const;

  const void* const* frames() const noexcept { return slots_ + 1; }
  uint32_t frameCount() const noexcept { return frameCount_; }
  // Kernel thread id of the thread that constructed the backtrace.
  pid_t tid() const noexcept { return tid_; }
  // Seconds on the monotonic clock (CLOCK_MONOTONIC) at capture, so stamps
  // of different threads compare; +infinity when nothing was captured.
  double timestamp() const noexcept { return timestamp_; }

  // 1 unless TOLAN_BACKTRACE_VERBOSITY is exactly "0"; read at each call.
  // The terminate handler prints a backtrace of its own only at 1.
  static int verbosity() noexcept;

 private:
  void capture() noexcept;

  // The unwinder's first address is in the capturing member itself; it lands
  // in slot 0, outside the backtrace, and frames start at slot 1.
  void* slots_[1 + kMaxFrames];
  uint32_t frameCount_;
  int32_t tid_;
  double timestamp_;
};

// One remembered exception: its message and the stack where it was made.
class TOLAN_EXPORT TrackedBacktrace {
 public:
  TrackedBacktrace(const String& message, const Backtrace& backtrace) : message_(message), backtrace_(backtrace) {}

  const String& message() const noexcept { return message_; }
  const Backtrace& backtrace() const noexcept { return backtrace_; }
  // "Exception message:<message>\n" followed by backtrace().pretty().
  String toString() const;

 private:
  String message_;
  Backtrace backtrace_;
};

// The process-wide record of recent exceptions. Starts disabled, without
// storage; enabled, it keeps the newest `capacity()` entries (100 unless
// changed), overwriting the oldest. All members are static and thread-safe;
// the buffer has its own lock.
class TOLAN_EXPORT BacktraceTracker {
 public:
  BacktraceTracker() = delete;

  static bool enabled() noexcept { return enabled_.load(std::memory_order_relaxed); }
  // On: gives the buffer the default capacity if it has no storage yet.
  // Off: stops recording; entries already recorded stay readable, and an
  // empty buffer releases its storage (capacity 0).
  static void enabledIs(bool on);

  static unsigned capacity();
  // Library assertion while disabled or for 0 (use clear() to empty it).
  // Shrinking keeps the oldest entries and drops the newest beyond `n`.
  static void capacityIs(unsigned n);

  // Records a copy of message and stack; does nothing (one flag test, no
  // lock) while disabled. Every Tolan::Exception constructor calls this.
  static void backtraceIs(const String& msg, const Backtrace& backtrace) {
    if (TOLAN_LIKELY(!enabled())) return;
    record(msg, backtrace);
  }
  // As above with the stack of the caller, captured now.
  static void backtraceIs(const String& msg);

  // Copies of all entries, oldest first.
  static std::vector<TrackedBacktrace> tracked();
  // Drops all entries and keeps the capacity.
  static void clear();
  // Writes each entry's toString() and a newline, oldest first, then flushes.
  static void printAll(std::ostream& os);

 private:
  static void record(const String& msg, const Backtrace& backtrace);

  static inline std::atomic<bool> enabled_{false};
};

// The readable form of a mangled name (a type_info name, say). Text that is
// not a mangled name is returned unchanged; null gives "".
TOLAN_EXPORT String typeName(const char* mangled);

}  // namespace Tolan
