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

void locoForkChild() noexcept { Platform::theLoco().lock_.releaseInForkChild(); }

}  // namespace Impl
}  // namespace Tolan
