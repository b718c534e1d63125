#include "Tolan/Errno.h"

#include <errno.h>
#include <string.h>

#include "Tolan/Assert.h"

namespace Tolan {
namespace {

constexpr size_t kErrnoTextSize = 256;
thread_local char tlsErrnoText[kErrnoTextSize];

}  // namespace

const char* strerror(int errnum) {
  const int saved = errno;
  errno = 0;
  // The GNU variant: returns either a static text or tlsErrnoText.
  const char* text = ::strerror_r(errnum, tlsErrnoText, kErrnoTextSize);
  const int failure = errno;
  TOLAN_ASSERT(failure == 0, "Unable to format errno:{} error:{}", errnum, failure);
  errno = saved;
  return text;
}

}  // namespace Tolan
