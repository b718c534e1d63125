// EventBase.h - the calling thread's libevent base, and libevent's own log.
//
// Each thread that uses the event platform gets one base on first use (any
// control constructor or loop entry point calls leInit()), created with two
// priority queues (0 and 1, the two EventPriority values), an
// edge-triggered-capable backend, the precise monotonic clock and no time
// caching. Most code never calls these: Platform.h creates the base as
// needed. This header is for code that runs libevent events of its own beside
// the library's, or manages the base's life: tests, forked children, threads
// that end.
//
// Nothing here is shared between threads; a base and the events on it belong
// to their thread. libevent's own log messages are traced on the handle
// "TolanLibevent" (debug at level 9, msg 5, warn 1, err 0); a libevent fatal
// error fails a library assertion.
#pragma once

#include "Tolan/Common.h"
#include "Tolan/Platform.h"

struct event_base;
struct event;

namespace Tolan {

// A new base as described above (not registered). Fails the assertion
// "Failed to create event_base" when libevent refuses.
TOLAN_EXPORT event_base* leCreateBase();
// Makes `b` the calling thread's base. A thread that already has a different
// base fails the assertion "Tried to register a base:{} but a thread_local  base
// already exists: {}".
TOLAN_EXPORT void leRegisterBase(event_base* b);
// The calling thread's base, created and registered on first call.
TOLAN_EXPORT event_base* leInit();
// In a child after fork(): re-initialises the thread's base (creating one if
// there is none) so the child can run its own loop. Call it before the child
// touches any control or loop.
TOLAN_EXPORT void leForkReinit();
// Frees the calling thread's base. Only when no control on it is armed or
// bound any more: a control that outlives the base must not be used or
// destroyed afterwards. The base is not freed at thread exit by itself
// (controls may outlive the thread's other state); a thread that ends and
// wants its memory back calls this last. No-op without a base.
TOLAN_EXPORT void leFree();
TOLAN_EXPORT bool leInitialized() noexcept;
// Records whether the calling thread is the process's main thread; done
// when a base is registered. Only the main thread may switch fast-forward.
TOLAN_EXPORT void setMainThread() noexcept;
TOLAN_EXPORT bool leMainThread() noexcept;
// Sets the libevent priority of `ev`; a refusal fails an assertion.
TOLAN_EXPORT void eventPrioritySet(event* ev, Platform::EventPriority p);

// ---- libevent's log and fatal-error callbacks (installed with the first base) ----

// Severity 0..3 traces at 9, 5, 1, 0; anything else fails the assertion
// "invalid libevent severity:{} msg:{}".
TOLAN_EXPORT void le_debug_cb(int severity, const char* msg);
// Fails the assertion "libevent fatal error:{}"; never returns.
[[noreturn]] TOLAN_EXPORT void le_fatal_cb(int err);

}  // namespace Tolan
