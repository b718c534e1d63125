#include "Tolan/Fmt.h"


#include "Tolan/Assert.h"

namespace Tolan {
namespace Platform {
// The trace back-end. Declared weak so that the formatting layer links on its
// own; a build without a back-end fails loudly at the first message.
void dumpDebugMsg(const char* msg, unsigned len, unsigned level, const void* handle, const char* file,
                  const char* func, int line) __attribute__((weak));
}  // namespace Platform

namespace Fmt {
namespace Impl {

void buildMessageBuffer(MessageBuffer& buffer, bool withClass, const char* func, const char* className,
                        fmt::string_view format, fmt::format_args args) {
  if (withClass) {
    TOLAN_PROCESS_ASSERT(func && className, "funcName && className");
    fmt::format_to(fmt::appender(buffer), "{}::{}() ", className, func);
  }
  fmt::vformat_to(fmt::appender(buffer), format, args);
}

// Room for "file:line: Class::func() " without a reallocation in the common case.
constexpr size_t kDetailedReserve = 128;

void buildDetailedMessageBuffer(MessageBuffer& buffer, const char* file, int line, bool withClass, const char* func,
                                const char* className, fmt::string_view format, fmt::format_args args) {
  buffer.clear();
  buffer.reserve(kDetailedReserve);
  fmt::format_to(fmt::appender(buffer), "{}:{}: ", file, line);
  buildMessageBuffer(buffer, withClass, func, className, format, args);
}

std::string vformatstr(bool withClass, const char* func, const char* className, fmt::string_view format,
                       fmt::format_args args) {
  MessageBuffer buffer;
  buildMessageBuffer(buffer, withClass, func, className, format, args);
  return fmt::to_string(buffer);
}

std::string vformatstr(const char* file, int line, bool withClass, const char* func, const char* className,
                       fmt::string_view format, fmt::format_args args) {
  MessageBuffer buffer;
  buildDetailedMessageBuffer(buffer, file, line, withClass, func, className, format, args);
  return fmt::to_string(buffer);
}

void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handle, const char* file,
                  const char* func, int line) {
  TOLAN_PROCESS_ASSERT(&Platform::dumpDebugMsg != nullptr, "No debug handler found for platform");
  Platform::dumpDebugMsg(msg, static_cast<unsigned>(len), level, handle, file, func, line);
}

void vfmtrace(const void* handle, unsigned level, const char* file, bool withClass, const char* func,
              const char* className, int line, fmt::string_view format, fmt::format_args args) {
  MessageBuffer buffer;
  buildMessageBuffer(buffer, withClass, func, className, format, args);
  dumpDebugMsg(buffer.data(), buffer.size(), level, handle, file, func, line);
}

}  // namespace Impl
}  // namespace Fmt

String DisplayPointer::toString() const { return fmt::format("{}", *this); }

namespace Fmt {
namespace Impl {

void appendSeconds(fmt::memory_buffer& out, long long units, long long unitsPerSecond, int decimals) {
  // Work on the magnitude so that -0.5 s prints as "-0.500000", not "0.-500000".
  const unsigned long long magnitude =
      units < 0 ? 0ULL - static_cast<unsigned long long>(units) : static_cast<unsigned long long>(units);
  const auto perSecond = static_cast<unsigned long long>(unitsPerSecond);
  fmt::format_to(fmt::appender(out), "{}{}.{:0{}}", units < 0 ? "-" : "", magnitude / perSecond,
                 magnitude % perSecond, decimals);
}

}  // namespace Impl
}  // namespace Fmt
}  // namespace Tolan
