// The bounded history of scheduling events and its text dump.

#include "Tolan/TaskSchedulerHistory.h"
#include "support/Support.h"

using namespace TolanTest;
using namespace Tolan;
using Type = TaskSchedulerEventType;

TaskTimePoint at(int64_t ns) { return TaskTimePoint(std::chrono::nanoseconds(ns)); }

std::vector<std::string> names(const TaskSchedulerHistory& history) {
  std::vector<std::string> out;
  for (const auto& event : history.events()) out.push_back(event.name.str());
  return out;
}

// Interned for the occasion, so that afterwards only the history holds the name.
void record(TaskSchedulerHistory& history, const std::string& name, Type type = Type::runStart, int64_t ns = 0) {
  history.insertTaskEvent(at(ns), type, history.stringCache().intern(name));
}

TEST(TaskSchedulerHistory, KeepsTheNewestFirstAndReleasesTheNamesItDrops) {
  TaskSchedulerHistory history(3);
  ConstStringCache& cache = history.stringCache();
  for (int i = 0; i < 5; ++i) record(history, "e" + std::to_string(i));
  record(history, "e4");  // counted once per event
  EXPECT_EQ(names(history), (std::vector<std::string>{"e4", "e4", "e3"}));
  EXPECT_EQ(cache.refCount("e4"), 2u);
  EXPECT_EQ(cache.size(), 2u);
  history.historyEntryCountIs(1);  // shrinking drops the oldest, growing keeps everything
  EXPECT_EQ(names(history), (std::vector<std::string>{"e4"}));
  EXPECT_EQ(cache.refCount("e4"), 1u);
  history.historyEntryCountIs(4);
  record(history, "later");
  EXPECT_EQ(names(history), (std::vector<std::string>{"later", "e4"}));
  history.clearHistory();
  EXPECT_EQ(cache.size(), 0u);
  EXPECT_EQ(history.historyEntryCount(), 4u);
  TaskSchedulerHistory none(0);
  record(none, "gone");
  EXPECT_EQ(none.size() + none.stringCache().size(), 0u);
  EXPECT_THROW(TaskSchedulerHistory(TaskSchedulerHistory::kMaxCapacity + 1), std::length_error);
  EXPECT_THROW(none.historyEntryCountIs(0xFFFFFFFFu), std::length_error);
}

// Every type by its display name; display() pads it to twelve characters.
TEST(TaskSchedulerHistory, EventTypesDisplayByName) {
  const char* display[] = {
      "schedule", "unschedule", "run start", "run end", "timerStart", "timerStop", "suspendOn", "suspendOff",
      "scheduleSus", "frcYieldOn", "frcYieldOff", "idle", "busy", "create", "delete", "fdReadable", "fdWritable",
      "schedulerIdle", "schedulerRunnable", "schedulerSuspended", "schedulerUnsuspended",
      "schedulerRunIgnoredWhileSuspended", "schedulerVirtualTimeOn", "schedulerVirtualTimeOff",
      "schedulerTestYieldRatioOn", "schedulerTestYieldRatioOff"};
  TaskSchedulerHistory history(30);
  const ConstStringRef name = history.stringCache().intern("w1");
  for (int t = 0; t <= static_cast<int>(Type::lastEvent); ++t) {
    history.insertSchedulerEvent(at(t), static_cast<Type>(t), name);  // scheduler events take every type
    EXPECT_STREQ(history.events().front().eventTypeDisplay(), display[t]);
  }
  EXPECT_EQ(history.size(), std::size(display));
  for (auto [type, expected] : {std::pair{Type::runStart, "run start    w1"}, {Type::fdReadable, "fdReadable   w1"},
                                {Type::schedulerRunIgnoredWhileSuspended, "schedulerRunIgnoredWhileSuspended w1"}})
    EXPECT_EQ((TaskSchedulerHistory::Event{type, at(0), name}.display()), expected);
  EXPECT_EQ((TaskSchedulerHistory::Event{Type::destroy, at(0), {}}.display()), "delete       ");
}

TEST(TaskSchedulerHistory, TextDumpNewestFirstWithMicrosecondsSinceThePreviousEvent) {
  TaskSchedulerHistory history(5);
  record(history, "a", Type::schedule, 1'000'000);
  record(history, "a", Type::runStart, 3'500'999);
  record(history, "b", Type::fdReadable, 3'501'998);
  const std::string head = "Last 5 scheduler events, absolute timestamp and relative to last event\n";
  const std::string text = history.historyRenderTextForDebugToString();
  EXPECT_EQ(text, head +
                      "3501998 ns since boot 0 µs fdReadable   b\n"
                      "3500999 ns since boot 2500 µs run start    a\n"
                      "1000000 ns since boot 0 µs schedule     a\n");
  // The descriptor and standard-error forms write the same text.
  EXPECT_EQ(traceOf([&] {
              history.historyRenderTextForDebug(STDERR_FILENO);
              history.historyRenderTextForDebugStdErr();
            }),
            text + text);
  history.clearHistory();
  EXPECT_EQ(history.historyRenderTextForDebugToString(), head);
}

TEST(TaskSchedulerHistoryDeathTest, EventTypesAreValidated) {
  TaskSchedulerHistory history(2);
  ConstStringRef name = history.stringCache().intern("x");
  EXPECT_ABORTS(history.insertTaskEvent(at(0), Type::schedulerIdle, name), "TaskSchedulerCpp.*Event.*EventType: 17");
  EXPECT_ABORTS(history.insertSchedulerEvent(at(0), static_cast<Type>(26), name),
                "TaskSchedulerCpp.*eventNeedTask.*unexpected eventType=26");
  EXPECT_ABORTS(history.insertTaskEvent(at(0), static_cast<Type>(255), name), "unexpected eventType=255");
}

