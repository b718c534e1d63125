// LibeventFactory.cpp - the libevent controls and the loop entry points.
//
// A handler's exception does not unwind through libevent: deliver() hands it
// to the handler's exception operation and, unless that swallows it, parks it
// for the loop entry point to rethrow (see EventBase.cpp).
//
// Timers and the base's coarse clock: libevent decides what is due on the
// coarse monotonic clock, a kernel tick behind the precise one at worst. A
// timer is therefore added so that libevent's expiry is its exact due time on
// the precise clock (the coarse reading beside the precise one gives the
// distance): when the coarse clock reaches it, the precise clock has too, so
// a timer never fires before Tolan::time() says it is due, and timers keep
// the order of their due times. The price is lateness in real time until the
// coarse clock reaches the due time, up to one tick. The timer also keeps its
// due time on Tolan::time()'s clock: remainingTimeout() measures against the
// clock that decides the delivery, and a delivery that comes early all the
// same (a base registered with other flags, a coarse reading that moved while
// we added) arms again for the rest instead of notifying. Zero delays, every
// deferred callback among them, are due at once and read no clock.
//
// Every control holds a share of the base its events are assigned to, so the
// base outlives them whatever the thread does (EventBase.h).
#include "Tolan/LibeventFactory.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <fcntl.h>
#include <time.h>

#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <utility>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Impl/EventLoop.h"

namespace Tolan {

using Platform::EventPriority;
using Platform::eventPriorityDefault;

namespace {

using Impl::leDebug;
using Impl::parkException;
using Impl::threadBase;

const void* vp(const void* p) { return p; }

// Runs a notification; an exception goes to the handler's exception
// operation, and leaves the loop (parked) unless that swallows it.
template <typename Notify, typename Handle>
inline void deliver(Notify&& notify, Handle&& handle, const char* handledMsg) noexcept {
  try {
    notify();
  } catch (...) {
    bool swallowed = false;
    try {
      swallowed = handle();
    } catch (...) {
      parkException(std::current_exception());
      return;
    }
    if (swallowed) {
      if (handledMsg) TOLAN_TRACE(leDebug(), 9, "{}", handledMsg);
      return;
    }
    parkException(std::current_exception());
  }
}

// ---- timer ----

constexpr double kNever = std::numeric_limits<double>::infinity();
constexpr double kAtOnce = -std::numeric_limits<double>::infinity();

timespec monotonicNow() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts;
}

double toSeconds(const timespec& ts) noexcept {
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Adds `ev` so that libevent's expiry is `from` + `delay` on the monotonic
// clock, rounded up to its microsecond. libevent measures a relative timeout
// from its own clock, the coarse monotonic one (the precise clock truncated to
// the last kernel tick), so the timeout given is the distance from that
// clock's reading. Should the reading change across the add (a tick), the add
// may have measured from the later one and is made again.
void addAtMonotonic(event* ev, const timespec& from, double delay) {
  const int64_t due = (int64_t{from.tv_sec} * 1000000000 + from.tv_nsec + static_cast<int64_t>(std::ceil(delay * 1e9)) +
                       999) / 1000;
  for (int attempt = 0; attempt < 2; ++attempt) {
    timespec before, after;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &before);
    const int64_t rel = std::max<int64_t>(0, due - (int64_t{before.tv_sec} * 1000000 + before.tv_nsec / 1000));
    const timeval tv{static_cast<time_t>(rel / 1000000), static_cast<suseconds_t>(rel % 1000000)};
    const int rc = event_add(ev, &tv);
    TOLAN_ASSERT(rc == 0, "Failed to add timer {} rc {}", vp(ev), rc);
    clock_gettime(CLOCK_MONOTONIC_COARSE, &after);
    if (after.tv_nsec == before.tv_nsec && after.tv_sec == before.tv_sec) return;
  }
}

class LibeventTimerControl : public Platform::TimerControl {
 public:
  LibeventTimerControl(Platform::TimeoutHandler* h, EventPriority p)
      : handler_(h), priority_(p), base_(Impl::threadBaseShare()) {
    event_assign(&ev_, base_.get(), -1, 0, &handleTimeout, this);
    try {
      eventPrioritySet(&ev_, priority_);
    } catch (...) {
      event_debug_unassign(&ev_);
      throw;
    }
  }
  ~LibeventTimerControl() override {
    delTimeout();
    event_debug_unassign(&ev_);
  }

