// LibeventFactory.cpp - the libevent controls and the loop entry points.
//
// A handler's exception does not unwind through libevent: deliver() hands it
// to the handler's exception operation and, unless that swallows it, parks it
// for the loop entry point to rethrow (see EventBase.cpp).
#include "Tolan/LibeventFactory.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <fcntl.h>

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

// Impl::toTimeval for the hot paths, without a call through the PLT.
inline timeval toTv(double seconds) {
  if (TOLAN_UNLIKELY(!(seconds >= 0.0 && seconds <= Platform::kMaxTimeoutSeconds))) return Impl::toTimeval(seconds);
  timeval tv;
  tv.tv_sec = static_cast<time_t>(seconds);
  tv.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(tv.tv_sec)) * 1e6);
  return tv;
}

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

class LibeventTimerControl : public Platform::TimerControl {
 public:
  LibeventTimerControl(Platform::TimeoutHandler* h, EventPriority p) : handler_(h), priority_(p) {
    TOLAN_ASSERT(Platform::isEventPriorityValid(p), "Invalid timer priority {}", p);
    event_base* base = leInit();
    // A placeholder, so that delete and pending queries are valid before arming.
    event_assign(&ev_, base, -1, 0, nullptr, nullptr);
    eventPrioritySet(&ev_, priority_);
  }
  ~LibeventTimerControl() override {
    delTimeout();
    event_debug_unassign(&ev_);
  }

  void setTimeout(double seconds) override {
    const timeval tv = toTv(seconds);
    disarm();
    TOLAN_TRACE(leDebug(), 9, "Timer {} set timeout {}", vp(this), seconds);
    event_base* base = threadBase();
    // Re-assigning binds the event to the arming thread's base; when it is
    // bound there already, assigning again would change nothing.
    if (assignedBase_ != base) {
      event_assign(&ev_, base, -1, 0, &handleTimeout, this);
      eventPrioritySet(&ev_, priority_);
      assignedBase_ = base;
    }
    const int rc = event_add(&ev_, &tv);
    TOLAN_ASSERT(rc == 0, "Failed to add timer {} timeout {} rc {}", vp(this), seconds, rc);
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
    timeval expiry;
    if (!armed_ || !event_pending(&ev_, EV_TIMEOUT, &expiry)) return std::numeric_limits<double>::infinity();
    // event_pending reports the expiry converted to wall-clock time.
    timeval now;
    gettimeofday(&now, nullptr);
    if (timercmp(&expiry, &now, <)) return 0.0;
    timeval left;
    timersub(&expiry, &now, &left);
    return static_cast<double>(left.tv_sec) + static_cast<double>(left.tv_usec) / 1e6;
  }

  bool armed() const noexcept { return armed_; }
  Platform::TimeoutHandler* handler() const noexcept { return handler_; }

  static void handleTimeout(evutil_socket_t, short, void* arg) {
    auto* self = static_cast<LibeventTimerControl*>(arg);
    self->armed_ = false;  // libevent has removed a one-shot event before calling us
    TOLAN_TRACE(leDebug(), 9, "Timer {} expired", vp(self));
    Platform::TimeoutHandler* h = self->handler_;  // self may be gone after timeout()
    deliver([h] { h->timeout(); }, [h] { return h->handleTimeoutException(); },
            "Timeout notification exception was handled");
  }

 private:
  Platform::TimeoutHandler* handler_;
  EventPriority priority_;
  bool armed_ = false;
  event_base* assignedBase_ = nullptr;  // base ev_ is assigned to with handleTimeout
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
  explicit LibeventFdControl(Platform::FdEventHandler* h) : handler_(h) {
    event_base* base = leInit();
    event_assign(&readEv_, base, -1, 0, nullptr, nullptr);
    event_assign(&writeEv_, base, -1, 0, nullptr, nullptr);
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
    event_del(&ev);
    event_assign(&ev, threadBase(), fd_, what, cb, this);
    eventPrioritySet(&ev, eventPriorityDefault);
    const int rc = event_add(&ev, nullptr);
    TOLAN_ASSERT(rc == 0, "Failed to add event on fd {} rc {}", fd_, rc);
  }
  // Deletes the event and leaves it reading as unbound (descriptor -1).
  void disarm(event& ev) {
    event_del(&ev);
    event_assign(&ev, event_get_base(&ev), -1, 0, nullptr, nullptr);
  }

  Platform::FdEventHandler* handler_;
  int fd_ = -1;
  bool reads_ = true;
  bool writes_ = false;
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
