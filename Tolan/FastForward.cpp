// FastForward.cpp - virtual time on top of the libevent backend.
//
// Stock libevent cannot report or shift its timeouts, so both are built on
// its public interface: event_base_foreach_event() walks the base's events,
// event_pending() reports each pending timeout's expiry, and event_add() on
// a pending event replaces its timeout.
//
// Two clocks, one frame: event_pending() reports expiries as libevent's
// monotonic clock plus a wall-clock correction that libevent refreshes now
// and then, so "now" is never taken from gettimeofday() here. The base's own
// now comes from a scratch event added with a zero timeout and read back
// through event_pending(), read before the expiries it is compared with, so
// that a refresh triggered by that add cannot fall between them. But the base
// runs on the coarse monotonic clock, which lags the precise one that
// Tolan::time() reads by up to a kernel tick; what is due is decided on the
// precise now (the base's plus that lag), and a pure timer that falls due
// while the base's clock still says otherwise is made active by hand, in
// order of expiry. Jumps thus land on the timers' exact times, and a timer
// never waits for the coarse clock to catch up.
#include "Tolan/FastForward.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <unordered_set>
#include <vector>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/EventBase.h"
#include "Tolan/Impl/EventLoop.h"
#include "Tolan/Loco.h"
#include "Tolan/Platform.h"

