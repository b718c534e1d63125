#include "Tolan/Exception.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/DebugOutput.h"

using namespace ::testing;

// Exported (the test is linked with -rdynamic) so that captured stacks can be
// checked for it by name.
extern "C" __attribute__((noinline)) void tolanTestThrowRuntime(const char* text) {
  Tolan::RuntimeException::throwException(text);
}

namespace {

// name() and msg() of what E::throwException throws, caught as E.
#define EXPECT_THROWS_ITSELF(E)                                                    \
  EXPECT_THAT([] { Tolan::E::throwException("oops"); },                          \
              Throws<Tolan::E>(AllOf(Property(&Tolan::E::name, StrEq("Tolan::" #E)), \
                                     Property(&Tolan::E::msg, "Tolan::" #E "(\"oops\")"))))

TEST(Exception, EveryClassThrowsItselfAndNamesItself) {
  EXPECT_THROWS_ITSELF(MemoryResourceException);
  EXPECT_THROWS_ITSELF(NoPermissionException);
  EXPECT_THROWS_ITSELF(UnimplementedException);
  EXPECT_THROWS_ITSELF(InvalidInitializeException);
  EXPECT_THROWS_ITSELF(RuntimeException);
  EXPECT_THROWS_ITSELF(OutOfRangeException);
  EXPECT_THROWS_ITSELF(CorruptionDetectedException);
  EXPECT_THROWS_ITSELF(InvalidSizeException);
  const Tolan::Exception quiet("plain", false);
  EXPECT_EQ(quiet.message(), "plain");
  EXPECT_EQ(quiet.msg(), "Tolan::Exception(\"plain\")");
  EXPECT_EQ(quiet.backtrace().frameCount(), 0u);
  EXPECT_THAT(quiet.what(), EndsWith("No backtrace available\n"));
}

TEST(Exception, WhatIsMsgThenTheStackBuiltOnce) {
  try {
    tolanTestThrowRuntime("disk full");
  } catch (const Tolan::Exception& e) {
    const char* first = e.what();
    EXPECT_EQ(std::string(first), e.msg() + "\n" + e.backtrace().pretty());
    EXPECT_EQ(e.what(), first);  // the same cached text, not rebuilt
    EXPECT_THAT(first, HasSubstr("(tolanTestThrowRuntime+0x"));
    return;
  }
  FAIL() << "did not throw";
}

// The message of the AssertException that `fn` throws.
std::string assertion(const std::function<void()>& fn) {
  Tolan::throwOnAssertFailIs(true);
  try {
    fn();
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.msg(), StartsWith("Tolan::AssertException(\"" + e.message()));
    return e.message();
  }
  return "no assertion";
}

struct Gadget {
  static void check(int v) { TOLAN_ASSERT_C(v < 10, Gadget, "value {} too large", v); }
};

TEST(Assert, ThrowsTheDetailedMessageAndBuildsItOnlyOnFailure) {
  const int line = __LINE__ + 1;
  EXPECT_EQ(assertion([] { TOLAN_ASSERT(1 + 1 == 3, "sum was {} of {}", 2, "ints"); }),
            std::string(__FILE__) + ":" + std::to_string(line) + ": sum was 2 of ints");
  EXPECT_THAT(assertion([] { Gadget::check(12); }), HasSubstr(": Gadget::check() value 12 too large"));
  EXPECT_THAT(assertion([] { TOLAN_FAIL("unreachable {}", 1); }), HasSubstr("unreachable 1"));

  int evaluated = 0;
  auto costly = [&] { return ++evaluated; };
  TOLAN_ASSERT(true, "never built {}", costly());
  TOLAN_ASSERT_C(true, Gadget, "never built {}", costly());
  EXPECT_EQ(evaluated, 0);
  EXPECT_THAT(assertion([&] { TOLAN_ASSERT(false, "built {}", costly()); }), HasSubstr("built 1"));
}

// Remembers what it was asked to dump; all its levels are off.
struct RecordingHandler : Tolan::Platform::DebugHandler {
  RecordingHandler() : DebugHandler(0) {}
  uint16_t enabledIs(unsigned, bool) override { return 0; }
  void dump(Tolan::Platform::DebugStream& s, unsigned level, const char* file, int line, const char* func) const override {
    dumped = fmt::format("{}|{}|{}|{}|{}", s.str(), level, file, line, func);
  }
  mutable std::string dumped;
};

TEST(Assert, DebugAndThrowTracesTheStreamThenThrows) {
  RecordingHandler handler;
  Tolan::Platform::DebugStream stream;
  stream << "queue " << 7 << " corrupt";
  EXPECT_EQ(assertion([&] { Tolan::debugAndThrowAssertException(handler, 3, stream, "Queue.cpp", "drain", 42); }),
            "Queue.cpp:drain:42: queue 7 corrupt");
  EXPECT_EQ(handler.dumped, "queue 7 corrupt|3|Queue.cpp|42|drain");
}

// Ending the process: the assertion's abort path and the terminate handler.
// Each case runs in a death-test child whose standard error goes to a file, so
// that the parent can check the complete report, including what must not be in
// it. A child re-runs the test body up to its own death, so a test makes all
// its calls before it checks any result.
class ProcessEndTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // The standard error of `fn`, run with TOLAN_BACKTRACE_VERBOSITY set to
  // `verbosity` (null: unset), which must die by SIGABRT.
  static std::string stderrOfDeath(const char* verbosity, const std::function<void()>& fn) {
    // Named after the test process, which the child knows as its parent.
    const pid_t parent = ::testing::internal::InDeathTestChild() ? getppid() : getpid();
    const std::string path = ::testing::TempDir() + "tolan-exception-test-" + std::to_string(parent) + ".err";
    EXPECT_EXIT(
        {
          dup2(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
          verbosity ? setenv("TOLAN_BACKTRACE_VERBOSITY", verbosity, 1) : unsetenv("TOLAN_BACKTRACE_VERBOSITY");
          fn();
          _exit(0);
        },
        ::testing::KilledBySignal(SIGABRT), "");
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    unlink(path.c_str());
    return text.str();
  }

  static size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  }
};

// Thrown where nothing may propagate, so that the runtime (not the test
// framework) meets it.
template <typename T>
__attribute__((noinline)) void raise(T value) {
  throw value;
}
template <typename T>
void raiseUncaught(T value) noexcept {
  raise(value);
}

namespace local {
struct LocalOnly {};
}  // namespace local

void failingAssertion() {
  TOLAN_ASSERT(2 < 1, "impossible {}", "ordering");
}
constexpr int kFailingAssertionLine = __LINE__ - 2;

TEST_F(ProcessEndTest, FailedAssertionTracesThenReportsThenAborts) {
  Tolan::throwOnAssertFailIs(false);
  const std::string err = stderrOfDeath(nullptr, [] {
    Tolan::Platform::clearTolanDebug("Tolan/0");  // level 0 off: traced all the same
    failingAssertion();
  });
  const std::string quiet = stderrOfDeath("0", [] { failingAssertion(); });
  const std::string message = fmt::format("{}:{}: impossible ordering", __FILE__, kFailingAssertionLine);
  // The trace line (level 0, default handle), the report, then the stack.
  const size_t traced = err.find(" Tolan 0 " + message + "\n");
  const size_t aborting = err.find("Tolan::Assert aborting because: " + message + "\n");
  const size_t stack = err.find("Backtrace:\n");
  EXPECT_TRUE(traced < aborting && aborting < stack && stack != std::string::npos) << err;
  // Nothing was in flight, so there is no "terminate called" line.
  EXPECT_THAT(err, Not(HasSubstr("terminate called")));
  EXPECT_THAT(quiet, EndsWith("Tolan::Assert aborting because: " + message + "\n"));
  EXPECT_THAT(quiet, Not(HasSubstr("Backtrace:")));
}

TEST_F(ProcessEndTest, TerminateReportsWhatWasInFlightAndAStackUnlessQuiet) {
  const std::string head = "terminate called after throwing an instance of ";
  struct Case {
    std::function<void()> fn;
    std::string report;  // before the stack
    bool ownStack;       // a library exception prints its own, whatever the verbosity
  } cases[] = {
      {[] { raiseUncaught(std::runtime_error("bad thing")); }, head + "'std::runtime_error'\n  what(): bad thing\n", false},
      {[] { raiseUncaught(Tolan::OutOfRangeException("index 9")); },
       head + "'Tolan::OutOfRangeException'\n  what(): Tolan::OutOfRangeException(\"index 9\")\n", true},
      {[] { raiseUncaught(42); }, head + "'int'\n", false},
      {[] { std::terminate(); }, "", false},
  };
  std::vector<std::string> verbose, quiet;
  for (const Case& c : cases) {
    verbose.push_back(stderrOfDeath(nullptr, c.fn));
    quiet.push_back(stderrOfDeath("0", c.fn));
  }
  const std::string local = stderrOfDeath("0", [] { raiseUncaught(local::LocalOnly{}); });
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].report);
    EXPECT_THAT(verbose[i], StartsWith(cases[i].report + "Timestamp:"));
    EXPECT_EQ(count(verbose[i], "Backtrace:\n"), 1u) << verbose[i];
    if (cases[i].ownStack) {
      EXPECT_THAT(quiet[i], StartsWith(cases[i].report + "Timestamp:"));
      EXPECT_EQ(count(quiet[i], "Backtrace:\n"), 1u) << quiet[i];
    } else {
      EXPECT_EQ(quiet[i], cases[i].report);
    }
  }
  // The handler's stack is taken with the throw still on it.
  EXPECT_THAT(verbose[0], HasSubstr("(__cxa_throw+0x"));
  // A type local to its translation unit has a '*' before its mangled name.
  EXPECT_EQ(local, head + "'(anonymous namespace)::local::LocalOnly'\n");
}

}  // namespace
