#include "Tolan/TimerWheel.h"

#include <fmt/format.h>

#include <cmath>
#include <cstddef>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Impl/Timeouts.h"
#include "Tolan/Thread.h"

namespace Tolan {
namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

// State bits in the link's flags; the timing wheel leaves them alone.
constexpr int kNotLinkedBit = 0x04;
constexpr int kInTimerWheelBit = 0x08;
constexpr int kInSoonBit = 0x10;
constexpr int kStateBits = kNotLinkedBit | kInTimerWheelBit | kInSoonBit;

constexpr int stateBit(TimerWheelState s) noexcept { return kNotLinkedBit << s; }

// One channel for all wheels, under the library's prefix so that the default
// rule shows its warnings; created on first use and kept for the life of the
// process, so that wheels released at exit can still trace.
Platform::DebugHandler& wheelDebug() {
  static NoDestructor<std::shared_ptr<Platform::DebugHandler>> handler(Platform::getDebugHandler("TolanTimerWheel"));
  return **handler;
}

// Delays are clamped to kMaxTimeoutSeconds, so the products stay far below
// 2^63 and a signed conversion (one instruction, where floor() and ceil()
// are library calls on baseline x86-64) truncates, which for positive values
// is floor.
inline timeout_t currentTick(double now) {
  if (now <= 0) return 0;
  const double x = now * 100.0;
  const auto t = static_cast<int64_t>(x);
  return static_cast<timeout_t>(t) + (static_cast<double>(t) < x ? 1 : 0);  // ceil
}
inline timeout_t expiryTick(double expire) {
  return expire <= 0 ? 0 : static_cast<timeout_t>(static_cast<int64_t>(expire * 100.0));  // floor
}

const void* ptr(const TimerWheelEvent* ev) { return ev; }

}  // namespace

static_assert(TimerWheel::kTicksPerSecond == 100, "tick conversions above assume 100 ticks per second");

// ---- the link storage ----

struct timeout* TimerWheelEvent::link() noexcept {
  static_assert(sizeof(struct timeout) == kLinkSize && alignof(struct timeout) <= 8,
                "TimerWheelEvent::linkStorage_ must match the timing wheel's link");
  return std::launder(reinterpret_cast<struct timeout*>(linkStorage_));
}

const struct timeout* TimerWheelEvent::link() const noexcept {
  return std::launder(reinterpret_cast<const struct timeout*>(linkStorage_));
}

const char* timerWheelStateToString(TimerWheelState s) noexcept {
  switch (s) {
    case notLinked: return "notLinked";
    case inTimerWheel: return "inTimerWheel";
    case inTimersExpiryingSoon: return "inTimersExpiryingSoon";
  }
  return "unknownState";
}

// ---- TimerWheelEvent ----

TimerWheelEvent::TimerWheelEvent() noexcept : expirationTime_(kNever) {
  timeout_init(::new (static_cast<void*>(linkStorage_)) struct timeout, TIMEOUT_ABS | kNotLinkedBit);
}

TimerWheelEvent::~TimerWheelEvent() {
  const TimerWheelState s = state();
  TOLAN_ASSERT_C(s == notLinked, TimerWheelEvent, "TimerWheelEvent {} destroyed while {}", ptr(this), s);
}

TimerWheelState TimerWheelEvent::state() const {
  const int bits = link()->flags & kStateBits;
  TOLAN_ASSERT_C(bits && !(bits & (bits - 1)), TimerWheelEvent, "None or multiple of our flags set {}", bits);
  switch (bits) {
    case kNotLinkedBit: return notLinked;
    case kInTimerWheelBit: return inTimerWheel;
    case kInSoonBit: return inTimersExpiryingSoon;
  }
  TOLAN_FAIL_C(TimerWheelEvent, "Invalid flag combination {}", bits);
}

void TimerWheelEvent::stateIs(TimerWheelState s) {
  TOLAN_ASSERT_C(static_cast<unsigned>(s) < 3u, TimerWheelEvent, "invalid state {}", static_cast<unsigned>(s));
  const TimerWheelState current = state();
  TOLAN_ASSERT_C(s == current || current == notLinked || s == notLinked, TimerWheelEvent,
                 "State change {} -> {} must go via {}", current, s, notLinked);
  link()->flags = (link()->flags & ~kStateBits) | stateBit(s);
}

