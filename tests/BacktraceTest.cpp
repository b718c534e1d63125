#include "Tolan/Backtrace.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <thread>
#include <vector>

#include "Tolan/Exception.h"
#include "Tolan/Fmt.h"
#include "Tolan/Thread.h"

using namespace ::testing;
using Tracker = Tolan::BacktraceTracker;

// Exported (the test is linked with -rdynamic) and never inlined, so that the
// frames they capture can be recognised by name.
extern "C" __attribute__((noinline)) void tolanTestCaptureHere(Tolan::Backtrace* ours, std::vector<void*>* glibc) {
  // glibc's backtrace() from libc itself: libunwind exports one of the same name.
  using Fn = int (*)(void**, int);
  const auto backtrace = reinterpret_cast<Fn>(dlsym(dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD), "backtrace"));
  glibc->resize(128);
  glibc->resize(backtrace(glibc->data(), 128));
  ours->unwind();
  asm volatile("" ::: "memory");
}

__attribute__((noinline)) Tolan::Backtrace captureAtDepth(int depth) {
  if (depth == 0) return Tolan::Backtrace(true);
  Tolan::Backtrace bt = captureAtDepth(depth - 1);
  asm volatile("" ::: "memory");
  return bt;
}

namespace {

std::string symbolOf(const void* address) {
  Dl_info info;
  return dladdr(address, &info) && info.dli_sname ? info.dli_sname : "";
}

TEST(Backtrace, CaptureMatchesTheSystemUnwinderAndPrettyNamesEachFrame) {
  Tolan::Backtrace bt(false);
  EXPECT_EQ(bt.frameCount(), 0u);
  EXPECT_THAT(bt.pretty(), MatchesRegex("Timestamp:inf tid:[0-9]+ Backtrace:\nNo backtrace available\n"));

  timespec before;
  clock_gettime(CLOCK_MONOTONIC, &before);
  std::vector<void*> glibc;
  tolanTestCaptureHere(&bt, &glibc);
  EXPECT_GE(bt.timestamp(), before.tv_sec);
  EXPECT_LT(bt.timestamp(), before.tv_sec + 60);
  // Both start in tolanTestCaptureHere (at different calls); every frame above
  // must be the same return address.
  ASSERT_EQ(glibc.size(), bt.frameCount());
  ASSERT_GT(bt.frameCount(), 2u);
  EXPECT_EQ(symbolOf(glibc[0]), "tolanTestCaptureHere");
  EXPECT_EQ(symbolOf(bt.frames()[0]), "tolanTestCaptureHere");
  for (size_t i = 1; i < glibc.size(); ++i) EXPECT_EQ(glibc[i], bt.frames()[i]) << "frame " << i;

  std::istringstream lines(bt.pretty());
  std::string line;
  std::getline(lines, line);
  EXPECT_THAT(line, MatchesRegex("Timestamp:[0-9]+\\.[0-9]{6} tid:" + std::to_string(Tolan::gettid()) + " Backtrace:"));
  Dl_info info;
  ASSERT_TRUE(dladdr(bt.frames()[0], &info));
  const auto offset = static_cast<const char*>(bt.frames()[0]) - static_cast<const char*>(info.dli_saddr);
  std::getline(lines, line);
  EXPECT_THAT(line, EndsWith(fmt::format("BacktraceTest(tolanTestCaptureHere+{:#x})[{}]", offset, bt.frames()[0])));
  size_t frameLines = 1;
  for (; std::getline(lines, line); ++frameLines) EXPECT_THAT(line, MatchesRegex(".*\\[0x[0-9a-f]+\\]"));
  EXPECT_EQ(frameLines, bt.frameCount());
}

TEST(Backtrace, DeepStacksKeepTheInnermostHundredFrames) {
  const Tolan::Backtrace deep = captureAtDepth(150);
  ASSERT_EQ(deep.frameCount(), Tolan::Backtrace::kMaxFrames);
  for (uint32_t i = 0; i < deep.frameCount(); ++i) EXPECT_THAT(symbolOf(deep.frames()[i]), HasSubstr("captureAtDepth"));
}

TEST(Backtrace, TidIsThatOfTheCapturingThreadEvenAfterFork) {
  pid_t otherTid = 0, capturedTid = 0;
  std::thread([&] {
    otherTid = Tolan::gettid();
    capturedTid = Tolan::Backtrace(true).tid();
  }).join();
  EXPECT_EQ(capturedTid, otherTid);
  ASSERT_EQ(Tolan::Backtrace(true).tid(), Tolan::gettid());
  const pid_t child = fork();
  if (child == 0) _exit(Tolan::Backtrace(true).tid() == getpid() ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child saw its parent's tid";
}

TEST(Backtrace, VerbosityIsOneUnlessExactlyZero) {
  const char* outer = getenv("TOLAN_BACKTRACE_VERBOSITY");
  const std::string saved = outer ? outer : "";
  for (const char* value : {"0", "00", "0 ", "", "off"}) {
    setenv("TOLAN_BACKTRACE_VERBOSITY", value, 1);
    EXPECT_EQ(Tolan::Backtrace::verbosity(), std::string(value) == "0" ? 0 : 1) << "'" << value << "'";
  }
  outer ? setenv("TOLAN_BACKTRACE_VERBOSITY", saved.c_str(), 1) : unsetenv("TOLAN_BACKTRACE_VERBOSITY");
}

TEST(TypeName, LeavesWhatIsNotMangledAlone) {
  EXPECT_EQ(Tolan::typeName("_ZN5Tolan9Backtrace6unwindEv"), "Tolan::Backtrace::unwind()");
  EXPECT_EQ(Tolan::typeName("not a mangled name"), "not a mangled name");
  EXPECT_EQ(Tolan::typeName(""), "");
  EXPECT_EQ(Tolan::typeName(nullptr), "");
}

// The tracker is process-wide: every test starts from, and returns to, the
// load-time state (disabled, no storage).
class BacktraceTrackerTest : public Test {
 protected:
  void SetUp() override {
    Tolan::throwOnAssertFailIs(true);
    TearDown();
  }
  void TearDown() override {
    Tracker::clear();
    Tracker::enabledIs(false);
  }
  static std::vector<std::string> messages() {
    std::vector<std::string> out;
    for (const auto& entry : Tracker::tracked()) out.push_back(entry.message());
    return out;
  }
};

TEST_F(BacktraceTrackerTest, RecordsOnlyWhileEnabled) {
  Tolan::RuntimeException before("before");
  Tracker::backtraceIs("before");
  EXPECT_EQ(Tracker::capacity(), 0u);
  Tracker::enabledIs(true);
  EXPECT_EQ(Tracker::capacity(), 100u);
  try {
    Tolan::OutOfRangeException::throwException("caught and handled");
  } catch (const Tolan::Exception&) {
  }
  Tracker::backtraceIs("by hand");
  const auto entries = Tracker::tracked();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].toString(), "Exception message:caught and handled\n" + entries[0].backtrace().pretty());
  EXPECT_GT(entries[0].backtrace().frameCount(), 0u);
  ASSERT_GT(entries[1].backtrace().frameCount(), 1u);
  EXPECT_THAT(symbolOf(entries[1].backtrace().frames()[0]), HasSubstr("backtraceIs"));

