#include "Tolan/TaskSchedulerHistory.h"

#include <fmt/format.h>

#include <iostream>
#include <sstream>
#include <stdexcept>

#include "Tolan/FdToStream.h"
#include "Tolan/Impl/TaskSchedulerAssert.h"

namespace Tolan {
namespace {

constexpr const char* kEventTypeDisplay[] = {
    "schedule",       "unschedule",
    "run start",      "run end",
    "timerStart",     "timerStop",
    "suspendOn",      "suspendOff",
    "scheduleSus",    "frcYieldOn",
    "frcYieldOff",    "idle",
    "busy",           "create",
    "delete",         "fdReadable",
    "fdWritable",     "schedulerIdle",
    "schedulerRunnable",
    "schedulerSuspended",
    "schedulerUnsuspended",
    "schedulerRunIgnoredWhileSuspended",
    "schedulerVirtualTimeOn",
    "schedulerVirtualTimeOff",
    "schedulerTestYieldRatioOn",
    "schedulerTestYieldRatioOff",
};
static_assert(sizeof(kEventTypeDisplay) / sizeof(kEventTypeDisplay[0]) ==
              static_cast<size_t>(TaskSchedulerEventType::lastEvent) + 1);

// Display names are padded to this width in display().
constexpr size_t kDisplayWidth = 12;

// circular_buffer's own refusal, so callers see one kind of error for any
// capacity it cannot hold.
void checkCapacity(unsigned capacity) {
  if (capacity > TaskSchedulerHistory::kMaxCapacity) throw std::length_error("circular_buffer");
}

}  // namespace

const char* TaskSchedulerHistory::Event::eventTypeDisplay() const noexcept {
  const auto value = static_cast<size_t>(eventType);
  // Events are validated when recorded; anything else was written by hand.
  return value <= static_cast<size_t>(TaskSchedulerEventType::lastEvent) ? kEventTypeDisplay[value] : "?";
}

std::string TaskSchedulerHistory::Event::display() const {
  return fmt::format("{:<{}} {}", eventTypeDisplay(), kDisplayWidth, name.str());
}

TaskSchedulerHistory::TaskSchedulerHistory(unsigned capacity) {
  checkCapacity(capacity);
  events_.set_capacity(capacity);
}

void TaskSchedulerHistory::eventTypeFail(uint8_t value) noexcept {
  if (value > static_cast<uint8_t>(TaskSchedulerEventType::lastEvent))
    Impl::taskSchedulerAssertFail("eventNeedTask", __LINE__, fmt::format("unexpected eventType={}", value));
  Impl::taskSchedulerAssertFail("Event", __LINE__, fmt::format("EventType: {}", value));
}

void TaskSchedulerHistory::historyEntryCountIs(unsigned capacity) {
  checkCapacity(capacity);
  // Drops events from the back, where the oldest are.
  events_.set_capacity(capacity);
}

void TaskSchedulerHistory::clearHistory() noexcept { events_.clear(); }

void TaskSchedulerHistory::historyRenderTextForDebug(std::ostream& out) const {
  out << "Last " << historyEntryCount() << " scheduler events, absolute timestamp and relative to last event\n";
  for (size_t i = 0; i < events_.size(); ++i) {
    const Event& event = events_[i];
    const int64_t ns = event.time.time_since_epoch().count();
    const int64_t sincePrevious = i + 1 < events_.size() ? ns - events_[i + 1].time.time_since_epoch().count() : 0;
    out << ns << " ns since boot " << sincePrevious / 1000 << " µs " << event.display() << '\n';
  }
}

void TaskSchedulerHistory::historyRenderTextForDebug(int fd) const {
  FdToStream out(fd, false);
  historyRenderTextForDebug(out);
  out.flush();
}

std::string TaskSchedulerHistory::historyRenderTextForDebugToString() const {
  std::ostringstream out;
  historyRenderTextForDebug(out);
  return out.str();
}

void TaskSchedulerHistory::historyRenderTextForDebugStdErr() const {
  historyRenderTextForDebug(std::cerr);
  std::cerr.flush();
}

}  // namespace Tolan
