// The process assertion must report even in builds that define NDEBUG.
#undef NDEBUG
#include "Tolan/Assert.h"

#include <assert.h>

#include <atomic>

#include "Tolan/Debug.h"
#include "Tolan/Exception.h"

namespace Tolan {
namespace {
std::atomic<bool> gThrowOnAssertFail{false};
}  // namespace

void throwOnAssertFailIs(bool on) noexcept { gThrowOnAssertFail.store(on, std::memory_order_relaxed); }
bool throwOnAssertFail() noexcept { return gThrowOnAssertFail.load(std::memory_order_relaxed); }

namespace Impl {

void processAssertFail(const char* text, const char* file, unsigned line, const char* func) noexcept {
  __assert_fail(text, file, line, func);
}

void assertFailV(const char* file, int line, bool withClass, const char* func, const char* className,
                 fmt::string_view format, fmt::format_args args) {
  String msg;
  try {
    msg = Fmt::Impl::vformatstr(file, line, withClass, func, className, format, args);
    // Level 0 is traced even when switched off: an assertion must always be seen.
    Fmt::Impl::dumpDebugMsg(msg.data(), msg.size(), 0, TOLAN_DEFAULT_HANDLE, file, func, line);
  } catch (...) {
    // A broken format string in an assertion must not replace the assertion
    // with some other exception; the process ends with what is in flight.
    std::terminate();
  }
  AssertException::throwException(msg);
}

}  // namespace Impl
}  // namespace Tolan