void TimerWheelEvent::setTimeout(const std::shared_ptr<TimerWheel>& wheel, double delay) {
  wheel->timerStart(this, delay);
}

void TimerWheelEvent::delTimeout(const std::shared_ptr<TimerWheel>& wheel) { wheel->timerStop(this); }

double TimerWheelEvent::remainingTimeout() const noexcept {
  if (expirationTime_ == kNever) return kNever;
  const double left = expirationTime_ - Tolan::time();
  return left > 0 ? left : 0.0;
}

TimerWheelEvent* TimerWheelEvent::timeoutLink2TimerWheelEvent(struct timeout* link) noexcept {
  // offsetof on a class with virtual functions is "conditionally supported";
  // g++ and clang give the member's offset, which is all this needs.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
  return reinterpret_cast<TimerWheelEvent*>(reinterpret_cast<char*>(link) - offsetof(TimerWheelEvent, linkStorage_));
#pragma GCC diagnostic pop
}

// ---- TimersAtTimeout ----

TimersAtTimeout::~TimersAtTimeout() {
  TOLAN_ASSERT_C(empty(), TimersAtTimeout, "Destroyed while non-empty");
}

void TimersAtTimeout::pushBack(TimerWheelEvent* ev) noexcept {
  ev->next_ = nullptr;
  ev->prev_ = last_;
  if (last_)
    last_->next_ = ev;
  else
    first_ = ev;
  last_ = ev;
}

void TimersAtTimeout::unlink(TimerWheelEvent* ev) noexcept {
  if (ev->prev_)
    ev->prev_->next_ = ev->next_;
  else
    first_ = ev->next_;
  if (ev->next_)
    ev->next_->prev_ = ev->prev_;
  else
    last_ = ev->prev_;
  ev->next_ = ev->prev_ = nullptr;
}

// ---- TimerWheel ----

TimerWheel::TimerWheel(Platform::EventPriority priority) {
  int error = 0;
  wheel_ = timeouts_open(kTicksPerSecond, &error);
  TOLAN_ASSERT_C(wheel_ != nullptr, TimerWheel, "Error code {}", error);
  masterTimer_ = Platform::getTimerControl(this, priority);
  setCurrentTime();
}

TimerWheel::~TimerWheel() {
  // Detach whatever is still held, so that owners can destroy their events
  // afterwards without tripping the "destroyed while" assertion. Going
  // through the wheel's own expiry path visits each held link once.
  size_t held = 0;
  timeouts_update(wheel_, UINT64_MAX);
  while (struct timeout* link = timeouts_get(wheel_)) {
    TimerWheelEvent* ev = TimerWheelEvent::timeoutLink2TimerWheelEvent(link);
    ev->stateIs(notLinked);
    ev->expirationTime_ = kNever;
    ++held;
  }
  for (auto& [when, list] : timersExpiryingSoon_) {
    while (TimerWheelEvent* ev = list.front()) {
      list.unlink(ev);
      ev->stateIs(notLinked);
      ev->expirationTime_ = kNever;
      ++held;
    }
  }
  timersExpiryingSoon_.clear();
  if (held) TOLAN_TRACE_C(wheelDebug(), 1, TimerWheel, "wheel {} destroyed holding {} timers; they will not fire",
                          static_cast<const void*>(this), held);
  masterTimer_.reset();
  timeouts_close(wheel_);
}

double TimerWheel::setCurrentTime() {
  const double now = Tolan::time();
  const timeout_t tick = currentTick(now);
  TOLAN_TRACE_C(wheelDebug(), 8, TimerWheel, "advance time to {} tick {}", now, tick);
  timeouts_update(wheel_, tick);
  return now;
}

bool TimerWheel::hasWheelTimers() const noexcept {
  return timeouts_pending(wheel_) || timeouts_expired(wheel_);
}