namespace Tolan {

namespace {

// Process-wide; changed on the main thread during set-up, read anywhere.
std::atomic<bool> gFastForward{false};

// Initial-exec: time() is on every timer's path, and the general model pays a
// call to __tls_get_addr for each read. The variable is small, and glibc keeps
// static TLS to spare for libraries like this one even when dlopen()ed.
__attribute__((tls_model("initial-exec"))) thread_local timeval virtualOffset{0, 0};

using Notifier = void (*)();
// Guarded by the global lock; never destroyed, like the switch it serves.
std::unordered_set<Notifier>& notifiers() {
  static NoDestructor<std::unordered_set<Notifier>> set;
  return *set;
}

double secs(const timeval& tv) { return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6; }

void noop(evutil_socket_t, short, void*) {}

// The base's current time in the frame event_pending() reports expiries in.
timeval scratchNow(event_base* base) {
  event scratch;
  event_assign(&scratch, base, -1, 0, &noop, nullptr);
  eventPrioritySet(&scratch, Platform::eventPriorityDefault);
  const timeval zero{0, 0};
  const int rc = event_add(&scratch, &zero);
  TOLAN_ASSERT(rc == 0, "Failed to add a scratch timer rc {}", rc);
  timeval now{0, 0};
  event_pending(&scratch, EV_TIMEOUT, &now);
  event_del(&scratch);
  event_debug_unassign(&scratch);
  return now;
}

// The base's now and the precise monotonic now, both in event_pending()'s
// frame. The base's clock read around the scratch add pins down what the add
// measured from; should it move meanwhile (a tick), the later reading is
// used, which errs on the side of "not yet due".
struct Now {
  timeval base;
  timeval precise;
};

Now frameNow(event_base* base) {
  for (int attempt = 0;; ++attempt) {
    timeval before, after;
    event_gettime_monotonic(base, &before);
    const timeval now = scratchNow(base);
    event_gettime_monotonic(base, &after);
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    if (timercmp(&before, &after, !=) && attempt < 2) continue;
    const timeval precise{ts.tv_sec, static_cast<suseconds_t>(ts.tv_nsec / 1000)};
    timeval lag{0, 0};
    if (timercmp(&precise, &after, >)) timersub(&precise, &after, &lag);
    timeval result;
    timeradd(&now, &lag, &result);
    return {now, result};
  }
}

struct PendingTimeout {
  event* ev;
  timeval expiry;
};

// Only collects: event_pending() takes the base lock, which the walk holds
// and which is not recursive.
int collectEvent(const event_base*, const event* ev, void* arg) {
  static_cast<std::vector<event*>*>(arg)->push_back(const_cast<event*>(ev));
  return 0;
}

std::vector<PendingTimeout> pendingTimeouts(event_base* base) {
  std::vector<event*> events;
  event_base_foreach_event(base, &collectEvent, &events);
  std::vector<PendingTimeout> pending;
  pending.reserve(events.size());
  for (event* ev : events) {
    timeval expiry;
    if (event_pending(ev, EV_TIMEOUT, &expiry) & EV_TIMEOUT) pending.push_back({ev, expiry});
  }
  return pending;
}

// A one-shot timeout without descriptor or signal: activating it by hand is
// exactly what libevent does when it expires.
bool pureTimer(const event* ev) { return (event_get_events(ev) & (EV_READ | EV_WRITE | EV_SIGNAL | EV_PERSIST)) == 0; }

}  // namespace

// ---- the two functions libevent lacks ----

int event_base_get_first_timeout(event_base* base, timeval* out) {
  const std::vector<PendingTimeout> pending = pendingTimeouts(base);
  if (pending.empty()) return -1;
  *out = std::min_element(pending.begin(), pending.end(), [](const PendingTimeout& a, const PendingTimeout& b) {
           return timercmp(&a.expiry, &b.expiry, <);
         })->expiry;
  return 0;
}

int event_base_timeout_subtract_offset(event_base* base, const timeval* delta) {
  const Now now = frameNow(base);
  std::vector<PendingTimeout> pending = pendingTimeouts(base);
  // In expiry order: what falls due is activated in that order, and adding
  // the others in that order keeps theirs.
  std::sort(pending.begin(), pending.end(), [](const PendingTimeout& a, const PendingTimeout& b) {
    return timercmp(&a.expiry, &b.expiry, <);
  });
  std::vector<event*> due;
  int moved = 0;
  // event_add() takes a relative timeout and measures it from the base's
  // clock at the moment of the add, which moves on while we re-add (by a
  // whole tick, now and then). Re-adding with (target - now) would leave
  // every timeout late by the time spent so far, and that lateness would pile
  // up step after step. So each add is read back, the clock it measured from
  // is taken into account for the next one, and an add that missed its
  // target is repeated with the difference.
  timeval lag{0, 0};
  for (const PendingTimeout& p : pending) {
    timeval target;
    timersub(&p.expiry, delta, &target);
    if (pureTimer(p.ev) && !timercmp(&target, &now.precise, >)) {
      due.push_back(p.ev);
      continue;
    }
    // Other timeouts already due stay as they are: they fire on the next
    // pass anyway, and some of them may be activated already, where a re-add
    // would deliver them twice.
    if (!timercmp(&p.expiry, &now.precise, >)) continue;
    ++moved;
    timeval ahead;  // target - now: how far after the base's now the moved timeout lies
    timersub(&p.expiry, &now.base, &ahead);
    if (timercmp(&ahead, delta, >)) {
      timersub(&ahead, delta, &ahead);
    } else {
      ahead = timeval{0, 0};
    }
    timeradd(&now.base, &ahead, &target);
    timeval rel{0, 0};
    if (timercmp(&ahead, &lag, >)) timersub(&ahead, &lag, &rel);
    for (int attempt = 0;; ++attempt) {
      const int rc = event_add(p.ev, &rel);
      TOLAN_ASSERT(rc == 0, "Failed to move timeout of {} rc {}", static_cast<const void*>(p.ev), rc);
      timeval actual;
      event_pending(p.ev, EV_TIMEOUT, &actual);
      timeval start;  // the clock this add measured from
      timersub(&actual, &rel, &start);
      if (timercmp(&start, &now.base, >)) timersub(&start, &now.base, &lag);
      if (timercmp(&actual, &target, ==) || attempt == 3) break;
      rel = timeval{0, 0};
      if (timercmp(&target, &start, >)) timersub(&target, &start, &rel);
    }
  }
  for (event* ev : due) {
    event_del(ev);
    event_active(ev, EV_TIMEOUT, 1);
  }
  return moved + static_cast<int>(due.size());
}

// ---- the switch ----

void setLeFastForward(bool on) {
  leInit();
  TOLAN_ASSERT(leMainThread(), "FastForward invoked from non-main thread");
  if (gFastForward.load(std::memory_order_relaxed) == on) return;
  gFastForward.store(on, std::memory_order_relaxed);
  std::vector<Notifier> toCall;
  {
    Platform::LocoGuard guard;
    toCall.assign(notifiers().begin(), notifiers().end());
  }
  for (Notifier fn : toCall) fn();
}

bool leFastForward() noexcept { return gFastForward.load(std::memory_order_relaxed); }

void leRegisterFastForwardChangeNotifier(void (*fn)()) {
  TOLAN_ASSERT(fn != nullptr, "Null fast-forward change notifier");
  Platform::LocoGuard guard;
  notifiers().insert(fn);
}

// ---- virtual time ----

double leVirtualTimeOffset() noexcept { return secs(virtualOffset); }

double time() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9 + secs(virtualOffset);
}

