// The failure path of the library assertion. Assert.h, which every layer of
// the library includes, only declares it; this body needs the trace output
// and the exceptions, and runs only once an assertion has failed.
#include "Tolan/Assert.h"

#include <exception>
#include <string>

#include "Tolan/Debug.h"
#include "Tolan/DebugOutput.h"
#include "Tolan/Exception.h"
#include "Tolan/Impl/MessageBuffer.h"

namespace Tolan {

void debugAndThrowAssertException(Platform::DebugHandler& handler, unsigned level, Platform::DebugStream& stream,
                                  const char* file, const char* func, int line) {
  String text;
  try {
    text = fmt::format("{}:{}:{}: {}", file, func, line, stream.str());
    handler.dump(stream, level, file, line, func);
  } catch (...) {
    // Only the assertion itself may leave here; see assertFailV.
    std::terminate();
  }
  AssertException::throwException(text);
}

namespace Impl {

void assertFailV(const char* file, int line, bool withClass, const char* func, const char* className,
                 fmt::string_view format, fmt::format_args args) {
  String msg;
  try {
    msg = Fmt::Impl::vformatstr(file, line, withClass, func, className, format, args);
    // Level 0 is traced even when switched off: an assertion must always be seen.
    Platform::dumpDebugMsg(msg.data(), static_cast<unsigned>(msg.size()), 0, TOLAN_DEFAULT_HANDLE, file, func, line);
  } catch (...) {
    // A broken format string (or no memory) must not replace the assertion
    // with some other exception a caller might catch: the process ends, and
    // the terminate handler names what was in flight.
    std::terminate();
  }
  AssertException::throwException(msg);
}

}  // namespace Impl
}  // namespace Tolan