  // Disabled with entries: they stay readable, nothing new is added, storage is kept.
  Tracker::enabledIs(false);
  Tolan::RuntimeException after("after");
  EXPECT_EQ(messages(), (std::vector<std::string>{"caught and handled", "by hand"}));
  EXPECT_EQ(Tracker::capacity(), 100u);
}

TEST_F(BacktraceTrackerTest, KeepsTheNewestUpToCapacityOldestFirst) {
  Tracker::enabledIs(true);
  Tracker::capacityIs(3);
  for (int i = 1; i <= 5; ++i) Tolan::RuntimeException e("e" + std::to_string(i));
  EXPECT_EQ(messages(), (std::vector<std::string>{"e3", "e4", "e5"}));
  Tracker::capacityIs(2);  // shrinking keeps the oldest
  EXPECT_EQ(messages(), (std::vector<std::string>{"e3", "e4"}));
  std::ostringstream out;
  Tracker::printAll(out);
  const auto entries = Tracker::tracked();
  EXPECT_EQ(out.str(), entries[0].toString() + "\n" + entries[1].toString() + "\n");

  Tracker::clear();
  EXPECT_TRUE(Tracker::tracked().empty());
  EXPECT_EQ(Tracker::capacity(), 2u);
  // Storage goes only when disabled and empty; enabling again restores the default.
  Tracker::enabledIs(false);
  EXPECT_EQ(Tracker::capacity(), 0u);
  Tracker::enabledIs(true);
  EXPECT_EQ(Tracker::capacity(), 100u);
}

TEST_F(BacktraceTrackerTest, CapacityAssertions) {
  EXPECT_THAT([] { Tracker::capacityIs(5); },
              ThrowsMessage<Tolan::AssertException>(HasSubstr("User must enable the tracker to set the capacity.")));
  Tracker::enabledIs(true);
  EXPECT_THAT([] { Tracker::capacityIs(0); },
              ThrowsMessage<Tolan::AssertException>(HasSubstr("Cannot set a capacity of 0, use clear() instead.")));
  EXPECT_EQ(Tracker::capacity(), 100u);
  // The assertion exception itself was tracked.
  EXPECT_THAT(messages().back(), HasSubstr("Cannot set a capacity of 0"));
}

TEST_F(BacktraceTrackerTest, ConcurrentRecordingLosesNothing) {
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
}

}  // namespace