void TimerWheel::timerStart(TimerWheelEvent* ev, double delay) {
  TOLAN_ASSERT_C(std::isfinite(delay), TimerWheel, "Invalid timeout {}", delay);
  if (delay < 0) delay = 0;
  if (delay > Platform::kMaxTimeoutSeconds) delay = Platform::kMaxTimeoutSeconds;
  const double expire = Tolan::time() + delay;
  if (ev->expirationTime_ != kNever) timerStop(ev);
  ev->expirationTime_ = expire;
  const timeout_t tick = expiryTick(expire);
  TOLAN_TRACE_C(wheelDebug(), 9, TimerWheel, "timer {} set timeout {} expire at {} tick {}", ptr(ev), delay, expire,
                tick);
  timeouts_add(wheel_, ev->link(), tick);
  ev->stateIs(inTimerWheel);
  if (masterExpiry_ > expire) setMasterTimer();
}

void TimerWheel::timerStop(TimerWheelEvent* ev) {
  if (ev->expirationTime_ == kNever) {
    TOLAN_TRACE_C(wheelDebug(), 9, TimerWheel, "timer {} del timeout, not running", ptr(ev));
    return;
  }
  TOLAN_TRACE_C(wheelDebug(), 9, TimerWheel, "timer {} del timeout", ptr(ev));
  switch (ev->state()) {
    case inTimerWheel: timeouts_del(wheel_, ev->link()); break;
    case inTimersExpiryingSoon: unlinkExpiringSoon(ev); break;
    case notLinked:
      TOLAN_FAIL_C(TimerWheel, "Not linked but expirationTime={}", ev->expirationTime_);
  }
  ev->stateIs(notLinked);
  ev->expirationTime_ = kNever;
}

void TimerWheel::linkExpiringSoon(TimerWheelEvent* ev) {
  TimersAtTimeout& list = timersExpiryingSoon_[ev->expirationTime_];
  ev->stateIs(inTimersExpiryingSoon);
  list.pushBack(ev);
  TOLAN_TRACE_C(wheelDebug(), 9, TimerWheel, "Event {} linked to {}", ptr(ev), ev->expirationTime_);
}

void TimerWheel::unlinkExpiringSoon(TimerWheelEvent* ev) {
  const TimerWheelState s = ev->state();
  TOLAN_ASSERT_C(s == inTimersExpiryingSoon, TimerWheel, "Removing from timersExpiryingSoon in state {}", s);
  auto it = timersExpiryingSoon_.find(ev->expirationTime_);
  TOLAN_ASSERT_C(it != timersExpiryingSoon_.end(), TimerWheel, "timer {} missing from timersExpiryingSoon at {}",
                 ptr(ev), ev->expirationTime_);
  it->second.unlink(ev);
  if (it->second.empty()) timersExpiryingSoon_.erase(it);
}

void TimerWheel::drainExpired() {
  while (struct timeout* link = timeouts_get(wheel_)) {
    TimerWheelEvent* ev = TimerWheelEvent::timeoutLink2TimerWheelEvent(link);
    ev->stateIs(notLinked);
    linkExpiringSoon(ev);
  }
}

void TimerWheel::setMasterTimer() {
  const double now = setCurrentTime();
  // Whatever has reached its tick joins the soon-map first, so that the
  // earliest timer of all is its first key: a short timer started while the
  // map holds a later one must not wait for that one.
  drainExpired();
  if (!timersExpiryingSoon_.empty()) {
    const double first = timersExpiryingSoon_.begin()->first;
    if (first <= now) {
      TOLAN_TRACE_C(wheelDebug(), 8, TimerWheel,
                    "has expired timers, firstExpiryTime={} now={}, set master timer timeout 0", first, now);
      masterTimer_->setTimeout(0);
    } else {
      TOLAN_TRACE_C(wheelDebug(), 8, TimerWheel,
                    "has scheduled timers, firstExpiryTime={} now={}, set master timer timeout {}", first, now,
                    first - now);
      masterTimer_->setTimeout(first - now);
    }
    masterExpiry_ = first;
  } else if (timeouts_pending(wheel_)) {
    const timeout_t ticks = timeouts_timeout(wheel_);
    const double t = static_cast<double>(ticks) / kTicksPerSecond;
    TOLAN_TRACE_C(wheelDebug(), 8, TimerWheel,
                  "has scheduled timers, first timer expiry in {} ticks, set master timer timeout {}", ticks, t);
    masterTimer_->setTimeout(t);
    masterExpiry_ = now + t;
  } else {
    TOLAN_TRACE_C(wheelDebug(), 8, TimerWheel, "has no timers, del master timer timeout");
    masterTimer_->delTimeout();
    masterExpiry_ = kNever;
  }
}