void applyFastForwardDelta(const timeval* delta) {
  TOLAN_ASSERT(delta->tv_sec >= 0 && delta->tv_usec >= 0 && delta->tv_usec <= 999999,
               "Invalid virtual time delta {}.{:06}", static_cast<long>(delta->tv_sec),
               static_cast<long>(delta->tv_usec));
  // Even a zero delta: what is due by the precise clock is activated.
  event_base_timeout_subtract_offset(leInit(), delta);
  if (delta->tv_sec == 0 && delta->tv_usec == 0) return;
  virtualOffset.tv_sec += delta->tv_sec;
  virtualOffset.tv_usec += delta->tv_usec;
  if (virtualOffset.tv_usec > 999999) {
    virtualOffset.tv_usec -= 1000000;
    virtualOffset.tv_sec += 1;
  }
  TOLAN_TRACE(Impl::leDebug(), 2, "Increasing virtual time offset by {} to {}", secs(*delta), secs(virtualOffset));
}

bool fastForwardDelayToFirstTimer(timeval* out) {
  TOLAN_ASSERT(leFastForward(), "Called without fast forward enabled");
  event_base* base = leInit();
  const timeval now = frameNow(base).precise;
  timeval first;
  if (event_base_get_first_timeout(base, &first) != 0) {
    TOLAN_TRACE(Impl::leDebug(), 9, "no timers");
    return false;
  }
  if (!timercmp(&now, &first, <)) {
    TOLAN_TRACE(Impl::leDebug(), 9, "first timer expired at {} now {} return zero delta", secs(first), secs(now));
    *out = timeval{0, 0};
    return true;
  }
  timeval delta;
  timersub(&first, &now, &delta);
  // Lands strictly after the first expiry, so that it is due after the shift.
  const timeval extraDelay{0, 100};
  timeval result;
  timeradd(&delta, &extraDelay, &result);
  TOLAN_TRACE(Impl::leDebug(), 9, "first timer will at {} now {} delta {} extraDelay {} return delta {}", secs(first),
              secs(now), secs(delta), secs(extraDelay), secs(result));
  *out = result;
  return true;
}

void eventLoopFastForward(const timeval* delta) {
  applyFastForwardDelta(delta);
  Impl::runLoopWithBreak(leInit(), timeval{0, 0}, 0.0);
}

void eventLoopFastForwardToFirstTimer(double maxTimeout) {
  TOLAN_TRACE(Impl::leDebug(), 5, "maxTimeout {}", maxTimeout);
  TOLAN_ASSERT(leFastForward(), "Called without fastForward enabled");
  const timeval maximum = Impl::toTimeval(maxTimeout);
  timeval delay;
  if (fastForwardDelayToFirstTimer(&delay) && timercmp(&delay, &maximum, <)) {
    eventLoopFastForward(&delay);
  } else {
    eventLoopFastForward(&maximum);
  }
}

}  // namespace Tolan
