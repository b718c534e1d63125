#include "Tolan/Backtrace.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <new>
#include <sstream>
#include <thread>
#include <typeinfo>
#include <vector>

#include "Tolan/Exception.h"
#include "Tolan/Thread.h"

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

namespace {

// The symbol dladdr gives for the function containing `address`, or "".
std::string symbolOf(const void* address) {
  Dl_info info;
  if (!dladdr(address, &info) || !info.dli_sname) return "";
  return info.dli_sname;
}

// glibc's backtrace(), looked up in libc itself: libunwind exports a function
// of the same name that must not stand in for it here.
using BacktraceFn = int (*)(void**, int);
BacktraceFn glibcBacktrace() {
  void* libc = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
  return libc ? reinterpret_cast<BacktraceFn>(dlsym(libc, "backtrace")) : nullptr;
}

}  // namespace

// The helpers below are exported (the test is linked with -rdynamic) and never
// inlined, so that the frames they capture can be recognised by name.
struct Captured {
  Tolan::Backtrace ours{false};
  std::vector<void*> reference;
};

extern "C" __attribute__((noinline)) void tolanTestCaptureHere(Captured* out) {
  void* raw[128];
  const int n = glibcBacktrace()(raw, 128);
  out->reference.assign(raw, raw + n);
  new (&out->ours) Tolan::Backtrace(true);
  asm volatile("" ::: "memory");
}

extern "C" __attribute__((noinline)) void tolanTestUnwindHere(Tolan::Backtrace* bt) {
  bt->unwind();
  asm volatile("" ::: "memory");
}

__attribute__((noinline)) Tolan::Backtrace captureAtDepth(int depth) {
  if (depth > 0) {
    Tolan::Backtrace bt = captureAtDepth(depth - 1);
    asm volatile("" ::: "memory");
    return bt;
  }
  return Tolan::Backtrace(true);
}

namespace demangle {
struct Widget {};
}  // namespace demangle

