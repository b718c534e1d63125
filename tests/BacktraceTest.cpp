// Captured stacks, their text, and the tracker of recent exceptions.
#include "Tolan/Backtrace.h"

#include <dlfcn.h>

#include "Tolan/Thread.h"
#include "support/Support.h"

using namespace TolanTest;
using Tracker = Tolan::BacktraceTracker;

// Exported (the test is linked with -rdynamic), and never inlined or cloned
// (local clones have no exported name), so that its frames can be recognised.
__attribute__((noipa)) Tolan::Backtrace captureAtDepth(int depth) {
  if (depth == 0) return Tolan::Backtrace(true);
  Tolan::Backtrace bt = captureAtDepth(depth - 1);
  asm volatile("" ::: "memory");
  return bt;
}

static std::string symbolOf(const void* address) {
  Dl_info info;
  return dladdr(address, &info) && info.dli_sname ? info.dli_sname : "";
}

// Frames start at the caller of the capturing constructor; a deep stack keeps
// the innermost hundred.
TEST(Backtrace, CaptureAndPrettyNameEachFrame) {
  Tolan::Backtrace none(false);
  EXPECT_THAT(none.pretty(), MatchesRegex("Timestamp:inf tid:[0-9]+ Backtrace:\nNo backtrace available\n"));
  timespec before;
  clock_gettime(CLOCK_MONOTONIC, &before);
  const Tolan::Backtrace bt = captureAtDepth(3);
  EXPECT_GE(bt.timestamp(), before.tv_sec);
  EXPECT_LT(bt.timestamp(), before.tv_sec + 60);
  std::istringstream lines(bt.pretty());
  std::string line;
  std::getline(lines, line);
  EXPECT_THAT(line, MatchesRegex("Timestamp:[0-9]+\\.[0-9]{6} tid:" + std::to_string(Tolan::gettid()) + " Backtrace:"));
  for (uint32_t i = 0; std::getline(lines, line); ++i) {
    ASSERT_LT(i, bt.frameCount());
    Dl_info info;
    ASSERT_TRUE(dladdr(bt.frames()[i], &info));
    const auto offset = static_cast<const char*>(bt.frames()[i]) - static_cast<const char*>(info.dli_saddr);
    if (i < 4) {  // four frames in captureAtDepth, then the test
      EXPECT_THAT(line, EndsWith(fmt::format("BacktraceTest(_Z14captureAtDepthi+{:#x})[{}]", offset, bt.frames()[i])));
    } else {
      EXPECT_THAT(line, MatchesRegex(".*\\[0x[0-9a-f]+\\]"));
    }
  }
  EXPECT_THAT(symbolOf(bt.frames()[4]), HasSubstr("CaptureAndPrettyNameEachFrame"));
  // A deep stack keeps the innermost hundred frames.
  const Tolan::Backtrace deep = captureAtDepth(150);
  ASSERT_EQ(deep.frameCount(), Tolan::Backtrace::kMaxFrames);
  for (uint32_t i = 0; i < deep.frameCount(); ++i) EXPECT_THAT(symbolOf(deep.frames()[i]), HasSubstr("captureAtDepth"));
}

// A call to a noreturn function can be the last instruction of its caller,
// whose return address is then already past the caller's end.
extern "C" __attribute__((noinline, noreturn)) void tolanTestThrowStack() { throw Tolan::Backtrace(true); }
extern "C" __attribute__((noinline)) void tolanTestCallsNoreturnLast() { tolanTestThrowStack(); }

TEST(Backtrace, AFrameEndingInANoreturnCallNamesTheCaller) {
  std::string text;
  try {
    tolanTestCallsNoreturnLast();
  } catch (const Tolan::Backtrace& bt) {
    text = bt.pretty();
  }
  EXPECT_THAT(text, HasSubstr("(tolanTestThrowStack+0x"));
  EXPECT_THAT(text, HasSubstr("(tolanTestCallsNoreturnLast+0x"));
}

