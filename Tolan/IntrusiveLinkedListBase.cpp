#include "Tolan/IntrusiveLinkedListBase.h"

#include "Tolan/Assert.h"

namespace Tolan {
namespace Impl {

// Linking a node twice would corrupt two lists at once; nothing downstream can
// recover from that, so the checks abort with the C library's report rather
// than throw (which would leave the caller holding a half-linked element).
void listAssertFail(const char* condition, const char* file, unsigned line, const char* function) noexcept {
  processAssertFail(condition, file, line, function);
}

}  // namespace Impl
}  // namespace Tolan
