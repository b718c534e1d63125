// Loco.h - the library-global lock.
//
// One recursive lock serialises every piece of process-wide library state:
// the trace registry, the plugin registry and the writing of trace lines.
// It is recursive so that code holding it may call code that takes it again
// (a trace line written while the registry is being changed, say).
//
// `Platform::loco()` creates it on first use and never destroys it, so it is
// usable from static constructors and destructors alike. Any thread may call.
// Hold it briefly: every trace line of every thread passes through it.
#pragma once

#include "Tolan/Common.h"

namespace Tolan {
namespace Platform {

// The interface by which the library reaches its global lock. The library's
// implementation (Tolan::Loco, a RecursiveLock) is internal to it.
class TOLAN_EXPORT Loco {
 public:
  virtual void lock() = 0;
  virtual void unlock() = 0;
  virtual bool owns_lock() const = 0;
  virtual ~Loco() = default;
};

// The process-wide lock.
TOLAN_EXPORT Loco& loco();

// Holds loco() for its lifetime.
class TOLAN_EXPORT LocoGuard {
 public:
  LocoGuard() : loco_(loco()) { loco_.lock(); }
  ~LocoGuard() { loco_.unlock(); }
  LocoGuard(const LocoGuard&) = delete;
  LocoGuard& operator=(const LocoGuard&) = delete;

 private:
  Loco& loco_;
};

}  // namespace Platform
}  // namespace Tolan
