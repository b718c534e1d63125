// TaskSchedulerHistory.h - a bounded, newest-first record of scheduling events.
//
// The root scheduler of a thread keeps one history of its scheduling events
// (task runs, scheduling, timers, suspension, descriptor readiness and
// scheduler-wide changes) so that a stall can be examined after the fact.
// When full, each new event overwrites the oldest one.
//
// Recording is on the scheduler's hot path: an event copies an interned name
// reference (one increment) and never allocates once the name is interned.
// Intern task names in the history's own cache (stringCache()): a name from
// another cache works too, but that cache must then outlive the events that
// hold it (or their clearHistory()).
//
// Not thread-safe: one history belongs to one scheduler thread.
#pragma once

#include <boost/circular_buffer.hpp>

#include <cstdint>
#include <iosfwd>
#include <string>

#include "Tolan/Common.h"
#include "Tolan/ConstStringCache.h"
#include "Tolan/TaskTypes.h"

namespace Tolan {

class _TaskBase;
class TaskScheduler;

enum class TaskSchedulerEventType : uint8_t {
  // Task events, recorded under a task's name.
  schedule = 0,
  unschedule = 1,
  runStart = 2,
  runEnd = 3,
  timerStart = 4,
  timerStop = 5,
  suspendOn = 6,
  suspendOff = 7,
  scheduleSus = 8,
  frcYieldOn = 9,
  frcYieldOff = 10,
  idle = 11,
  busy = 12,
  create = 13,
  destroy = 14,  // shown as "delete"
  fdReadable = 15,
  fdWritable = 16,
  // Scheduler events, recorded under a scheduler's name.
  schedulerIdle = 17,
  schedulerRunnable = 18,
  schedulerSuspended = 19,
  schedulerUnsuspended = 20,
  schedulerRunIgnoredWhileSuspended = 21,
  schedulerVirtualTimeOn = 22,
  schedulerVirtualTimeOff = 23,
  schedulerTestYieldRatioOn = 24,
  schedulerTestYieldRatioOff = 25,

  lastTaskEvent = fdWritable,
  lastEvent = schedulerTestYieldRatioOff,
};

class TOLAN_EXPORT TaskSchedulerHistory {
 public:
  // One recorded event, 24 bytes. Holds one count on its name.
  struct Event {
    TaskSchedulerEventType eventType = TaskSchedulerEventType::schedule;
    TaskTimePoint time;
    ConstStringRef name;

    // The event type's display name, e.g. "run start", "schedulerIdle".
    const char* eventTypeDisplay() const noexcept;
    // The display name padded with blanks to 12 characters (never cut), a
    // blank, and the recorded name: "run start    w1".
    std::string display() const;
  };
  using Buffer = boost::circular_buffer<Event>;

  // Largest capacity accepted; above it the constructor and
  // historyEntryCountIs() throw std::length_error("circular_buffer").
  static constexpr unsigned kMaxCapacity = 0x0FFFFFFF;

  explicit TaskSchedulerHistory(unsigned capacity);
  TaskSchedulerHistory(const TaskSchedulerHistory&) = delete;
  TaskSchedulerHistory& operator=(const TaskSchedulerHistory&) = delete;

  // The cache for names recorded in this history; tasks intern their names here.
  ConstStringCache& stringCache() noexcept { return stringCache_; }

  // Records a task event (types up to fdWritable) under `name`. Any other
  // type ends the process with the C library's assertion report.
  void insertTaskEvent(const TaskTimePoint& when, TaskSchedulerEventType type, const ConstStringRef& name) {
    checkEventType(type, true);
    record(when, type, name);
  }
  // Records a scheduler event under the scheduler's `name`. Any known type
  // is accepted; types above lastEvent end the process with the C library's
  // assertion report.
  void insertSchedulerEvent(const TaskTimePoint& when, TaskSchedulerEventType type, const ConstStringRef& name) {
    checkEventType(type, false);
    record(when, type, name);
  }
  // Records a task event under the task's name, or a scheduler event under
  // the scheduler's name (defined with the task and scheduler classes).
  void insert(const TaskTimePoint& when, TaskSchedulerEventType type, const _TaskBase* task);
  void insert(const TaskTimePoint& when, TaskSchedulerEventType type, const TaskScheduler* scheduler);

  // A new key for a task registering with this history: 1, 2, 3, ...
  TaskKey taskKeyNew() noexcept { return TaskKey(++lastTaskKey_); }

  // The capacity.
  unsigned historyEntryCount() const noexcept { return static_cast<unsigned>(events_.capacity()); }
  // Changes the capacity, keeping as many of the newest events as fit.
  void historyEntryCountIs(unsigned capacity);
  // Releases every event's name and empties the history.
  void clearHistory() noexcept;

  // The events, newest first.
  const Buffer& events() const noexcept { return events_; }
  size_t size() const noexcept { return events_.size(); }

  // The text dump: a header line, then one line per event, newest first:
  // "<ns> ns since boot <us> µs <display()>", where <us> is the time since
  // the event before it (the next line; 0 on the oldest).
  void historyRenderTextForDebug(std::ostream& out) const;
  // Through an FdToStream (see there): a blocking descriptor, left open; a
  // write error only stops the output.
  void historyRenderTextForDebug(int fd) const;
  std::string historyRenderTextForDebugToString() const;
  void historyRenderTextForDebugStdErr() const;

 private:
  static void checkEventType(TaskSchedulerEventType type, bool taskEvent) noexcept {
    const auto last = taskEvent ? TaskSchedulerEventType::lastTaskEvent : TaskSchedulerEventType::lastEvent;
    if (TOLAN_UNLIKELY(type > last)) eventTypeFail(static_cast<uint8_t>(type));
  }
  // A value past lastEvent, or a scheduler event type given with a task.
  [[noreturn]] TOLAN_COLD static void eventTypeFail(uint8_t value) noexcept;
  void record(const TaskTimePoint& when, TaskSchedulerEventType type, const ConstStringRef& name) {
    events_.push_front(Event{type, when, name});
  }

  // Declared first so that it outlives the events that hold names in it.
  ConstStringCache stringCache_;
  Buffer events_;
  uint32_t lastTaskKey_ = 0;
};

}  // namespace Tolan
