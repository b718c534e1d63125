// CheckIncompat.h - refuses to run next to an incompatible platform library.
//
// Every platform library of this family defines the exported integer
// platformLibPresenceFlag, each with its own value; ours is
// PLATFORM_LIB_FLAG_TOLAN. Nothing sets it at run time: it is initialised
// statically, and when another such library is loaded ahead of this one the
// dynamic linker binds every reference, ours included, to that library's
// definition. checkIncompat() runs once at library load (after trace
// start-up) and aborts the process if the flag it sees is not ours, because
// two platform libraries in one process would fight over the event loop,
// the trace output and the fork handling.
#pragma once

#include "Tolan/Common.h"

extern TOLAN_EXPORT int platformLibPresenceFlag;

namespace Tolan {

// The presence-flag value that marks this library.
constexpr int PLATFORM_LIB_FLAG_TOLAN = 2;

// Aborts (C library assertion) when platformLibPresenceFlag is not
// PLATFORM_LIB_FLAG_TOLAN. Otherwise re-opens this library's own file with
// RTLD_NOLOAD | RTLD_GLOBAL, which loads nothing but makes the library's
// symbols global, so plugins opened later resolve against it even when the
// library itself was dlopen'ed locally. Called at load; calling again is harmless.
TOLAN_EXPORT void checkIncompat();

}  // namespace Tolan
