// LibeventFactory.h - the event platform on libevent: the controls behind
// Platform.h's factories and the loop entry points. The umbrella of the event
// platform: it includes the thread's base (EventBase.h) and virtual time
// (FastForward.h).
//
// Most code should use Platform.h; this header is for code that needs the
// libevent implementation by name or the thread's base itself: tests, forked
// children, threads that end. Everything here acts on the calling thread's
// loop, which it creates on first use; nothing is shared between threads.
#pragma once

#include <memory>

#include "Tolan/Common.h"
#include "Tolan/EventBase.h"
#include "Tolan/FastForward.h"
#include "Tolan/Platform.h"

namespace Tolan {

// ---- controls (what Platform's factories return) ----

TOLAN_EXPORT std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* h);
TOLAN_EXPORT std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* h,
                                                                       Platform::EventPriority p);
TOLAN_EXPORT std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(Platform::CallbackHandler* h);
TOLAN_EXPORT std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* h);

// ---- running the loop (see the Platform.h entry points of the same names) ----

TOLAN_EXPORT int doLeEventLoop();
TOLAN_EXPORT void doLeEventLoop(double maxTimeout);
TOLAN_EXPORT void doLeEventLoopInWaitfor(double maxTimeout);
// Runs the loop in real time for at most `timeout` seconds, whatever the
// fast-forward switch says. Same bounds rules as doEventLoop(double).
TOLAN_EXPORT void eventLoopTimeout(double timeout);

}  // namespace Tolan
