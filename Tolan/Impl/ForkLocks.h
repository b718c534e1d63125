// ForkLocks.h - the library's locks across fork().
//
// A child made by fork() has only the forking thread; a lock that another
// thread held at that moment would stay held for ever, and the child would
// hang on its first trace line. So the fork handler takes the library's locks
// before fork and releases them after, on both sides. Order: the plugin load
// lock first (a load takes the global lock under it), then the global lock,
// then the backtrace tracker's, because code holding the global lock may
// record an exception (an assertion under it) and so take the tracker's, never
// the other way round.
#pragma once

namespace Tolan {
namespace Impl {

// Defined in Plugin.cpp. Taking it waits for a load in progress on another
// thread, so fork() may wait for that thread's dlopen to finish.
void pluginForkPrepare() noexcept;
void pluginForkParent() noexcept;
void pluginForkChild() noexcept;

// Defined in Loco.cpp.
void locoForkPrepare() noexcept;
void locoForkParent() noexcept;
void locoForkChild() noexcept;

// Defined in Backtrace.cpp: the tracker's lock, then the one stack walks share.
void trackerForkPrepare() noexcept;
void trackerForkParent() noexcept;
void trackerForkChild() noexcept;

}  // namespace Impl
}  // namespace Tolan
