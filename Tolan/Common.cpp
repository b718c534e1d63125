// The process assertion must report even in builds that define NDEBUG, and
// <assert.h> declares __assert_fail only without it.
#undef NDEBUG
#include "Tolan/Common.h"

#include <assert.h>

namespace Tolan {
namespace Impl {

void processAssertFail(const char* text, const char* file, unsigned line, const char* func) noexcept {
  __assert_fail(text, file, line, func);
}

}  // namespace Impl
}  // namespace Tolan