  void setTimeout(double seconds) override {
    // Checked first: a refused timeout leaves an armed one as it was.
    if (TOLAN_UNLIKELY(!(seconds >= 0.0 && seconds <= Platform::kMaxTimeoutSeconds)))
      seconds = Impl::clampTimeout(seconds);
    disarm();
    TOLAN_TRACE(leDebug(), 9, "Timer {} set timeout {}", vp(this), seconds);
    event_base* base = threadBase();
    if (TOLAN_UNLIKELY(base != base_.get())) rebind();
    if (seconds == 0.0) {
      due_ = kAtOnce;
      static const timeval zero{0, 0};
      add(zero);
    } else {
      const timespec now = monotonicNow();
      due_ = toSeconds(now) + leVirtualTimeOffset() + seconds;
      addAtMonotonic(&ev_, now, seconds);
    }
    armed_ = true;
  }

  void delTimeout() override { disarm(); }

  // Not virtual: setTimeout uses it on every arming.
  void disarm() {
    TOLAN_TRACE(leDebug(), 9, "Timer {} del timeout", vp(this));
    // armed_ mirrors "pending or activated, not yet delivered"; skipping the
    // no-op delete saves a lock round trip in libevent.
    if (!armed_) return;
    armed_ = false;
    const int rc = event_del(&ev_);
    TOLAN_ASSERT(rc == 0, "Failed to delete timer {} rc {}", vp(this), rc);
  }

  double remainingTimeout() const override {
    if (!armed_) return kNever;
    const double left = due_ - Tolan::time();
    return left > 0.0 ? left : 0.0;
  }

  bool armed() const noexcept { return armed_; }

  static void handleTimeout(evutil_socket_t, short, void* arg) {
    auto* self = static_cast<LibeventTimerControl*>(arg);
    if (self->due_ != kAtOnce && TOLAN_UNLIKELY(self->early())) return;
    self->armed_ = false;  // libevent has removed a one-shot event before calling us
    TOLAN_TRACE(leDebug(), 9, "Timer {} expired", vp(self));
    Platform::TimeoutHandler* h = self->handler_;  // self may be gone after timeout()
    deliver([h] { h->timeout(); }, [h] { return h->handleTimeoutException(); },
            "Timeout notification exception was handled");
  }

 private:
  void add(const timeval& tv) {
    const int rc = event_add(&ev_, &tv);
    TOLAN_ASSERT(rc == 0, "Failed to add timer {} rc {}", vp(this), rc);
  }

  // Moves the (disarmed) event to the calling thread's base.
  TOLAN_COLD void rebind() {
    Impl::BaseShare share = Impl::threadBaseShare();
    event_assign(&ev_, share.get(), -1, 0, &handleTimeout, this);
    eventPrioritySet(&ev_, priority_);
    base_ = std::move(share);  // may free the old base: nothing of ours is on it now
  }

  // libevent delivered before Tolan::time() reached the due time (its clock
  // is coarser): arm again for the rest, measured exactly. True if so.
  bool early() noexcept {
    const timespec now = monotonicNow();
    const double left = due_ - (toSeconds(now) + leVirtualTimeOffset());
    if (left <= 0.0) return false;
    TOLAN_TRACE(leDebug(), 9, "Timer {} delivered {} early, armed again", vp(this), left);
    addAtMonotonic(&ev_, now, left);
    return true;
  }

