// ForkHandler.h - lets the library know that it runs in a forked child.
//
// Per-process state such as the event base must be re-initialised in a child
// made by fork(); such code asks isForkedChild(). The child handler is
// registered with pthread_atfork when the library is loaded, so callers need
// not call setupHandler() themselves (doing so again is harmless).
//
// The flag is process-wide and written only in the child right after fork
// (or by forkedChildIs); reading it costs one relaxed atomic load.
#pragma once

#include "Tolan/Common.h"

namespace Tolan {
namespace Platform {

// Registers handleFork() as a child handler of pthread_atfork, and the
// handlers that keep the library's own locks usable in the child: they are
// taken before fork() and released on both sides, so that a child forked while
// another thread was tracing or loading a plugin does not hang on its first
// trace line or plugin load. fork() therefore waits for a trace line being
// written, and for a loadPlugin() in progress (its dlopen included). If
// registration fails, writes "Tolan failed to register atfork handler,
// reason: <error>" on standard error and aborts the process.
TOLAN_EXPORT void setupHandler();

// The child handler: sets the forked-child flag.
TOLAN_EXPORT void handleFork() noexcept;

// True in a process made by fork() from one that had the library loaded.
TOLAN_EXPORT bool isForkedChild() noexcept;

// Sets the flag; for code that re-initialises itself after fork and for tests.
TOLAN_EXPORT void forkedChildIs(bool forked) noexcept;

}  // namespace Platform
}  // namespace Tolan
