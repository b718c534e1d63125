// LibeventFactory.cpp - the libevent backend: per-thread base, controls, loop.
//
// Exceptions and libevent: a handler's exception must reach the caller of the
// loop entry point, but unwinding through event_base_loop's C frames would
// leave the base marked as running (every later loop refuses to start) with
// its lock still taken. So a callback that lets an exception go parks it in a
// thread-local slot and breaks the loop; Impl::dispatch() rethrows it once
// event_base_loop has returned normally. To the caller this is the same as the
// exception leaving the loop; the handlers that were due behind it run on the
// next loop call. An exception parked while libevent runs under someone
// else's event_base_loop is rethrown by the next loop entry point of this
// library on that thread.
//
// Clocks: the base uses the precise monotonic clock (the one Tolan::time()
// reads) and caches no time, so a timer armed from inside a callback is
// measured from the real arming instant, not from the start of the loop pass;
// otherwise it could fire before Tolan::time() says it is due.
#include "Tolan/LibeventFactory.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>
#include <fcntl.h>

#include <cmath>
#include <exception>
#include <limits>
#include <utility>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Thread.h"

namespace Tolan {

using Platform::EventPriority;
using Platform::eventPriorityDefault;

namespace {

// Initial-exec: read on every arming, and this avoids a __tls_get_addr call.
// One pointer fits the static TLS reserve even when the library is dlopen()ed.
thread_local event_base* ev_base __attribute__((tls_model("initial-exec"))) = nullptr;
thread_local bool mainThread = false;
thread_local std::exception_ptr pendingException;

inline event_base* threadBase() {
  event_base* b = ev_base;
  return TOLAN_LIKELY(b != nullptr) ? b : leInit();
}

const void* vp(const void* p) { return p; }

// Impl::toTimeval for the hot paths, without a call through the PLT.
inline timeval toTv(double seconds) {
  if (TOLAN_UNLIKELY(!(seconds >= 0.0 && seconds <= Platform::kMaxTimeoutSeconds))) return Impl::toTimeval(seconds);
  timeval tv;
  tv.tv_sec = static_cast<time_t>(seconds);
  tv.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(tv.tv_sec)) * 1e6);
  return tv;
}

// The "TolanLibevent" handle without a call into the exported accessor on
// every trace site of the hot paths.
inline Platform::DebugHandler& dbg() noexcept {
  static Platform::DebugHandler* const handle = &Impl::leDebug();
  return *handle;
}

TOLAN_COLD void parkException(std::exception_ptr e) {
  if (pendingException) {
    // The loop is already on its way out with an earlier exception; the
    // caller can only receive one.
    TOLAN_TRACE(dbg(), 1, "Dropping a second handler exception while one is pending");
    return;
  }
  pendingException = std::move(e);
  if (ev_base) event_base_loopbreak(ev_base);
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
      if (handledMsg) TOLAN_TRACE(dbg(), 9, "{}", handledMsg);
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
    TOLAN_TRACE(dbg(), 9, "Timer {} set timeout {}", vp(this), seconds);
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
    TOLAN_TRACE(dbg(), 9, "Timer {} del timeout", vp(this));
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
    TOLAN_TRACE(dbg(), 9, "Timer {} expired", vp(self));
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
    TOLAN_TRACE(dbg(), 9, "Callback {} request", vp(this));
    LibeventTimerControl::setTimeout(0.0);
  }
  void cancelCallback() override {
    TOLAN_TRACE(dbg(), 9, "Callback {} cancel", vp(this));
    disarm();
  }
  bool pendingCallback() const override { return armed(); }

 private:
  void timeout() override {
    TOLAN_TRACE(dbg(), 9, "Callback {} execute", vp(this));
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

// ---- loop break ----

// A one-shot timer that breaks the thread's loop. Lives on the stack of a
// loop entry point; its destructor removes it on every way out.
class EvLoopBreak {
 public:
  EvLoopBreak(event_base* base, const timeval& tv, double seconds) {
    TOLAN_TRACE_C(dbg(), 8, EvLoopBreak, "{} timeout {}", vp(&ev_), seconds);
    event_assign(&ev_, base, -1, 0, &handleBaseLoopBreak, &ev_);
    eventPrioritySet(&ev_, eventPriorityDefault);
    const int rc = event_add(&ev_, &tv);
    TOLAN_ASSERT_C(rc == 0, EvLoopBreak, "Failed to add loop break {} rc {}", vp(&ev_), rc);
  }
  // noexcept: a failure here ends the process.
  ~EvLoopBreak() noexcept {
    TOLAN_TRACE_C(dbg(), 9, EvLoopBreak, "{}", vp(&ev_));
    const int rc = event_del(&ev_);
    TOLAN_ASSERT_C(rc == 0, EvLoopBreak, "Failed to delete loop break {} rc {}", vp(&ev_), rc);
    event_debug_unassign(&ev_);
  }
  EvLoopBreak(const EvLoopBreak&) = delete;
  EvLoopBreak& operator=(const EvLoopBreak&) = delete;

  static void handleBaseLoopBreak(evutil_socket_t, short, void* arg) {
    TOLAN_TRACE_C(dbg(), 8, EvLoopBreak, "{}", arg);
    event_base_loopbreak(threadBase());
    event_del(static_cast<event*>(arg));
  }

 private:
  event ev_;
};

struct LeInitializer {
  LeInitializer() {
    const int rc = evthread_use_pthreads();
    TOLAN_ASSERT(rc == 0, "failed to set up libevent threading: {}", rc);
    event_set_fatal_callback(&le_fatal_cb);
    event_set_log_callback(&le_debug_cb);
  }
};

}  // namespace

