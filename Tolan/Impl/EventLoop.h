// Impl/EventLoop.h - what the libevent backend (LibeventFactory.cpp) and
// virtual time (FastForward.cpp) share below them: the thread's base as the
// hot paths read it and as its users share it, the "TolanLibevent" trace
// handle, timeout conversion, and running the loop so that a handler's
// exception reaches the caller.
#pragma once

#include <sys/time.h>

#include <exception>
#include <memory>

#include "Tolan/Common.h"
#include "Tolan/EventBase.h"

struct event_base;

namespace Tolan {
namespace Platform {
class DebugHandler;
}

namespace Impl {

// The calling thread's base, null until leInit(). Initial-exec: read on every
// arming, and this avoids a __tls_get_addr call. One pointer fits the static
// TLS reserve even when the library is dlopen()ed.
extern __thread event_base* tlsEventBase __attribute__((tls_model("initial-exec")));

// The calling thread's base, created on first use.
inline event_base* threadBase() {
  event_base* b = tlsEventBase;
  return TOLAN_LIKELY(b != nullptr) ? b : leInit();
}

// A share of a base (see EventBase.h): the base is freed with the last share.
using BaseShare = std::shared_ptr<event_base>;
// A share of the calling thread's base, created on first use. For controls:
// they hold it for as long as their events are assigned to that base.
BaseShare threadBaseShare();

// The trace handle "TolanLibevent", created on first call and never destroyed
// (controls may trace from other static destructors).
Platform::DebugHandler& leDebugHandle() noexcept;
// The same handle, remembered: a trace site evaluates its handle even when
// the level is off, so the hot paths must not pay a call for it.
inline Platform::DebugHandler& leDebug() noexcept {
  static Platform::DebugHandler* const handle = &leDebugHandle();
  return *handle;
}

// `seconds` checked and bounded: negative values become 0, values beyond
// kMaxTimeoutSeconds are clamped, NaN and infinities fail the assertion
// "Invalid timeout {}".
double clampTimeout(double seconds);
// clampTimeout(seconds) as a libevent timeout: whole seconds and truncated
// microseconds.
timeval toTimeval(double seconds);

// Keeps an exception a handler let out of a libevent callback for the caller
// of the loop, and breaks the thread's loop (see EventBase.cpp).
TOLAN_COLD void parkException(std::exception_ptr e);
// event_base_loop(base, flags), then rethrows a parked exception.
int dispatch(event_base* base, int flags);
// Dispatches until a break event `tv` from now fires (or a handler's
// exception or loop break ends the run earlier); the break event is removed
// on every way out. `seconds` only feeds the trace.
void runLoopWithBreak(event_base* base, const timeval& tv, double seconds);

}  // namespace Impl
}  // namespace Tolan