  Platform::TimeoutHandler* handler_;
  EventPriority priority_;
  bool armed_ = false;
  double due_ = kNever;  // on Tolan::time()'s clock; kAtOnce for a zero delay
  Impl::BaseShare base_;  // the base ev_ is assigned to
  event ev_;
};

// ---- deferred callback: a zero-delay timer that notifies the object itself ----

class LibeventCallbackControl : public Platform::CallbackControl,
                                private Platform::TimeoutHandler,
                                private LibeventTimerControl {
 public:
  explicit LibeventCallbackControl(Platform::CallbackHandler* h)
      : LibeventTimerControl(static_cast<Platform::TimeoutHandler*>(this), eventPriorityDefault), handler_(h) {}
  ~LibeventCallbackControl() override { cancelCallback(); }

  void requestCallback() override {
    TOLAN_TRACE(leDebug(), 9, "Callback {} request", vp(this));
    LibeventTimerControl::setTimeout(0.0);
  }
  void cancelCallback() override {
    TOLAN_TRACE(leDebug(), 9, "Callback {} cancel", vp(this));
    disarm();
  }
  bool pendingCallback() const override { return armed(); }

 private:
  void timeout() override {
    TOLAN_TRACE(leDebug(), 9, "Callback {} execute", vp(this));
    Platform::CallbackHandler* h = handler_;
    deliver([h] { h->callback(); }, [h] { return h->handleCallbackException(); },
            "Callback notification exception was handled");
  }

  Platform::CallbackHandler* handler_;
};

// ---- descriptor ----

class LibeventFdControl : public Platform::FdControl {
 public:
  explicit LibeventFdControl(Platform::FdEventHandler* h) : handler_(h), base_(Impl::threadBaseShare()) {
    event_assign(&readEv_, base_.get(), -1, 0, nullptr, nullptr);
    event_assign(&writeEv_, base_.get(), -1, 0, nullptr, nullptr);
    eventPrioritySet(&readEv_, eventPriorityDefault);
    eventPrioritySet(&writeEv_, eventPriorityDefault);
  }
  ~LibeventFdControl() override {
    delFd();
    event_debug_unassign(&readEv_);
    event_debug_unassign(&writeEv_);
  }

  void setFd(int fd) override {
    fd_ = fd;
    const int flags = fcntl(fd, F_GETFL);
    TOLAN_PROCESS_ASSERT(flags >= 0, "flags >= 0");
    const int result = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    TOLAN_PROCESS_ASSERT(result == 0, "result == 0");
    if (reads_) arm(readEv_, EV_READ | EV_PERSIST, &handleFdRead);
    if (writes_) arm(writeEv_, EV_WRITE, &handleFdWrite);
  }
  void setReads(bool on) override {
    reads_ = on;
    if (fd_ < 0) return;
    if (on) {
      arm(readEv_, EV_READ | EV_PERSIST, &handleFdRead);
    } else {
      disarm(readEv_);
    }
  }
  void setWrites(bool on) override {
    writes_ = on;
    if (fd_ < 0) return;
    if (on) {
      arm(writeEv_, EV_WRITE, &handleFdWrite);
    } else {
      disarm(writeEv_);
    }
  }
  void clearEvents() override {
    disarm(readEv_);
    disarm(writeEv_);
  }
  void delFd() override {
    clearEvents();
    fd_ = -1;
  }
  int getFd() const override { return fd_; }

  static void handleFdRead(evutil_socket_t, short, void* arg) {
    auto* self = static_cast<LibeventFdControl*>(arg);
    Platform::FdEventHandler* h = self->handler_;
    const int fd = self->getFd();
    deliver([h, fd] { h->readFdEvent(fd); }, [h, fd] { return h->handleFdException(fd); }, nullptr);
  }
  static void handleFdWrite(evutil_socket_t, short, void* arg) {
    auto* self = static_cast<LibeventFdControl*>(arg);
    Platform::FdEventHandler* h = self->handler_;
    const int fd = self->getFd();
    deliver([h, fd] { h->writeFdEvent(fd); }, [h, fd] { return h->handleFdException(fd); }, nullptr);
  }

