#include "Tolan/Loco.h"

#include "Tolan/Impl/ForkLocks.h"
#include "Tolan/Locking.h"

namespace Tolan {

// The implementation behind Platform::loco(): a RecursiveLock.
class Loco final : public Platform::Loco {
 public:
  void lock() override { lock_.lock(); }
  void unlock() override { lock_.unlock(); }
  bool owns_lock() const override { return lock_.owns_lock(); }

 private:
  friend void Impl::locoForkChild() noexcept;
  Locking::RecursiveLock lock_;
};

namespace Platform {
namespace {
Tolan::Loco& theLoco() {
  static NoDestructor<Tolan::Loco> instance;
  return *instance;
}
}  // namespace

// Never destroyed: threads may still trace while static destructors run, and
// a destroyed global lock would turn that into a crash at exit.
Loco& loco() { return theLoco(); }

}  // namespace Platform

namespace Impl {

void locoForkPrepare() noexcept { Platform::theLoco().lock(); }
void locoForkParent() noexcept { Platform::theLoco().unlock(); }

// The forking thread may have held the lock already (fork under a LocoGuard):
// it keeps those levels in the child, and only the handler's own is dropped.
void locoForkChild() noexcept {
  Locking::RecursiveLock& lock = Platform::theLoco().lock_;
  const unsigned levels = lock.lockCount() - 1;
  lock.reinitialise();
  for (unsigned i = 0; i < levels; ++i) lock.lock();
}

}  // namespace Impl
}  // namespace Tolan