namespace {

TEST(Backtrace, FramesStartInTheCallerAndMatchTheSystemUnwinder) {
  ASSERT_NE(glibcBacktrace(), nullptr);
  Captured c;
  tolanTestCaptureHere(&c);
  ASSERT_GT(c.ours.frameCount(), 2u);
  EXPECT_EQ(symbolOf(c.ours.frames()[0]), "tolanTestCaptureHere");
  // Both lists start in tolanTestCaptureHere (at different calls); every
  // frame above it must be the same return address.
  ASSERT_EQ(c.reference.size(), c.ours.frameCount());
  EXPECT_EQ(symbolOf(c.reference[0]), "tolanTestCaptureHere");
  for (size_t i = 1; i < c.reference.size(); ++i) EXPECT_EQ(c.reference[i], c.ours.frames()[i]) << "frame " << i;
}

TEST(Backtrace, UnwindStartsInItsCallerAndStampsTheTime) {
  Tolan::Backtrace bt(false);
  EXPECT_EQ(bt.frameCount(), 0u);
  EXPECT_TRUE(std::isinf(bt.timestamp()) && bt.timestamp() > 0);
  EXPECT_EQ(bt.tid(), Tolan::gettid());

  struct timespec before;
  clock_gettime(CLOCK_MONOTONIC, &before);
  tolanTestUnwindHere(&bt);
  EXPECT_GT(bt.frameCount(), 0u);
  EXPECT_EQ(symbolOf(bt.frames()[0]), "tolanTestUnwindHere");
  EXPECT_GE(bt.timestamp(), static_cast<double>(before.tv_sec));
  EXPECT_LT(bt.timestamp(), static_cast<double>(before.tv_sec) + 60);
}

TEST(Backtrace, DeepStacksAreCutAtOneHundredFrames) {
  const Tolan::Backtrace shallow = captureAtDepth(5);
  EXPECT_LT(shallow.frameCount(), Tolan::Backtrace::kMaxFrames);
  const Tolan::Backtrace deep = captureAtDepth(150);
  EXPECT_EQ(deep.frameCount(), Tolan::Backtrace::kMaxFrames);
  // The innermost frames are the ones kept.
  for (uint32_t i = 0; i < deep.frameCount(); ++i) EXPECT_THAT(symbolOf(deep.frames()[i]), HasSubstr("captureAtDepth"));
}

TEST(Backtrace, TidIsThatOfTheCapturingThread) {
  pid_t otherTid = 0;
  pid_t capturedTid = 0;
  std::thread([&] {
    otherTid = Tolan::gettid();
    capturedTid = Tolan::Backtrace(true).tid();
  }).join();
  EXPECT_EQ(capturedTid, otherTid);
  EXPECT_NE(capturedTid, Tolan::gettid());

  // A forked child is a new thread too, though it was the same one a moment ago.
  ASSERT_EQ(Tolan::Backtrace(true).tid(), Tolan::gettid());
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(Tolan::Backtrace(true).tid() == getpid() ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child saw its parent's tid";
}

TEST(Backtrace, PrettyNamesObjectSymbolOffsetAndAddress) {
  Captured c;
  tolanTestCaptureHere(&c);
  const std::string text = c.ours.pretty();
  std::istringstream lines(text);
  std::string line;
  std::getline(lines, line);
  EXPECT_THAT(line, MatchesRegex("Timestamp:[0-9]+\\.[0-9]{6} tid:[0-9]+ Backtrace:"));
  EXPECT_THAT(line, HasSubstr(" tid:" + std::to_string(Tolan::gettid()) + " "));

  std::getline(lines, line);
  std::ostringstream address;
  address << c.ours.frames()[0];
  EXPECT_THAT(line, MatchesRegex(".*BacktraceTest\\(tolanTestCaptureHere\\+0x[0-9a-f]+\\)\\[" + address.str() + "\\]"));
  // The offset is the distance from the symbol's start.
  Dl_info info;
  ASSERT_TRUE(dladdr(c.ours.frames()[0], &info));
  std::ostringstream offset;
  offset << std::hex << (reinterpret_cast<uintptr_t>(c.ours.frames()[0]) - reinterpret_cast<uintptr_t>(info.dli_saddr));
  EXPECT_THAT(line, HasSubstr("+0x" + offset.str() + ")"));

  size_t frameLines = 1;
  while (std::getline(lines, line)) {
    EXPECT_THAT(line, MatchesRegex(".*\\[0x[0-9a-f]+\\]"));
    ++frameLines;
  }
  EXPECT_EQ(frameLines, c.ours.frameCount());
}

TEST(Backtrace, PrettyOfAnEmptyBacktrace) {
  const Tolan::Backtrace bt(false);
  EXPECT_THAT(bt.pretty(), MatchesRegex("Timestamp:inf tid:[0-9]+ Backtrace:\nNo backtrace available\n"));
}

TEST(Backtrace, VerbosityIsOneUnlessExactlyZero) {
  // Death tests elsewhere cover unset and "0"; near misses count as on.
  const char* outer = getenv("TOLAN_BACKTRACE_VERBOSITY");
  const std::string saved = outer ? outer : "";
  for (const char* value : {"0", "00", "0 ", "", "off"}) {
    setenv("TOLAN_BACKTRACE_VERBOSITY", value, 1);
    EXPECT_EQ(Tolan::Backtrace::verbosity(), std::string(value) == "0" ? 0 : 1) << "'" << value << "'";
  }
  if (outer) {
    setenv("TOLAN_BACKTRACE_VERBOSITY", saved.c_str(), 1);
  } else {
    unsetenv("TOLAN_BACKTRACE_VERBOSITY");
  }
}

TEST(TypeName, DemanglesTypesAndLeavesOtherTextAlone) {
  EXPECT_EQ(Tolan::typeName(typeid(int).name()), "int");
  EXPECT_EQ(Tolan::typeName(typeid(demangle::Widget).name()), "demangle::Widget");
  EXPECT_EQ(Tolan::typeName(typeid(std::vector<int>).name()), "std::vector<int, std::allocator<int> >");
  EXPECT_EQ(Tolan::typeName("_ZN5Tolan9Backtrace6unwindEv"), "Tolan::Backtrace::unwind()");
  EXPECT_EQ(Tolan::typeName("not a mangled name"), "not a mangled name");
  EXPECT_EQ(Tolan::typeName(""), "");
  EXPECT_EQ(Tolan::typeName(nullptr), "");
}

// ---------------------------------------------------------------------------
// The tracker is process-wide: every test starts from, and returns to, the
// load-time state (disabled, no storage).

class BacktraceTrackerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Tolan::throwOnAssertFailIs(true);
    reset();
  }
  void TearDown() override { reset(); }
  static void reset() {
    Tolan::BacktraceTracker::clear();
    Tolan::BacktraceTracker::enabledIs(false);
  }
  static std::vector<std::string> messages() {
    std::vector<std::string> out;
    for (const auto& entry : Tolan::BacktraceTracker::tracked()) out.push_back(entry.message());
    return out;
  }
};

