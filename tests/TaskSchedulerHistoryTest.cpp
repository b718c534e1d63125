#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "Tolan/TaskSchedulerHistory.h"

namespace {

using namespace Tolan;
using Type = TaskSchedulerEventType;

TaskTimePoint at(int64_t ns) { return TaskTimePoint(std::chrono::nanoseconds(ns)); }

std::vector<std::string> names(const TaskSchedulerHistory& history) {
  std::vector<std::string> out;
  for (const auto& event : history.events()) out.push_back(event.name.str());
  return out;
}

// Records one task event under `name`, interned for the occasion, so that
// afterwards only the history holds the name.
void record(TaskSchedulerHistory& history, const std::string& name, Type type = Type::runStart, int64_t ns = 0) {
  history.insertTaskEvent(at(ns), type, history.stringCache().intern(name));
}

TEST(TaskSchedulerHistoryTest, FullHistoryKeepsNewestFirstAndReleasesOverwrittenNames) {
  TaskSchedulerHistory history(3);
  ConstStringCache& cache = history.stringCache();
  for (int i = 0; i < 5; ++i) record(history, "e" + std::to_string(i), Type::schedule, i);
  EXPECT_EQ(names(history), (std::vector<std::string>{"e4", "e3", "e2"}));
  EXPECT_EQ(cache.refCount("e0"), 0u);
  EXPECT_EQ(cache.refCount("e1"), 0u);
  EXPECT_EQ(cache.refCount("e4"), 1u);
  EXPECT_EQ(cache.size(), 3u);

  // One name in several events is counted once per event.
  record(history, "e4");
  EXPECT_EQ(cache.refCount("e4"), 2u);
  EXPECT_EQ(cache.refCount("e2"), 0u);

  // Shrinking drops the oldest, growing keeps everything.
  history.historyEntryCountIs(1);
  EXPECT_EQ(history.historyEntryCount(), 1u);
  EXPECT_EQ(names(history), (std::vector<std::string>{"e4"}));
  EXPECT_EQ(cache.refCount("e3"), 0u);
  EXPECT_EQ(cache.refCount("e4"), 1u);
  history.historyEntryCountIs(4);
  record(history, "later");
  EXPECT_EQ(names(history), (std::vector<std::string>{"later", "e4"}));

  history.clearHistory();
  EXPECT_EQ(history.size(), 0u);
  EXPECT_EQ(cache.size(), 0u);
  EXPECT_EQ(history.historyEntryCount(), 4u);
}

TEST(TaskSchedulerHistoryTest, ZeroCapacityStoresNothingAndOversizeIsRefused) {
  TaskSchedulerHistory history(0);
  record(history, "gone");
  EXPECT_EQ(history.size(), 0u);
  EXPECT_EQ(history.stringCache().refCount("gone"), 0u);

  EXPECT_THROW(TaskSchedulerHistory(TaskSchedulerHistory::kMaxCapacity + 1), std::length_error);
  EXPECT_THROW(history.historyEntryCountIs(0xFFFFFFFFu), std::length_error);
  EXPECT_EQ(history.historyEntryCount(), 0u);
}

TEST(TaskSchedulerHistoryTest, SchedulerEventsAcceptEveryKnownType) {
  TaskSchedulerHistory history(30);
  ConstStringRef scheduler = history.stringCache().intern("sched");
  for (int t = 0; t <= static_cast<int>(Type::lastEvent); ++t)
    history.insertSchedulerEvent(at(t), static_cast<Type>(t), scheduler);
  EXPECT_EQ(history.size(), 26u);
  EXPECT_EQ(history.stringCache().refCount("sched"), 27u);
  EXPECT_STREQ(history.events().front().eventTypeDisplay(), "schedulerTestYieldRatioOff");
}

TEST(TaskSchedulerHistoryTest, DisplayNamesAndPadding) {
  TaskSchedulerHistory history(4);
  ConstStringCache& cache = history.stringCache();
  TaskSchedulerHistory::Event event{Type::runStart, at(0), cache.intern("w1")};
  EXPECT_EQ(event.display(), "run start    w1");
  event.eventType = Type::schedulerRunIgnoredWhileSuspended;
  EXPECT_EQ(event.display(), "schedulerRunIgnoredWhileSuspended w1");
  event.eventType = Type::fdReadable;  // 10 characters: two blanks of fill
  EXPECT_EQ(event.display(), "fdReadable   w1");
  event.eventType = Type::destroy;
  EXPECT_STREQ(event.eventTypeDisplay(), "delete");
  event.name.reset();
  EXPECT_EQ(event.display(), "delete       ");

}

TEST(TaskSchedulerHistoryTest, TextDumpNewestFirstWithMicrosecondsSinceThePreviousEvent) {
  TaskSchedulerHistory history(5);
  record(history, "a", Type::schedule, 1'000'000);
  record(history, "a", Type::runStart, 3'500'999);
  record(history, "b", Type::fdReadable, 3'501'998);
  const std::string text = history.historyRenderTextForDebugToString();
  EXPECT_EQ(text,
            "Last 5 scheduler events, absolute timestamp and relative to last event\n"
            "3501998 ns since boot 0 µs fdReadable   b\n"
            "3500999 ns since boot 2500 µs run start    a\n"
            "1000000 ns since boot 0 µs schedule     a\n");

  // The descriptor and standard-error forms write the same text.
  FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  history.historyRenderTextForDebug(fileno(file));
  std::string fromFd(text.size() + 16, '\0');
  ASSERT_EQ(::pread(fileno(file), fromFd.data(), fromFd.size(), 0), static_cast<ssize_t>(text.size()));
  fromFd.resize(text.size());
  EXPECT_EQ(fromFd, text);
  std::fclose(file);
  ::testing::internal::CaptureStderr();
  history.historyRenderTextForDebugStdErr();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), text);

  history.clearHistory();
  EXPECT_EQ(history.historyRenderTextForDebugToString(),
            "Last 5 scheduler events, absolute timestamp and relative to last event\n");
}

TEST(TaskSchedulerHistoryDeathTest, EventTypesAreValidated) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TaskSchedulerHistory history(2);
  ConstStringRef name = history.stringCache().intern("x");
  EXPECT_DEATH(history.insertTaskEvent(at(0), Type::schedulerIdle, name), "TaskSchedulerCpp.*Event.*EventType: 17");
  EXPECT_DEATH(history.insertSchedulerEvent(at(0), static_cast<Type>(26), name),
               "TaskSchedulerCpp.*eventNeedTask.*unexpected eventType=26");
  EXPECT_DEATH(history.insertTaskEvent(at(0), static_cast<Type>(255), name), "unexpected eventType=255");
  // Nothing was recorded in this process.
  EXPECT_EQ(history.size(), 0u);
}

}  // namespace
