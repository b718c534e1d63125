#include "Tolan/Loco.h"

#include "Tolan/Locking.h"

namespace Tolan {

// The implementation behind Platform::loco(): a RecursiveLock.
class Loco final : public Platform::Loco {
 public:
  void lock() override { lock_.lock(); }
  void unlock() override { lock_.unlock(); }
  bool owns_lock() const override { return lock_.owns_lock(); }

 private:
  Locking::RecursiveLock lock_;
};

namespace Platform {

// Never destroyed: threads may still trace while static destructors run, and
// a destroyed global lock would turn that into a crash at exit.
Loco& loco() {
  static NoDestructor<Tolan::Loco> instance;
  return *instance;
}

}  // namespace Platform
}  // namespace Tolan