TEST(Backtrace, VerbosityIsOneUnlessExactlyZeroAndTypeNamesDemangle) {
  for (const char* value : {"0", "00", "0 ", "", "off"}) {
    setenv("TOLAN_BACKTRACE_VERBOSITY", value, 1);
    EXPECT_EQ(Tolan::Backtrace::verbosity(), std::string(value) == "0" ? 0 : 1) << "'" << value << "'";
  }
  unsetenv("TOLAN_BACKTRACE_VERBOSITY");
  EXPECT_EQ(Tolan::Backtrace::verbosity(), 1);
  EXPECT_EQ(Tolan::typeName("_ZN5Tolan9Backtrace6unwindEv"), "Tolan::Backtrace::unwind()");
  EXPECT_EQ(Tolan::typeName("not a mangled name"), "not a mangled name");
  EXPECT_EQ(Tolan::typeName(""), "");
  EXPECT_EQ(Tolan::typeName(nullptr), "");
}

static std::vector<std::string> messages() {
  std::vector<std::string> out;
  for (const auto& entry : Tracker::tracked()) out.push_back(entry.message());
  return out;
}

// The tracker is process-wide; each test leaves it as at load (disabled, no storage).
TEST(BacktraceTracker, RecordsWhileEnabledKeepsTheNewestAndReleasesStorageOnlyWhenEmpty) {
  Tolan::RuntimeException before("before");
  Tracker::backtraceIs("before");
  EXPECT_EQ(Tracker::capacity(), 0u);
  EXPECT_ASSERTS(Tracker::capacityIs(5), "User must enable the tracker to set the capacity.");
  Tracker::enabledIs(true);
  EXPECT_EQ(Tracker::capacity(), 100u);
  EXPECT_ASSERTS(Tracker::capacityIs(0), "Cannot set a capacity of 0, use clear() instead.");
  EXPECT_THAT(messages(), ElementsAre(HasSubstr("Cannot set a capacity of 0")));  // tracked itself
  Tracker::clear();
  Tracker::capacityIs(3);
  try {
    Tolan::OutOfRangeException::throwException("caught and handled");
  } catch (const Tolan::Exception&) {
  }
  Tracker::backtraceIs("by hand");
  auto entries = Tracker::tracked();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].toString(), "Exception message:caught and handled\n" + entries[0].backtrace().pretty());
  ASSERT_GT(entries[1].backtrace().frameCount(), 1u);
  EXPECT_THAT(symbolOf(entries[1].backtrace().frames()[0]), HasSubstr("backtraceIs"));
  for (int i = 1; i <= 3; ++i) Tolan::RuntimeException e("e" + std::to_string(i));
  EXPECT_EQ(messages(), (std::vector<std::string>{"e1", "e2", "e3"}));
  Tracker::capacityIs(2);  // shrinking keeps the oldest
  EXPECT_EQ(messages(), (std::vector<std::string>{"e1", "e2"}));
  std::ostringstream out;
  Tracker::printAll(out);
  entries = Tracker::tracked();
  EXPECT_EQ(out.str(), entries[0].toString() + "\n" + entries[1].toString() + "\n");
  // Disabled with entries: they stay readable, nothing is added, storage stays.
  Tracker::enabledIs(false);
  Tolan::RuntimeException after("after");
  EXPECT_EQ(messages(), (std::vector<std::string>{"e1", "e2"}));
  EXPECT_EQ(Tracker::capacity(), 2u);
  Tracker::clear();
  EXPECT_EQ(Tracker::capacity(), 2u);
  Tracker::enabledIs(false);  // disabled and empty: the storage goes
  EXPECT_EQ(Tracker::capacity(), 0u);
}

TEST(BacktraceTracker, ConcurrentRecordingLosesNothing) {
  constexpr int kThreads = 4, kEach = 50;
  Tracker::enabledIs(true);
  Tracker::capacityIs(kThreads * kEach);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < kEach; ++i) Tolan::RuntimeException e(std::to_string(t));
    });
  for (auto& th : threads) th.join();
  std::vector<int> perThread(kThreads);
  for (const auto& m : messages()) ++perThread.at(std::stoi(m));
  EXPECT_EQ(perThread, std::vector<int>(kThreads, kEach));
  Tracker::clear();
  Tracker::enabledIs(false);
}
