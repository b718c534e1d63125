#include "Tolan/IntrusiveBookmarkLinkedList.h"

namespace Tolan {
namespace Impl {

// A parked bookmark parked again would splice one node into two places; the
// walk it serves could only loop or skip, so this is as fatal as a double link.
void bookmarkAlreadyLinked(unsigned line) noexcept {
  processAssertFail("!link.isLinked()", "IntrusiveBookmarkLinkedList", line, "Bookmark::insertBefore");
}

}  // namespace Impl
}  // namespace Tolan
