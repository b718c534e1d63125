#include "Tolan/CheckIncompat.h"

#include <dlfcn.h>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"

// Constant-initialised: holds our value before any code of the process runs.
int platformLibPresenceFlag = Tolan::PLATFORM_LIB_FLAG_TOLAN;

namespace Tolan {

void checkIncompat() {
  TOLAN_PROCESS_ASSERT(platformLibPresenceFlag == Tolan::PLATFORM_LIB_FLAG_TOLAN &&
                           "a library incompatible with Tolan has been loaded",
                       "platformLibPresenceFlag == Tolan::PLATFORM_LIB_FLAG_TOLAN && \"a library incompatible "
                       "with Tolan has been loaded\"");
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&checkIncompat), &info) == 0 || info.dli_fname == nullptr) {
    TOLAN_TRACE(TOLAN_DEFAULT_HANDLE, 1, "cannot find the file of the Tolan library");
    return;
  }
  // Holds one more reference to ourselves, which is never dropped: the
  // library stays loaded for the life of the process anyway.
  if (dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_GLOBAL) == nullptr) {
    const char* why = dlerror();
    TOLAN_TRACE(TOLAN_DEFAULT_HANDLE, 1, "cannot make {} global: {}", info.dli_fname, why ? why : "unknown error");
  }
}

namespace {
__attribute__((constructor(111))) void checkIncompatAtLoad() { checkIncompat(); }
}  // namespace

}  // namespace Tolan
