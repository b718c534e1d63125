// LibeventFactory.h - the event platform on libevent: one event base per
// thread, the controls behind Platform.h's factories, and the loop entry
// points. Also pulls in the virtual-time functions (FastForward.h).
//
// Most code should use Platform.h; this header is for code that needs the
// thread's event base itself (to run libevent events of its own beside the
// library's) or manages the base's life: tests, forked children, threads
// that end.
//
// Each thread gets its own base on first use (any control constructor or
// loop entry point), created with two priority queues (0 and 1, the two
// EventPriority values), an edge-triggered-capable backend, the precise
// monotonic clock and no time caching. Nothing here is shared between
// threads; a base and the controls on it must be used on their thread.
//
// libevent's own log messages are traced on the handle "TolanLibevent"
// (debug at level 9, msg 5, warn 1, err 0); a libevent fatal error fails a
// library assertion.
#pragma once

#include <sys/time.h>

#include <memory>

#include "Tolan/Platform.h"

struct event_base;
struct event;

namespace Tolan {
namespace Platform {
class DebugHandler;
}

// ---- the thread's base ----

// A new base as described above (not registered). Fails the assertion
// "Failed to create event_base" when libevent refuses.
event_base* leCreateBase();
// Makes `b` the calling thread's base. A thread that already has a different
// base fails the assertion "Tried to register a base:{} but a thread_local  base
// already exists: {}".
void leRegisterBase(event_base* b);
// The calling thread's base, created and registered on first call.
event_base* leInit();
// In a child after fork(): re-initialises the thread's base (creating one if
// there is none) so the child can run its own loop. Call it before the child
// touches any control or loop.
void leForkReinit();
// Frees the calling thread's base. Only when no control on it is armed or
// bound any more: a control that outlives the base must not be used or
// destroyed afterwards. The base is not freed at thread exit by itself
// (controls may outlive the thread's other state); a thread that ends and
// wants its memory back calls this last. No-op without a base.
void leFree();
bool leInitialized() noexcept;
// Records whether the calling thread is the process's main thread; done
// when a base is registered. Only the main thread may switch fast-forward.
void setMainThread() noexcept;
bool leMainThread() noexcept;
// Sets the libevent priority of `ev`; a refusal fails an assertion.
void eventPrioritySet(event* ev, Platform::EventPriority p);

// ---- controls (what Platform's factories return) ----

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* h);
std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* h, Platform::EventPriority p);
std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(Platform::CallbackHandler* h);
std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* h);

// ---- running the loop (see the Platform.h entry points of the same names) ----

int doLeEventLoop();
void doLeEventLoop(double maxTimeout);
void doLeEventLoopInWaitfor(double maxTimeout);
// Runs the loop in real time for at most `timeout` seconds, whatever the
// fast-forward switch says. Same bounds rules as doEventLoop(double).
void eventLoopTimeout(double timeout);

// ---- libevent's log and fatal-error callbacks (installed with the first base) ----

// Severity 0..3 traces at 9, 5, 1, 0; anything else fails the assertion
// "invalid libevent severity:{} msg:{}".
void le_debug_cb(int severity, const char* msg);
// Fails the assertion "libevent fatal error:{}"; never returns.
[[noreturn]] void le_fatal_cb(int err);

namespace Impl {

// The trace handle "TolanLibevent".
Platform::DebugHandler& leDebug() noexcept;
// `seconds` checked and bounded: negative values become 0, values beyond
// kMaxTimeoutSeconds are clamped, NaN and infinities fail the assertion
// "Invalid timeout {}".
double clampTimeout(double seconds);
// clampTimeout(seconds) as a libevent timeout: whole seconds and truncated
// microseconds.
timeval toTimeval(double seconds);
// event_base_loop(base, flags), then rethrows an exception a handler let out
// of the loop (see the .cpp).
int dispatch(event_base* base, int flags);
// Dispatches until a break event `tv` from now fires (or a handler's
// exception or loop break ends the run earlier); the break event is removed
// on every way out. `seconds` only feeds the trace.
void runLoopWithBreak(event_base* base, const timeval& tv, double seconds);

}  // namespace Impl
}  // namespace Tolan

#include "Tolan/FastForward.h"