 private:
  void arm(event& ev, short what, event_callback_fn cb) {
    event_base* base = threadBase();
    if (TOLAN_UNLIKELY(base != base_.get())) follow();
    event_del(&ev);
    event_assign(&ev, base, fd_, what, cb, this);
    eventPrioritySet(&ev, eventPriorityDefault);
    const int rc = event_add(&ev, nullptr);
    TOLAN_ASSERT(rc == 0, "Failed to add event on fd {} rc {}", fd_, rc);
  }
  // Deletes the event and leaves it reading as unbound (descriptor -1).
  void disarm(event& ev) {
    event_del(&ev);
    event_assign(&ev, base_.get(), -1, 0, nullptr, nullptr);
  }
  // The control follows the thread that arms it: both events move to that
  // thread's base, and an interest armed on the old one is armed again.
  TOLAN_COLD void follow() {
    const bool reading = event_pending(&readEv_, EV_READ, nullptr) != 0;
    const bool writing = event_pending(&writeEv_, EV_WRITE, nullptr) != 0;
    const Impl::BaseShare old = std::exchange(base_, Impl::threadBaseShare());
    disarm(readEv_);
    disarm(writeEv_);
    if (reading) arm(readEv_, EV_READ | EV_PERSIST, &handleFdRead);
    if (writing) arm(writeEv_, EV_WRITE, &handleFdWrite);
  }

  Platform::FdEventHandler* handler_;
  int fd_ = -1;
  bool reads_ = true;
  bool writes_ = false;
  Impl::BaseShare base_;  // the base both events are assigned to
  event readEv_;
  event writeEv_;
};

}  // namespace

// ---- factories ----

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* h) {
  return getLeTimerControl(h, eventPriorityDefault);
}

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* h, EventPriority p) {
  // One allocation for control and count; the memory is released if the
  // constructor throws. (There is no tracking allocator in this library.)
  return std::make_shared<LibeventTimerControl>(h, p);
}

std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(Platform::CallbackHandler* h) {
  return std::make_shared<LibeventCallbackControl>(h);
}

std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* h) {
  return std::make_shared<LibeventFdControl>(h);
}

// ---- loop ----

void eventLoopTimeout(double timeout) {
  TOLAN_TRACE(leDebug(), 5, "timeout {}", timeout);
  const timeval tv = Impl::toTimeval(timeout);
  Impl::runLoopWithBreak(leInit(), tv, timeout);
}

int doLeEventLoop() {
  event_base* base = leInit();
  if (leFastForward()) {
    timeval delta;
    if (fastForwardDelayToFirstTimer(&delta)) applyFastForwardDelta(&delta);
  }
  return Impl::dispatch(base, 0);
}

void doLeEventLoop(double maxTimeout) {
  TOLAN_TRACE(leDebug(), 5, "timeout {}", maxTimeout);
  leInit();
  if (!leFastForward()) {
    eventLoopTimeout(maxTimeout);
    return;
  }
  maxTimeout = Impl::clampTimeout(maxTimeout);  // the same bounds as the real-time path
  double now = Tolan::time();
  const double end = now + maxTimeout;
  do {
    eventLoopFastForwardToFirstTimer(end - now);
    now = Tolan::time();
  } while (end > now);
}

void doLeEventLoopInWaitfor(double maxTimeout) {
  TOLAN_TRACE(leDebug(), 5, "maxTimeout {}", maxTimeout);
  leInit();
  if (leFastForward()) {
    eventLoopFastForwardToFirstTimer(maxTimeout);
  } else {
    eventLoopTimeout(maxTimeout);
  }
}

}  // namespace Tolan
