// EventBase.cpp - the per-thread libevent base, libevent's log, and running
// the loop.
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
#include "Tolan/EventBase.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>

#include <cmath>
#include <exception>
#include <memory>
#include <utility>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Impl/EventLoop.h"
#include "Tolan/Thread.h"

namespace Tolan {

using Platform::EventPriority;
using Platform::eventPriorityDefault;

namespace Impl {
__thread event_base* tlsEventBase __attribute__((tls_model("initial-exec"))) = nullptr;
}  // namespace Impl

namespace {

using Impl::leDebug;
using Impl::tlsEventBase;

thread_local bool mainThread = false;
thread_local std::exception_ptr pendingException;

const void* vp(const void* p) { return p; }

// A one-shot timer that breaks the thread's loop. Lives on the stack of a
// loop entry point; its destructor removes it on every way out.
class EvLoopBreak {
 public:
  EvLoopBreak(event_base* base, const timeval& tv, double seconds) {
    TOLAN_TRACE_C(leDebug(), 8, EvLoopBreak, "{} timeout {}", vp(&ev_), seconds);
    event_assign(&ev_, base, -1, 0, &handleBaseLoopBreak, &ev_);
    eventPrioritySet(&ev_, eventPriorityDefault);
    const int rc = event_add(&ev_, &tv);
    TOLAN_ASSERT_C(rc == 0, EvLoopBreak, "Failed to add loop break {} rc {}", vp(&ev_), rc);
  }
  // noexcept: a failure here ends the process.
  ~EvLoopBreak() noexcept {
    TOLAN_TRACE_C(leDebug(), 9, EvLoopBreak, "{}", vp(&ev_));
    const int rc = event_del(&ev_);
    TOLAN_ASSERT_C(rc == 0, EvLoopBreak, "Failed to delete loop break {} rc {}", vp(&ev_), rc);
    event_debug_unassign(&ev_);
  }
  EvLoopBreak(const EvLoopBreak&) = delete;
  EvLoopBreak& operator=(const EvLoopBreak&) = delete;

  static void handleBaseLoopBreak(evutil_socket_t, short, void* arg) {
    TOLAN_TRACE_C(leDebug(), 8, EvLoopBreak, "{}", arg);
    event_base_loopbreak(Impl::threadBase());
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
  TOLAN_ASSERT(tlsEventBase == nullptr || tlsEventBase == b,
               "Tried to register a base:{} but a thread_local  base already exists: {}", vp(b), vp(tlsEventBase));
  tlsEventBase = b;
  setMainThread();
}

event_base* leInit() {
  if (TOLAN_LIKELY(tlsEventBase != nullptr)) return tlsEventBase;
  event_base* b = leCreateBase();
  leRegisterBase(b);
  return b;
}

void leForkReinit() {
  if (!tlsEventBase) {
    leInit();
    return;
  }
  const int rc = event_reinit(tlsEventBase);
  TOLAN_ASSERT(rc == 0, "event_reinit failed on {} rc {}", vp(tlsEventBase), rc);
  // The child's only thread is its main thread.
  setMainThread();
}

void leFree() {
  if (!tlsEventBase) return;
  event_base_free(tlsEventBase);
  tlsEventBase = nullptr;
}

bool leInitialized() noexcept { return tlsEventBase != nullptr; }

void setMainThread() noexcept { mainThread = isMainThread(); }

bool leMainThread() noexcept { return mainThread; }

void eventPrioritySet(event* ev, EventPriority p) {
  TOLAN_TRACE(leDebug(), 9, "Setting priority of {} to {}", vp(ev), p);
  const int rc = event_priority_set(ev, static_cast<int>(p));
  TOLAN_ASSERT(rc == 0, "Failed to set priority on {} to {} rc {}", vp(ev), p, rc);
}

// ---- running the loop ----

namespace Impl {

Platform::DebugHandler& leDebugHandle() noexcept {
  static NoDestructor<std::shared_ptr<Platform::DebugHandler>> owner(Platform::getDebugHandler("TolanLibevent"));
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

void parkException(std::exception_ptr e) {
  if (pendingException) {
    // The loop is already on its way out with an earlier exception; the
    // caller can only receive one.
    TOLAN_TRACE(leDebug(), 1, "Dropping a second handler exception while one is pending");
    return;
  }
  pendingException = std::move(e);
  if (tlsEventBase) event_base_loopbreak(tlsEventBase);
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

// ---- libevent's log ----

void le_debug_cb(int severity, const char* msg) {
  switch (severity) {
    case EVENT_LOG_DEBUG:
      TOLAN_TRACE(leDebug(), 9, "{}", msg);
      break;
    case EVENT_LOG_MSG:
      TOLAN_TRACE(leDebug(), 5, "{}", msg);
      break;
    case EVENT_LOG_WARN:
      TOLAN_TRACE(leDebug(), 1, "{}", msg);
      break;
    case EVENT_LOG_ERR:
      TOLAN_TRACE(leDebug(), 0, "{}", msg);
      break;
    default:
      TOLAN_FAIL("invalid libevent severity:{} msg:{}", severity, msg ? msg : "");
  }
}

void le_fatal_cb(int err) { TOLAN_FAIL("libevent fatal error:{}", err); }

}  // namespace Tolan