TEST_F(BacktraceTrackerTest, RecordsExceptionsOnlyWhileEnabled) {
  Tolan::RuntimeException before("before");
  EXPECT_TRUE(Tolan::BacktraceTracker::tracked().empty());

  Tolan::BacktraceTracker::enabledIs(true);
  EXPECT_EQ(Tolan::BacktraceTracker::capacity(), 100u);
  try {
    Tolan::OutOfRangeException::throwException("caught and handled");
  } catch (const Tolan::Exception&) {
  }
  const auto entries = Tolan::BacktraceTracker::tracked();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].message(), "caught and handled");
  EXPECT_GT(entries[0].backtrace().frameCount(), 0u);
  EXPECT_EQ(entries[0].toString(), "Exception message:caught and handled\n" + entries[0].backtrace().pretty());

  // Disabled with entries: they stay readable, nothing new is added, storage is kept.
  Tolan::BacktraceTracker::enabledIs(false);
  Tolan::RuntimeException after("after");
  EXPECT_EQ(messages(), std::vector<std::string>{"caught and handled"});
  EXPECT_EQ(Tolan::BacktraceTracker::capacity(), 100u);
}

TEST_F(BacktraceTrackerTest, KeepsTheNewestUpToCapacityOldestFirst) {
  Tolan::BacktraceTracker::enabledIs(true);
  Tolan::BacktraceTracker::capacityIs(3);
  for (int i = 1; i <= 5; ++i) Tolan::RuntimeException e("e" + std::to_string(i));
  EXPECT_EQ(messages(), (std::vector<std::string>{"e3", "e4", "e5"}));

  // Shrinking keeps the oldest.
  Tolan::BacktraceTracker::capacityIs(2);
  EXPECT_EQ(messages(), (std::vector<std::string>{"e3", "e4"}));

  std::ostringstream out;
  Tolan::BacktraceTracker::printAll(out);
  const auto entries = Tolan::BacktraceTracker::tracked();
  EXPECT_EQ(out.str(), entries[0].toString() + "\n" + entries[1].toString() + "\n");

  Tolan::BacktraceTracker::clear();
  EXPECT_TRUE(Tolan::BacktraceTracker::tracked().empty());
  EXPECT_EQ(Tolan::BacktraceTracker::capacity(), 2u);
}

TEST_F(BacktraceTrackerTest, StorageIsReleasedOnlyWhenDisabledEmpty) {
  EXPECT_EQ(Tolan::BacktraceTracker::capacity(), 0u);
  Tolan::BacktraceTracker::enabledIs(true);
  Tolan::BacktraceTracker::capacityIs(7);
  Tolan::BacktraceTracker::enabledIs(false);
  EXPECT_EQ(Tolan::BacktraceTracker::capacity(), 0u);
  Tolan::BacktraceTracker::enabledIs(true);
  EXPECT_EQ(Tolan::BacktraceTracker::capacity(), 100u);
}

TEST_F(BacktraceTrackerTest, CapacityAssertions) {
  try {
    Tolan::BacktraceTracker::capacityIs(5);
    FAIL() << "no assertion while disabled";
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("User must enable the tracker to set the capacity."));
  }
  Tolan::BacktraceTracker::enabledIs(true);
  try {
    Tolan::BacktraceTracker::capacityIs(0);
    FAIL() << "no assertion for capacity 0";
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("Cannot set a capacity of 0, use clear() instead."));
  }
  EXPECT_EQ(Tolan::BacktraceTracker::capacity(), 100u);
  // The assertion exceptions themselves were tracked: the second one at least.
  EXPECT_THAT(messages().back(), HasSubstr("Cannot set a capacity of 0"));
}

TEST_F(BacktraceTrackerTest, DirectRecordingCapturesTheCaller) {
  Tolan::BacktraceTracker::backtraceIs("ignored while disabled");
  Tolan::BacktraceTracker::enabledIs(true);
  Tolan::BacktraceTracker::backtraceIs("by hand");
  const auto entries = Tolan::BacktraceTracker::tracked();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].message(), "by hand");
  EXPECT_GT(entries[0].backtrace().frameCount(), 1u);
  EXPECT_THAT(symbolOf(entries[0].backtrace().frames()[0]), HasSubstr("backtraceIs"));
}

TEST_F(BacktraceTrackerTest, ConcurrentRecordingLosesNothing) {
  constexpr int kThreads = 4;
  constexpr int kEach = 50;
  Tolan::BacktraceTracker::enabledIs(true);
  Tolan::BacktraceTracker::capacityIs(kThreads * kEach);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kEach; ++i) Tolan::RuntimeException e(std::to_string(t));
    });
  }
  for (auto& th : threads) th.join();
  std::vector<int> perThread(kThreads);
  for (const auto& m : messages()) ++perThread.at(std::stoi(m));
  EXPECT_EQ(perThread, std::vector<int>(kThreads, kEach));
}

}  // namespace