void TimerWheel::timeout() {
  // A notification may drop the last owner of this wheel (a one-shot wheel
  // timer control that its handler lets go of); the wheel must outlive the
  // loop below.
  const std::shared_ptr<TimerWheel> keepAlive = weak_from_this().lock();
  TOLAN_TRACE_C(wheelDebug(), 8, TimerWheel, "master timer expired");
  const double now = setCurrentTime();
  drainExpired();
  try {
    // The map is looked up afresh for every event: a notification may stop
    // or restart any timer, erasing entries or adding new ones.
    while (!timersExpiryingSoon_.empty()) {
      auto first = timersExpiryingSoon_.begin();
      if (first->first > now) {
        TOLAN_TRACE_C(wheelDebug(), 8, TimerWheel, "Defer processing timers with expiry time {} > now {}",
                      first->first, now);
        break;
      }
      TimerWheelEvent* ev = first->second.front();
      first->second.unlink(ev);
      if (first->second.empty()) timersExpiryingSoon_.erase(first);
      ev->stateIs(notLinked);
      timerExpired(ev);
    }
  } catch (...) {
    // Whatever is still due must not be stranded by one failing timer.
    setMasterTimer();
    throw;
  }
  setMasterTimer();
}

void TimerWheel::timerExpired(TimerWheelEvent* ev) const {
  TOLAN_TRACE_C(wheelDebug(), 9, TimerWheel, "timer {} expired", ptr(ev));
  ev->expirationTime_ = kNever;
  ev->timeout();
}

// ---- singletons ----

std::shared_ptr<TimerWheel> getTimerWheel() {
  if (hasThreadLocalSingletons()) {
    thread_local std::shared_ptr<TimerWheel> threadWheel;
    if (!threadWheel) threadWheel = std::make_shared<TimerWheel>(Platform::eventPriorityDefault);
    return threadWheel;
  }
  // Never destroyed: the process-wide wheel may be used until exit, after
  // other statics (the event base among them) are gone.
  static NoDestructor<std::shared_ptr<TimerWheel>> processWheel(
      std::make_shared<TimerWheel>(Platform::eventPriorityDefault));
  return *processWheel;
}

std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority) {
  return std::make_shared<TimerWheel>(priority);
}

// ---- the wheel timer control ----

namespace {

class WheelTimerControl final : public Platform::TimerControl, public TimerWheelEvent {
 public:
  WheelTimerControl(Platform::TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel)
      : handler_(handler), wheel_(std::move(wheel)) {}
  ~WheelTimerControl() override { wheel_->timerStop(this); }

  void setTimeout(double seconds) override { TimerWheelEvent::setTimeout(wheel_, seconds); }
  void delTimeout() override { TimerWheelEvent::delTimeout(wheel_); }
  double remainingTimeout() const override { return TimerWheelEvent::remainingTimeout(); }

  void timeout() override {
    try {
      handler_->timeout();
    } catch (...) {
      if (!handler_->handleTimeoutException()) throw;
    }
  }

 private:
  Platform::TimeoutHandler* handler_;
  std::shared_ptr<TimerWheel> wheel_;
};

}  // namespace

namespace Platform {

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel) {
  TOLAN_ASSERT(handler != nullptr && wheel != nullptr, "getTimerControl() needs a handler and a wheel");
  return std::make_shared<WheelTimerControl>(handler, std::move(wheel));
}

}  // namespace Platform
}  // namespace Tolan

fmt::format_context::iterator fmt::formatter<Tolan::TimerWheelState>::format(Tolan::TimerWheelState s,
                                                                             format_context& ctx) const {
  return formatter<string_view>::format(Tolan::timerWheelStateToString(s), ctx);
}
