// Platform.cpp - the abstract interfaces' out-of-line parts and the
// forwarding of Platform's entry points to the libevent backend.
// Tolan::time() lives with the virtual-time offset in FastForward.cpp.
#include "Tolan/Platform.h"

#include <fmt/format.h>

#include <cmath>
#include <unordered_map>

#include "Tolan/Assert.h"
#include "Tolan/LibeventFactory.h"
#include "Tolan/Loco.h"

namespace Tolan {
namespace Platform {

const char* eventPriorityToString(EventPriority p) noexcept {
  switch (p) {
    case eventPriorityStrictHigh:
      return "eventPriorityStrictHigh";
    case eventPriorityDefault:
      return "eventPriorityDefault";
  }
  return "";
}

TimeoutHandler::~TimeoutHandler() = default;
bool TimeoutHandler::handleTimeoutException() { return false; }
CallbackHandler::~CallbackHandler() = default;
bool CallbackHandler::handleCallbackException() { return false; }
FdEventHandler::~FdEventHandler() = default;
bool FdEventHandler::handleFdException(int) { return false; }

TimerControl::~TimerControl() = default;
CallbackControl::~CallbackControl() = default;
FdControl::~FdControl() = default;

// ---- value printers ----

namespace {

// The introspection map, guarded by the global lock.
std::unordered_map<std::string, ValuePrinterFunction>& printers() {
  static NoDestructor<std::unordered_map<std::string, ValuePrinterFunction>> map;
  return *map;
}

}  // namespace

ValuePrinter::~ValuePrinter() = default;

std::string ValuePrinter::customToString(const void* value) const {
  ValuePrinterFunction fn = nullptr;
  {
    LocoGuard guard;
    auto it = printers().find(typeName_);
    if (it != printers().end()) fn = it->second;
  }
  return fn ? fn(value) : std::string();
}

std::string ValuePrinter::toString(const void* value) {
  std::string text = customToString(value);
  if (!text.empty() || size_ <= 0 || value == nullptr) return text;
  static constexpr char kHex[] = "0123456789abcdef";
  const auto* bytes = static_cast<const unsigned char*>(value);
  text.reserve(static_cast<size_t>(size_) * 3);
  for (int i = 0; i < size_; ++i) {
    if (i) text += ' ';
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 15];
  }
  return text;
}

void registerValuePrinter(const std::string& typeName, ValuePrinterFunction fn) {
  LocoGuard guard;
  if (fn) {
    printers()[typeName] = fn;
  } else {
    printers().erase(typeName);
  }
}

std::shared_ptr<ValuePrinter> getValuePrinter(const std::string& typeName, int size) {
  return std::make_shared<ValuePrinter>(typeName, size);
}

// ---- factories and loop ----

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* h) { return getLeTimerControl(h); }
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* h, EventPriority p) { return getLeTimerControl(h, p); }
std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* h) { return getLeCallbackControl(h); }
std::shared_ptr<FdControl> getFdControl(FdEventHandler* h) { return getLeFdControl(h); }

int doEventLoop() { return doLeEventLoop(); }
void doEventLoop(double maxTimeout) { doLeEventLoop(maxTimeout); }
void doEventLoopInWaitfor(double maxTimeout) { doLeEventLoopInWaitfor(maxTimeout); }

// ---- virtual time ----

void setFastForward(bool on) { setLeFastForward(on); }
bool fastForward() noexcept { return leFastForward(); }
void registerFastForwardChangeNotifier(void (*fn)()) { leRegisterFastForwardChangeNotifier(fn); }

void fastForwardBy(double seconds) {
  TOLAN_ASSERT(leFastForward(), "fast-forwarding disabled");
  TOLAN_ASSERT(std::isfinite(seconds) && seconds >= 0.0, "Invalid fast-forward amount {}", seconds);
  if (seconds > kMaxTimeoutSeconds) seconds = kMaxTimeoutSeconds;
  timeval delta;
  delta.tv_sec = static_cast<time_t>(seconds);
  delta.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(delta.tv_sec)) * 1e6);
  applyFastForwardDelta(&delta);
}

// ---- switches ----

bool releaseMode() noexcept { return false; }

void refCountingEnabledIs(bool) { TOLAN_FAIL("not available in libTolan.so"); }

bool refCountingEnabled() { TOLAN_FAIL("not available in libTolan.so"); }

}  // namespace Platform
}  // namespace Tolan

fmt::format_context::iterator fmt::formatter<Tolan::Platform::EventPriority>::format(Tolan::Platform::EventPriority p,
                                                                                    format_context& ctx) const {
  if (Tolan::Platform::isEventPriorityValid(p))
    return formatter<string_view>::format(Tolan::Platform::eventPriorityToString(p), ctx);
  return fmt::format_to(ctx.out(), "Invalid EventPriority={}", static_cast<unsigned>(p));
}
