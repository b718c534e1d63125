// FastForward.h - virtual time: let tests and simulations skip the waits of
// the event loop.
//
// With fast-forward on, the loop entry points do not sleep until the next
// timer: they advance the thread's virtual-time offset to it and move every
// pending timeout of the thread's base earlier by the same amount, so the
// timer fires at once while Tolan::time() reports the later, virtual instant.
// Code that reads time only through Tolan::time() and arms timers only through
// the Platform controls behaves as if the time had passed.
//
// The switch is process-wide and may be changed on the main thread only; the
// offset is per thread and only grows. Cost of one step: a walk over the
// base's events plus, when time advances, one re-add per pending timeout
// (O(n log n) for n pending timeouts).
//
// Limitation: a libevent event added directly with EV_PERSIST and a timeout
// has its period replaced by the shortened remaining time when it is moved.
// The library's own controls never use such events.
#pragma once

#include <sys/time.h>

#include "Tolan/Common.h"

struct event_base;

namespace Tolan {

// The switch (see Platform::setFastForward).
TOLAN_EXPORT void setLeFastForward(bool on);
TOLAN_EXPORT bool leFastForward() noexcept;
TOLAN_EXPORT void leRegisterFastForwardChangeNotifier(void (*fn)());

// The calling thread's virtual-time offset in seconds.
TOLAN_EXPORT double leVirtualTimeOffset() noexcept;
// Moves the thread's pending timeouts `delta` earlier and grows the offset by
// it; timers due then are made active (so a zero delta only does that).
TOLAN_EXPORT void applyFastForwardDelta(const timeval* delta);
// How far to advance so that the first pending timer is due (its distance
// plus 100 microseconds, or zero when it is due already); false when no
// timer is pending. Fast-forward must be on ("Called without fast forward
// enabled").
TOLAN_EXPORT bool fastForwardDelayToFirstTimer(timeval* out);
// Advances by `delta`, then runs one loop pass over what is due.
TOLAN_EXPORT void eventLoopFastForward(const timeval* delta);
// Advances to the first timer but by no more than `maxTimeout` (all of it when
// no timer is pending), then runs one loop pass. Fast-forward must be on
// ("Called without fastForward enabled").
TOLAN_EXPORT void eventLoopFastForwardToFirstTimer(double maxTimeout);

// ---- what stock libevent lacks, built on its public interface ----

// Writes the expiry of the earliest pending timeout of `base` (in the form
// event_pending() reports expiries) and returns 0; nonzero when none is pending.
TOLAN_EXPORT int event_base_get_first_timeout(event_base* base, timeval* out);
// Moves every pending, not yet due timeout of `base` `delta` earlier, keeping
// their order. One-shot timers without a descriptor that are due afterwards by
// the precise monotonic clock (the base's own clock is coarser) are made
// active, in order of expiry. Returns how many were moved or activated.
TOLAN_EXPORT int event_base_timeout_subtract_offset(event_base* base, const timeval* delta);

}  // namespace Tolan
