// Platform.h - timeouts, deferred callbacks and descriptor events behind
// small abstract interfaces, the calling thread's event loop, and the
// library's clock.
//
// A client implements a handler (TimeoutHandler, CallbackHandler,
// FdEventHandler) and obtains the matching control from a factory
// (getTimerControl, getCallbackControl, getFdControl). The control arms,
// disarms and queries the event; the thread's event loop calls the handler.
//
//   struct Tick : Tolan::Platform::TimeoutHandler {
//     void timeout() override { ++ticks; }
//     int ticks = 0;
//   } tick;
//   auto timer = Tolan::Platform::getTimerControl(&tick);
//   timer->setTimeout(0.25);
//   Tolan::Platform::doEventLoop(1.0);  // tick.timeout() runs once
//
// Threading: handlers, controls and the loop belong to one thread. A control
// is bound to the loop of the thread that created or last armed it and its
// handler is called on that thread only; nothing here is locked. The factories
// and loop entry points create the thread's loop on first use.
//
// Ownership: a control holds a plain pointer to its handler, which must
// outlive it. Destroying a control disarms its event.
//
// Exceptions thrown by a handler are offered to its exception operation
// (handleTimeoutException and so on) while the exception is being handled:
// return true to swallow it, false (the default) to let it leave the loop
// entry point that is running the loop. Such an exception ends the current
// loop pass; events that were due behind it are delivered by the next loop
// call, and the loop stays usable.
#pragma once

#include <fmt/core.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "Tolan/Common.h"

namespace Tolan {

// The library's clock in seconds: the monotonic clock plus the calling
// thread's virtual-time offset (see setFastForward). Never goes backwards on
// one thread. Every timing decision of the library is made on this clock.
TOLAN_EXPORT double time() noexcept;

namespace Platform {

// Event priority; the numeric value is the event library's priority index
// and lower values run first within one loop pass.
enum EventPriority : uint8_t {
  eventPriorityStrictHigh = 0,
  eventPriorityDefault = 1,
};

constexpr bool isEventPriorityValid(EventPriority p) noexcept { return static_cast<unsigned>(p) < 2u; }
// The enumerator's name, or "" for an invalid value.
TOLAN_EXPORT const char* eventPriorityToString(EventPriority p) noexcept;

// ---- handlers (implemented by clients) ----

class TOLAN_EXPORT TimeoutHandler {
 public:
  virtual ~TimeoutHandler();
  // The armed timeout expired.
  virtual void timeout() = 0;
  // Called inside the catch block when timeout() threw; true swallows the
  // exception, false lets it leave the event loop.
  virtual bool handleTimeoutException();
};

class TOLAN_EXPORT CallbackHandler {
 public:
  virtual ~CallbackHandler();
  // The requested deferred call.
  virtual void callback() = 0;
  // As TimeoutHandler::handleTimeoutException, for callback().
  virtual bool handleCallbackException();
};

class TOLAN_EXPORT FdEventHandler {
 public:
  virtual ~FdEventHandler();
  // `fd` is readable. Called again on every loop pass while it stays readable.
  virtual void readFdEvent(int fd) = 0;
  // `fd` is writable. One call per setWrites(true) (or setFd with write
  // interest on): write interest is one-shot.
  virtual void writeFdEvent(int fd) = 0;
  // As TimeoutHandler::handleTimeoutException, for both notifications.
  virtual bool handleFdException(int fd);
};

// ---- controls (obtained from the factories below) ----

// A one-shot timeout. It never fires before Tolan::time() has reached the time
// it is armed for. In real time it fires once the event loop's clock, the
// kernel's coarse monotonic clock, has reached that time too: up to one
// kernel tick late (4 ms at the usual 250 Hz). That is the price of a loop
// pass without a timer system call; under fast-forward a timer fires at its
// exact time. Timers of a thread fire in the order of their due times.
// Cost: arming reads the clock (unless the delay is 0) and disarming is a
// heap remove in the thread's event base; no system call.
class TOLAN_EXPORT TimerControl {
 public:
  virtual ~TimerControl();
  // (Re)arms the timeout `seconds` from now; an armed timeout is replaced,
  // never doubled. Negative values fire on the next loop pass, values above
  // kMaxTimeoutSeconds are clamped to it; NaN and infinities fail a library
  // assertion ("Invalid timeout {}"). Resolution is one microsecond.
  virtual void setTimeout(double seconds) = 0;
  // Disarms; harmless when nothing is armed.
  virtual void delTimeout() = 0;
  // Seconds left on Tolan::time()'s clock, the one that decides the delivery;
  // 0.0 when due but not yet delivered; +infinity when disarmed.
  virtual double remainingTimeout() const = 0;
};

// A deferred call: callback() from the event loop as soon as possible.
// Cost of a request plus delivery: one zero-delay timer, no system call.
class TOLAN_EXPORT CallbackControl {
 public:
  virtual ~CallbackControl();
  // Repeated requests before delivery give one call.
  virtual void requestCallback() = 0;
  // Withdraws an outstanding request; harmless when there is none.
  virtual void cancelCallback() = 0;
  // True from requestCallback() until delivery or cancelCallback().
  virtual bool pendingCallback() const = 0;
};

// Readiness of one descriptor. A fresh control has no descriptor (-1), read
// interest on and write interest off. Read interest persists (one
// notification per loop pass while readable); write interest is one-shot.
class TOLAN_EXPORT FdControl {
 public:
  virtual ~FdControl();
  // Enables or disables read interest; takes effect at once when a
  // descriptor is bound, else at the next setFd().
  virtual void setReads(bool on) = 0;
  // As setReads, for write interest.
  virtual void setWrites(bool on) = 0;
  // Binds `fd` (switching it to non-blocking mode) and arms the enabled
  // interests. `fd` must be an open descriptor: a descriptor the kernel
  // rejects aborts the process (condition "flags >= 0"). Keep `fd` open while
  // it is bound: call delFd() or clearEvents() before closing it. Closing a
  // watched descriptor silently stops its notifications, and a new descriptor
  // that reuses the number may go unwatched until this control lets go of it.
  virtual void setFd(int fd) = 0;
  // Removes all interest and forgets the descriptor (getFd() becomes -1).
  // Never closes it.
  virtual void delFd() = 0;
  virtual int getFd() const = 0;
  // Removes all interest but keeps the descriptor and the interest flags;
  // setReads/setWrites/setFd arm again.
  virtual void clearEvents() = 0;
};

// The longest timeout or loop bound accepted; larger values are clamped.
constexpr double kMaxTimeoutSeconds = 1e9;

// ---- introspection ----

// Renders a value of a named type for introspection tools: the printer
// registered for the type name, else a hex dump of `size` bytes.
class TOLAN_EXPORT ValuePrinter {
 public:
  ValuePrinter(std::string typeName, int size) : typeName_(std::move(typeName)), size_(size) {}
  // The registered printer's text; when there is none or it returns "", the
  // bytes at `value` as lower-case hex pairs separated by blanks ("0a ff").
  virtual std::string toString(const void* value);
  virtual ~ValuePrinter();

