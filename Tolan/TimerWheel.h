// TimerWheel.h - many timers on one event-loop timer.
//
// A TimerWheel keeps any number of timers in a hierarchical timing wheel
// (10 ms ticks) and arms a single "master" timer on the thread's event loop
// for the earliest of them. Timers whose tick has come move into a small map
// ordered by exact expiry, and the master timer is then armed for that exact
// time: timers fire on time (as precisely as any Platform timer, see
// TimerControl there), not on a tick boundary. The master timer is always
// armed for the earliest timer held, even when that one was started after a
// later one had reached the exact-time map (a shorter timer must not wait
// for a longer one: the plain rule "arm for the map's first entry" would
// keep it up to a tick late).
//
// Use it when a thread holds many timers (one per connection, per task):
// starting and stopping a timer is a constant-time wheel operation with no
// allocation plus one read of the clock, and the event loop holds one timer
// per wheel however many timers the wheel keeps.
//
// Clients normally go through an ordinary TimerControl:
//
//   auto timer = Tolan::Platform::getTimerControl(&handler, Tolan::getTimerWheel());
//   timer->setTimeout(0.015);   // handler.timeout() in 15 ms
//
// Library code that embeds the timer in its own object derives from
// TimerWheelEvent instead (one allocation fewer).
//
// Threading: a wheel and its events belong to the thread whose event loop
// runs the wheel's master timer; nothing is locked. The master timer holds a
// share of the thread's event base, so a wheel (a thread_local one, say) may
// be destroyed after its thread let go of the base.
#pragma once

#include <fmt/core.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>

#include "Tolan/Common.h"
#include "Tolan/Platform.h"

struct timeout;
struct timeouts;

namespace Tolan {

class TimerWheel;
class TimersAtTimeout;

// Where a TimerWheelEvent is; kept in bits 0x04, 0x08, 0x10 of its link's flags.
enum TimerWheelState : uint8_t {
  notLinked = 0,
  inTimerWheel = 1,
  inTimersExpiryingSoon = 2,
};

// "notLinked", "inTimerWheel", "inTimersExpiryingSoon", or "unknownState".
TOLAN_EXPORT const char* timerWheelStateToString(TimerWheelState s) noexcept;

// One timer of a wheel, embedded in (or the base of) its owner. Not copyable.
// Stop it (delTimeout) before destroying it: destroying a linked event is the
// library assertion "TimerWheelEvent {} destroyed while {}", which ends the
// process (a destructor cannot throw it).
class TOLAN_EXPORT TimerWheelEvent {
 public:
  TimerWheelEvent() noexcept;
  TimerWheelEvent(const TimerWheelEvent&) = delete;
  TimerWheelEvent& operator=(const TimerWheelEvent&) = delete;

  // The timer expired. Runs from the wheel's master timer on the event loop;
  // may start or stop this or any other event of the wheel. An exception
  // leaves TimerWheel::timeout() (see there).
  virtual void timeout() = 0;
  virtual ~TimerWheelEvent();

  // (Re)starts the timer `delay` seconds from now in `wheel`, replacing an
  // armed expiry. See TimerWheel::timerStart for bad delays.
  void setTimeout(const std::shared_ptr<TimerWheel>& wheel, double delay);
  // Stops the timer; harmless when it is not running.
  void delTimeout(const std::shared_ptr<TimerWheel>& wheel);

  // Seconds until expiry: 0.0 when due but not yet fired, +infinity when not
  // running.
  double remainingTimeout() const noexcept;
  // Absolute expiry on the Tolan::time() clock; +infinity when not running.
  double expirationTime() const noexcept { return expirationTime_; }
  bool running() const noexcept { return expirationTime_ != std::numeric_limits<double>::infinity(); }

  // Where the event is, decoded from its link's flags. Assertions: "None or
  // multiple of our flags set {}" when not exactly one state bit is set.
  TimerWheelState state() const;

 private:
  friend class TimerWheel;
  friend class TimersAtTimeout;

  // Moves between the wheel and the soon-map must pass through notLinked
  // ("State change {} -> {} must go via {}"); values of 3 or more fail
  // "invalid state {}".
  void stateIs(TimerWheelState s);
  // The event that embeds `link`, a link handed out by the wheel's timeouts.
  static TimerWheelEvent* timeoutLink2TimerWheelEvent(struct timeout* link) noexcept;
  struct timeout* link() noexcept;
  const struct timeout* link() const noexcept;

  // The timing wheel's link, held in place so that an event costs no
  // allocation. Its type belongs to the internal timing wheel; TimerWheel.cpp
  // checks that size and alignment match.
  static constexpr size_t kLinkSize = 40;
  alignas(8) unsigned char linkStorage_[kLinkSize];
  double expirationTime_;
  TimerWheelEvent* next_ = nullptr;  // membership in one TimersAtTimeout
  TimerWheelEvent* prev_ = nullptr;
};

// The events that expire at one exact time, in the order they arrived.
// Intrusive: no allocation. Destroying a non-empty list is the library
// assertion "Destroyed while non-empty" (ends the process).
class TOLAN_EXPORT TimersAtTimeout {
 public:
  TimersAtTimeout() noexcept = default;
  TimersAtTimeout(const TimersAtTimeout&) = delete;
  TimersAtTimeout& operator=(const TimersAtTimeout&) = delete;
  ~TimersAtTimeout();

