// EventBase.h - the calling thread's libevent base, and libevent's own log.
//
// Each thread that uses the event platform gets one base on first use (any
// control constructor or loop entry point calls leInit()), created with two
// priority queues (0 and 1, the two EventPriority values) and an
// edge-triggered-capable backend. Most code never calls these: Platform.h
// creates the base as needed. This header is for code that runs libevent
// events of its own beside the library's, or manages the base's life: tests,
// forked children, threads that end.
//
// Life of a base: the thread and every control bound to the base share it.
// The thread lets go of its share at thread exit (after its thread_local
// objects are destroyed) or earlier with leFree(); a control lets go when it
// is destroyed or re-armed on another thread. The last to let go frees the
// base and returns its descriptors. So a thread that ends frees its base by
// itself, thread_local objects that own controls (a timer wheel, a scheduler
// root) may be destroyed in any order relative to that, and a control that
// outlives its thread's base stays safe to disarm, query and destroy.
//
// Clock: the base runs on the kernel's coarse monotonic clock, which costs no
// system call per loop pass (a precise libevent timer costs one on every
// pass). The controls make up for its coarseness: see Platform.h's
// TimerControl for what that means for the firing time.
//
// Nothing here is shared between threads; a base and the events on it belong
// to their thread. libevent's own log messages are traced on the handle
// "TolanLibevent" (debug at level 9, msg 5, warn 1, err 0).
#pragma once

#include "Tolan/Common.h"
#include "Tolan/Platform.h"

struct event_base;
struct event;

namespace Tolan {

// A new base as described above (not registered). Fails the assertion
// "Failed to create event_base" when it cannot be made, for instance when the
// process is out of descriptors; what was taken is returned first.
TOLAN_EXPORT event_base* leCreateBase();
// Makes `b` the calling thread's base; the thread owns it from then on, as if
// leInit() had made it. A thread that already has a different base fails the
// assertion "Tried to register a base:{} but a thread_local  base already
// exists: {}".
TOLAN_EXPORT void leRegisterBase(event_base* b);
// The calling thread's base, created and registered on first call.
TOLAN_EXPORT event_base* leInit();
// In a child after fork(): re-initialises the thread's base (creating one if
// there is none) so the child can run its own loop. Call it before the child
// touches any control or loop.
TOLAN_EXPORT void leForkReinit();
// Lets go of the calling thread's base early (thread exit does this by
// itself): the next use on this thread creates a new base. Controls still
// bound to the old one keep it until they are destroyed or re-armed here, and
// it is freed with the last of them; until then nothing runs its loop, so
// their events wait. No-op without a base.
TOLAN_EXPORT void leFree();
TOLAN_EXPORT bool leInitialized() noexcept;
// Records whether the calling thread is the process's main thread; done
// when a base is registered. Only the main thread may switch fast-forward.
TOLAN_EXPORT void setMainThread() noexcept;
TOLAN_EXPORT bool leMainThread() noexcept;
// Sets the libevent priority of `ev`; a refusal (a priority the base has no
// queue for) fails the assertion "Failed to set priority on {} to {} rc {}".
TOLAN_EXPORT void eventPrioritySet(event* ev, Platform::EventPriority p);

// ---- libevent's log and fatal-error callbacks (installed with the first base) ----

// Severity 0..3 traces at 9, 5, 1, 0; anything else fails the assertion
// "invalid libevent severity:{} msg:{}".
TOLAN_EXPORT void le_debug_cb(int severity, const char* msg);
// Traces "libevent fatal error:{}" as an assertion and ends the process, even
// under throwing assertions: libevent cannot go on, and an exception must not
// unwind through its frames.
[[noreturn]] TOLAN_EXPORT void le_fatal_cb(int err) noexcept;

}  // namespace Tolan