  const std::string& typeName() const noexcept { return typeName_; }
  int size() const noexcept { return size_; }

 protected:
  // The registered printer's text for `value`, or "" when none is registered.
  std::string customToString(const void* value) const;

 private:
  std::string typeName_;
  int size_;
};

using ValuePrinterFunction = std::string (*)(const void* value);
// Registers (or with null removes) the printer for `typeName`. Any thread.
TOLAN_EXPORT void registerValuePrinter(const std::string& typeName, ValuePrinterFunction fn);
TOLAN_EXPORT std::shared_ptr<ValuePrinter> getValuePrinter(const std::string& typeName, int size);

// ---- factories: controls on the calling thread's event loop ----

TOLAN_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* h);
TOLAN_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* h, EventPriority p);
// Always at eventPriorityDefault.
TOLAN_EXPORT std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* h);
// Both events at eventPriorityDefault.
TOLAN_EXPORT std::shared_ptr<FdControl> getFdControl(FdEventHandler* h);

// ---- running the calling thread's loop ----

// Runs until no event is pending or the loop is broken; returns the event
// library's result (0 broken/normal exit, 1 no events left, -1 error). With
// fast-forward on, only the wait for the first timer is skipped; later
// timers are waited for in real time (bound the run with doEventLoop(double)).
TOLAN_EXPORT int doEventLoop();
// Runs for at most `maxTimeout` seconds (of Tolan::time()), delivering every
// event that becomes due. With fast-forward on it returns after exactly
// `maxTimeout` virtual seconds, advancing virtual time from timer to timer
// instead of waiting. Negative bounds act as 0 (one pass over what is due);
// NaN and infinities fail a library assertion.
TOLAN_EXPORT void doEventLoop(double maxTimeout);
// As doEventLoop(double), for a wait loop that polls a condition between
// calls: with fast-forward on it advances to the first timer at most once.
TOLAN_EXPORT void doEventLoopInWaitfor(double maxTimeout);

// ---- virtual time ----

// Switches fast-forward: when on, the loop entry points skip waits by
// advancing the thread's virtual-time offset to the next timer. Only the
// process's main thread may switch it (else the assertion "FastForward
// invoked from non-main thread"); meant for test and simulation set-up.
TOLAN_EXPORT void setFastForward(bool on);
TOLAN_EXPORT bool fastForward() noexcept;
// `fn` is called once on every change of the switch; registering a function
// again has no further effect.
TOLAN_EXPORT void registerFastForwardChangeNotifier(void (*fn)());
// Advances the calling thread's virtual time (and moves its pending timeouts
// earlier) by `seconds`, microsecond resolution, without running the loop.
// Fails the assertion "fast-forwarding disabled" when fast-forward is off;
// negative, NaN and infinite amounts fail an assertion too; amounts beyond
// kMaxTimeoutSeconds are clamped.
TOLAN_EXPORT void fastForwardBy(double seconds);

// ---- switches ----

// Always false: this library has no release/debug split at run time.
TOLAN_EXPORT bool releaseMode() noexcept;
// Not supported: both fail the assertion "not available in libTolan.so".
TOLAN_EXPORT void refCountingEnabledIs(bool on);
TOLAN_EXPORT bool refCountingEnabled();

}  // namespace Platform
}  // namespace Tolan

// A valid priority prints its name, any other value "Invalid EventPriority=<n>".
template <>
struct fmt::formatter<Tolan::Platform::EventPriority> : fmt::formatter<fmt::string_view> {
  TOLAN_EXPORT format_context::iterator format(Tolan::Platform::EventPriority p, format_context& ctx) const;
};