// ---- base management ----

event_base* leCreateBase() {
  static LeInitializer leInitializer;
  event_config* cfg = event_config_new();
  TOLAN_ASSERT(cfg != nullptr, "Failed to create event_base");
  event_config_require_features(cfg, EV_FEATURE_ET);
  event_config_set_flag(cfg, EVENT_BASE_FLAG_PRECISE_TIMER);
  event_config_set_flag(cfg, EVENT_BASE_FLAG_NO_CACHE_TIME);
  event_base* base = event_base_new_with_config(cfg);
  event_config_free(cfg);
  TOLAN_ASSERT(base != nullptr, "Failed to create event_base");
  const int rc = event_base_priority_init(base, 2);
  if (TOLAN_UNLIKELY(rc != 0)) {
    event_base_free(base);
    TOLAN_FAIL("Failed to create event_base: priority_init rc {}", rc);
  }
  return base;
}

void leRegisterBase(event_base* b) {
  TOLAN_ASSERT(ev_base == nullptr || ev_base == b,
               "Tried to register a base:{} but a thread_local  base already exists: {}", vp(b), vp(ev_base));
  ev_base = b;
  setMainThread();
}

event_base* leInit() {
  if (TOLAN_LIKELY(ev_base != nullptr)) return ev_base;
  event_base* b = leCreateBase();
  leRegisterBase(b);
  return b;
}

void leForkReinit() {
  if (!ev_base) {
    leInit();
    return;
  }
  const int rc = event_reinit(ev_base);
  TOLAN_ASSERT(rc == 0, "event_reinit failed on {} rc {}", vp(ev_base), rc);
  // The child's only thread is its main thread.
  setMainThread();
}

void leFree() {
  if (!ev_base) return;
  event_base_free(ev_base);
  ev_base = nullptr;
}

bool leInitialized() noexcept { return ev_base != nullptr; }

void setMainThread() noexcept { mainThread = isMainThread(); }

bool leMainThread() noexcept { return mainThread; }

void eventPrioritySet(event* ev, EventPriority p) {
  TOLAN_TRACE(dbg(), 9, "Setting priority of {} to {}", vp(ev), p);
  const int rc = event_priority_set(ev, static_cast<int>(p));
  TOLAN_ASSERT(rc == 0, "Failed to set priority on {} to {} rc {}", vp(ev), p, rc);
}

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

namespace Impl {

Platform::DebugHandler& leDebug() noexcept {
  // Never destroyed: controls may trace from other static destructors.
  static auto* owner = new std::shared_ptr<Platform::DebugHandler>(Platform::getDebugHandler("TolanLibevent"));
  return **owner;
}

double clampTimeout(double seconds) {
  TOLAN_ASSERT(std::isfinite(seconds), "Invalid timeout {}", seconds);
  if (seconds < 0.0) return 0.0;
  if (seconds > Platform::kMaxTimeoutSeconds) return Platform::kMaxTimeoutSeconds;
  return seconds;
}

timeval toTimeval(double seconds) {
  seconds = clampTimeout(seconds);
  timeval tv;
  tv.tv_sec = static_cast<time_t>(seconds);
  tv.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(tv.tv_sec)) * 1e6);
  return tv;
}

int dispatch(event_base* base, int flags) {
  const int rc = event_base_loop(base, flags);
  if (TOLAN_UNLIKELY(pendingException != nullptr)) std::rethrow_exception(std::exchange(pendingException, nullptr));
  return rc;
}

void runLoopWithBreak(event_base* base, const timeval& tv, double seconds) {
  EvLoopBreak loopBreak(base, tv, seconds);
  dispatch(base, 0);
}

}  // namespace Impl

void eventLoopTimeout(double timeout) {
  TOLAN_TRACE(dbg(), 5, "timeout {}", timeout);
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
  TOLAN_TRACE(dbg(), 5, "timeout {}", maxTimeout);
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
  TOLAN_TRACE(dbg(), 5, "maxTimeout {}", maxTimeout);
  leInit();
  if (leFastForward()) {
    eventLoopFastForwardToFirstTimer(maxTimeout);
  } else {
    eventLoopTimeout(maxTimeout);
  }
}

// ---- libevent's log ----

void le_debug_cb(int severity, const char* msg) {
  switch (severity) {
    case EVENT_LOG_DEBUG:
      TOLAN_TRACE(dbg(), 9, "{}", msg);
      break;
    case EVENT_LOG_MSG:
      TOLAN_TRACE(dbg(), 5, "{}", msg);
      break;
    case EVENT_LOG_WARN:
      TOLAN_TRACE(dbg(), 1, "{}", msg);
      break;
    case EVENT_LOG_ERR:
      TOLAN_TRACE(dbg(), 0, "{}", msg);
      break;
    default:
      TOLAN_FAIL("invalid libevent severity:{} msg:{}", severity, msg ? msg : "");
  }
}

void le_fatal_cb(int err) { TOLAN_FAIL("libevent fatal error:{}", err); }

}  // namespace Tolan
