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
// library on that thread. For the same reason libevent's fatal-error callback
// never throws.
//
// Clocks: the base keeps libevent's default, the coarse monotonic clock. A
// precise libevent timer (EVENT_BASE_FLAG_PRECISE_TIMER) re-arms a timerfd
// with one system call on every loop pass, and the scheduler makes a pass per
// task run. The timer controls keep their own due time on Tolan::time()'s
// clock instead (LibeventFactory.cpp). No time caching: event_add() then
// measures from the arming instant (a coarse read costs a few ns), so a
// timer armed late in a loop pass is not measured from the start of it.
//
// Ownership: the thread's share of its base sits behind a pthread key whose
// destructor lets go of it at thread exit. Key destructors run after the
// thread's thread_local objects are destroyed, so whatever those own leaves
// the base first; and since every control holds a share too, any order is
// safe anyway.
#include "Tolan/EventBase.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

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

// The thread's own share of its base (null without one); controls hold the others.
__thread Impl::BaseShare* tlsShare = nullptr;
thread_local bool mainThread = false;
thread_local bool creatingBase = false;
thread_local std::exception_ptr pendingException;

void releaseAtThreadExit(void*) { leFree(); }

pthread_key_t threadExitKey() {
  static const pthread_key_t key = [] {
    pthread_key_t k;
    TOLAN_PROCESS_ASSERT(pthread_key_create(&k, &releaseAtThreadExit) == 0, "pthread_key_create() == 0");
    return k;
  }();
  return key;
}

// A base takes an epoll descriptor, a signal pipe and a wake-up eventfd.
// libevent cannot fail gracefully when the pipe is refused: it calls its fatal
// callback, which must not return. So creation first checks that the process
// has that many descriptors to spare. (Another thread may still take them in
// the instant before libevent does; then le_fatal_cb ends the process with
// "Failed to create event_base".)
constexpr int kDescriptorsPerBase = 4;

bool descriptorsToSpare() {
  int fds[kDescriptorsPerBase];
  int n = 0;
  while (n < kDescriptorsPerBase && (fds[n] = eventfd(0, EFD_CLOEXEC)) >= 0) ++n;
  for (int i = 0; i < n; ++i) close(fds[i]);
  return n == kDescriptorsPerBase;
}

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
  TOLAN_ASSERT(descriptorsToSpare(), "Failed to create event_base: fewer than {} descriptors to spare",
               kDescriptorsPerBase);
  event_config* cfg = event_config_new();
  TOLAN_ASSERT(cfg != nullptr, "Failed to create event_base");
  event_config_require_features(cfg, EV_FEATURE_ET);
  // The timer controls depend on the base's clock: libevent's environment
  // variables (EVENT_PRECISE_TIMER, EVENT_NOEPOLL...) must not change it.
  event_config_set_flag(cfg, EVENT_BASE_FLAG_NO_CACHE_TIME | EVENT_BASE_FLAG_IGNORE_ENV);
  creatingBase = true;
  event_base* base = event_base_new_with_config(cfg);
  creatingBase = false;
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
  if (tlsEventBase == nullptr) {
    // Should the share not be made, its constructor frees `b`.
    auto share = std::make_unique<Impl::BaseShare>(b, &event_base_free);
    TOLAN_PROCESS_ASSERT(pthread_setspecific(threadExitKey(), share.get()) == 0, "pthread_setspecific() == 0");
    tlsShare = share.release();
    tlsEventBase = b;
  }
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
  Impl::BaseShare* share = std::exchange(tlsShare, nullptr);
  tlsEventBase = nullptr;
  if (!share) return;
  pthread_setspecific(threadExitKey(), nullptr);
  delete share;  // frees the base unless a control still holds it
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

BaseShare threadBaseShare() {
  leInit();
  return *tlsShare;
}

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

// noexcept: the assertion's exception, if it is one, ends the process here.
void le_fatal_cb(int err) noexcept {
  if (creatingBase) TOLAN_FAIL("Failed to create event_base: libevent fatal error:{}", err);
  TOLAN_FAIL("libevent fatal error:{}", err);
}

}  // namespace Tolan