  void pushBack(TimerWheelEvent* ev) noexcept;
  // `ev` must be in this list.
  void unlink(TimerWheelEvent* ev) noexcept;
  TimerWheelEvent* front() const noexcept { return first_; }
  bool empty() const noexcept { return first_ == nullptr; }

 private:
  TimerWheelEvent* first_ = nullptr;
  TimerWheelEvent* last_ = nullptr;
};

// The wheel. Itself the TimeoutHandler of its master timer. Held by shared
// pointer; wheel timer controls keep their wheel alive, and a wheel keeps
// itself alive while it notifies, so a notification may drop the last owner.
class TOLAN_EXPORT TimerWheel : public Platform::TimeoutHandler, public std::enable_shared_from_this<TimerWheel> {
 public:
  // Ticks per second of the underlying timing wheel.
  static constexpr unsigned kTicksPerSecond = 100;

  // A wheel whose master timer is an event-library timer at `priority` on
  // the calling thread's loop. Prefer getTimerWheel() or
  // getTimerWheelForTaskScheduler().
  explicit TimerWheel(Platform::EventPriority priority);
  // Timers still held are detached: they become not running and never fire
  // (a warning at level 1 on "TolanTimerWheel", shown by default), so their
  // owners may destroy them safely.
  ~TimerWheel() override;
  TimerWheel(const TimerWheel&) = delete;
  TimerWheel& operator=(const TimerWheel&) = delete;

  // Starts `ev` (stopping it first when running) to expire `delay` seconds
  // from now. Constant time, no allocation. Bad delays: NaN and infinities
  // fail the assertion "Invalid timeout {}"; negative delays act as 0 (the
  // timer fires on the next loop pass); delays above
  // Platform::kMaxTimeoutSeconds are clamped to it, so ticks never overflow.
  void timerStart(TimerWheelEvent* ev, double delay);
  // Stops `ev`; a timer that is not running is left alone (stopping twice is
  // harmless). Does not re-arm the master timer: when it fires with nothing
  // due it only re-arms.
  void timerStop(TimerWheelEvent* ev);
  // Marks `ev` not running and calls its timeout(). Used by timeout().
  void timerExpired(TimerWheelEvent* ev) const;
  // Arms (or deletes) the master timer for the earliest timer held. Timers
  // whose tick has come move into the soon-map first, so the master timer is
  // always armed for the exact expiry of the earliest one (when the soon-map
  // holds a later timer, a shorter one started meanwhile is not kept waiting
  // for it).
  void setMasterTimer();
  // The master timer fired: fires every timer that is due, in order of exact
  // expiry and, for equal expiries, in order of arrival, then re-arms. A
  // timer stopped or restarted by an earlier notification of the same round
  // is not fired. An exception from a notification leaves this function
  // (after the master timer is re-armed for the rest) unless
  // handleTimeoutException() says otherwise.
  void timeout() override;

  // Absolute time the master timer is armed for; +infinity when disarmed.
  double masterExpiry() const noexcept { return masterExpiry_; }
  // Timers waiting in the timing wheel (not yet within their last tick).
  bool hasWheelTimers() const noexcept;
  // Distinct exact expiry times in the soon-map.
  size_t timersExpiryingSoonSize() const noexcept { return timersExpiryingSoon_.size(); }

 private:
  // Brings the timing wheel to the current tick; returns the time used.
  double setCurrentTime();
  // Moves every link whose tick has come from the timing wheel to the soon-map.
  void drainExpired();
  void linkExpiringSoon(TimerWheelEvent* ev);
  void unlinkExpiringSoon(TimerWheelEvent* ev);

  double masterExpiry_ = std::numeric_limits<double>::infinity();
  std::shared_ptr<Platform::TimerControl> masterTimer_;
  timeouts* wheel_ = nullptr;
  std::map<double, TimersAtTimeout> timersExpiryingSoon_;
};

// The calling thread's wheel (one per thread when it uses thread-local
// singletons, released at thread exit; else one for the process, never
// destroyed), created on first use with a master timer at
// eventPriorityDefault.
TOLAN_EXPORT std::shared_ptr<TimerWheel> getTimerWheel();

// A new wheel whose master timer runs at `priority`; for a scheduler root,
// which keeps it.
TOLAN_EXPORT std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority);

namespace Platform {

// A TimerControl whose timeout lives in `wheel` (kept alive by the control).
// `handler` must outlive the control. An exception from handler->timeout()
// is offered to handler->handleTimeoutException() first; if that returns
// false it leaves the wheel's timeout() and then the event loop.
TOLAN_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           std::shared_ptr<TimerWheel> wheel);

}  // namespace Platform
}  // namespace Tolan

template <>
struct fmt::formatter<Tolan::TimerWheelState> : fmt::formatter<fmt::string_view> {
  TOLAN_EXPORT format_context::iterator format(Tolan::TimerWheelState s, format_context& ctx) const;
};
