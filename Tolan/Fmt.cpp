#include "Tolan/Fmt.h"

#include <fmt/format.h>


#include "Tolan/Impl/MessageBuffer.h"

namespace Tolan {
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

}  // namespace Impl
}  // namespace Fmt

String DisplayPointer::toString() const { return fmt::format("{}", *this); }

}  // namespace Tolan

namespace {

// Total microseconds (or nanoseconds) as seconds with a fixed number of
// decimals, e.g. -1500000 us -> "-1.500000".
fmt::format_context::iterator appendSeconds(fmt::format_context& ctx, long long units, long long unitsPerSecond,
                                            int decimals) {
  // Work on the magnitude so that -0.5 s prints as "-0.500000", not "0.-500000".
  const unsigned long long magnitude =
      units < 0 ? 0ULL - static_cast<unsigned long long>(units) : static_cast<unsigned long long>(units);
  const auto perSecond = static_cast<unsigned long long>(unitsPerSecond);
  return fmt::format_to(ctx.out(), "{}{}.{:0{}}", units < 0 ? "-" : "", magnitude / perSecond,
                        magnitude % perSecond, decimals);
}

}  // namespace

fmt::format_context::iterator fmt::formatter<timeval>::format(const timeval& tv, format_context& ctx) const {
  return appendSeconds(ctx, static_cast<long long>(tv.tv_sec) * 1000000 + tv.tv_usec, 1000000, 6);
}

fmt::format_context::iterator fmt::formatter<timespec>::format(const timespec& ts, format_context& ctx) const {
  return appendSeconds(ctx, static_cast<long long>(ts.tv_sec) * 1000000000 + ts.tv_nsec, 1000000000, 9);
}
