#include "Tolan/Loco.h"

namespace Tolan {
namespace Platform {

// Deliberately leaked: threads may still trace while static destructors run,
// and a destroyed global lock would turn that into a crash at exit.
Loco& loco() {
  static Loco* const instance = new Tolan::Loco;
  return *instance;
}

}  // namespace Platform
}  // namespace Tolan
