#include "Tolan/Exception.h"

#include <dlfcn.h>
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
#include <vector>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// Exported (the test is linked with -rdynamic) so that captured stacks can be
// checked for it by name.
extern "C" __attribute__((noinline)) void tolanTestThrowRuntime(const char* text) {
  Tolan::RuntimeException::throwException(text);
}

namespace {

// ---------------------------------------------------------------------------
// The family

struct FamilyMember {
  const char* name;
  std::function<void(const Tolan::String&)> throwIt;
  std::function<bool(const Tolan::Exception&)> isIt;
};

template <typename E>
FamilyMember member(const char* name) {
  return {name, [](const Tolan::String& m) { E::throwException(m); },
          [](const Tolan::Exception& e) { return dynamic_cast<const E*>(&e) != nullptr; }};
}

TEST(Exception, EveryClassThrowsItselfAndNamesItself) {
  const FamilyMember family[] = {
      member<Tolan::MemoryResourceException>("Tolan::MemoryResourceException"),
      member<Tolan::NoPermissionException>("Tolan::NoPermissionException"),
      member<Tolan::UnimplementedException>("Tolan::UnimplementedException"),
      member<Tolan::InvalidInitializeException>("Tolan::InvalidInitializeException"),
      member<Tolan::RuntimeException>("Tolan::RuntimeException"),
      member<Tolan::OutOfRangeException>("Tolan::OutOfRangeException"),
      member<Tolan::CorruptionDetectedException>("Tolan::CorruptionDetectedException"),
      member<Tolan::InvalidSizeException>("Tolan::InvalidSizeException"),
  };
  for (const auto& m : family) {
    try {
      m.throwIt("what went wrong");
      ADD_FAILURE() << m.name << " did not throw";
    } catch (const Tolan::Exception& e) {
      EXPECT_TRUE(m.isIt(e)) << m.name;
      EXPECT_STREQ(e.name(), m.name);
      EXPECT_EQ(e.message(), "what went wrong");
      EXPECT_EQ(e.msg(), std::string(m.name) + "(\"what went wrong\")");
    }
  }
  const Tolan::Exception base("plain", true);
  EXPECT_EQ(base.msg(), "Tolan::Exception(\"plain\")");
}

TEST(Exception, WhatIsMsgThenTheStackBuiltOnce) {
  try {
    tolanTestThrowRuntime("disk full");
    FAIL() << "did not throw";
  } catch (const std::exception& e) {
    const auto& ours = dynamic_cast<const Tolan::Exception&>(e);
    const char* first = e.what();
    EXPECT_EQ(std::string(first), ours.msg() + "\n" + ours.backtrace().pretty());
    EXPECT_EQ(e.what(), first);  // the same cached text, not rebuilt
    EXPECT_THAT(first, HasSubstr("(tolanTestThrowRuntime+0x"));
    EXPECT_GT(ours.backtrace().frameCount(), 2u);
  }
}

TEST(Exception, CaptureFlagDecidesWhetherTheStackIsTaken) {
  const Tolan::Exception without("quiet", false);
  EXPECT_EQ(without.backtrace().frameCount(), 0u);
  EXPECT_THAT(without.what(), EndsWith("No backtrace available\n"));
  const Tolan::Exception with("loud", true);
  EXPECT_GT(with.backtrace().frameCount(), 0u);
}

// ---------------------------------------------------------------------------
// The library assertion, throwing

class AssertThrowTest : public ::testing::Test {
 protected:
  void SetUp() override { Tolan::throwOnAssertFailIs(true); }
};

struct Gadget {
  static void check(int v) { TOLAN_ASSERT_C(v < 10, Gadget, "value {} too large", v); }
};

TEST_F(AssertThrowTest, FailedAssertionThrowsWithTheDetailedMessage) {
  int line = 0;
  try {
    line = __LINE__ + 1;
    TOLAN_ASSERT(1 + 1 == 3, "sum was {} of {}", 2, "ints");
    FAIL() << "did not throw";
  } catch (const Tolan::AssertException& e) {
    const std::string expected = std::string(__FILE__) + ":" + std::to_string(line) + ": sum was 2 of ints";
    EXPECT_EQ(e.message(), expected);
    EXPECT_THAT(e.msg(), StartsWith("Tolan::AssertException(\"" + expected));
  }
  try {
    Gadget::check(12);
    FAIL() << "did not throw";
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr(": Gadget::check() value 12 too large"));
  }
  EXPECT_THROW(TOLAN_FAIL("unreachable {}", 1), Tolan::AssertException);
}

TEST_F(AssertThrowTest, PassingAssertionEvaluatesNoArgument) {
  int evaluated = 0;
  auto costly = [&] { return ++evaluated; };
  TOLAN_ASSERT(true, "never built {}", costly());
  TOLAN_ASSERT_C(true, Gadget, "never built {}", costly());
  EXPECT_EQ(evaluated, 0);
  EXPECT_THROW(TOLAN_ASSERT(false, "built {}", costly()), Tolan::AssertException);
  EXPECT_EQ(evaluated, 1);
}

// A handler that remembers what it was asked to dump.
class RecordingHandler : public Tolan::Platform::DebugHandler {
 public:
  RecordingHandler() : DebugHandler(0) {}
  uint16_t enabledIs(unsigned, bool) override { return 0; }
  void dump(Tolan::Platform::DebugStream& stream, unsigned level, const char* file, int line,
            const char* func) const override {
    dumped += stream.str();
    dumpedLevel = level;
    dumpedWhere = std::string(file) + "|" + std::to_string(line) + "|" + func;
  }
  mutable std::string dumped;
  mutable unsigned dumpedLevel = 99;
  mutable std::string dumpedWhere;
};

TEST_F(AssertThrowTest, DebugAndThrowTracesTheStreamThenThrows) {
  RecordingHandler handler;  // all levels off: the dump happens anyway
  Tolan::Platform::DebugStream stream;
  stream << "queue " << 7 << " corrupt";
  try {
    Tolan::debugAndThrowAssertException(handler, 3, stream, "Queue.cpp", "drain", 42);
  } catch (const Tolan::AssertException& e) {
    EXPECT_EQ(e.message(), "Queue.cpp:drain:42: queue 7 corrupt");
  }
  EXPECT_EQ(handler.dumped, "queue 7 corrupt");
  EXPECT_EQ(handler.dumpedLevel, 3u);
  EXPECT_EQ(handler.dumpedWhere, "Queue.cpp|42|drain");
}

// ---------------------------------------------------------------------------
// Ending the process: the assertion's abort path and the terminate handler.
//
// Each case runs in a death-test child whose standard error goes to a file,
// so that the parent can check the complete report, including what must not
// be in it.

class ProcessEndTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // Runs `fn` in a child with TOLAN_BACKTRACE_VERBOSITY set to `verbosity`
  // (null: unset); expects it to die by SIGABRT; returns its standard error.
  // A child re-runs the test body up to its own death, so a test makes all
  // its calls before it checks any result (a failed ASSERT would return early).
  std::string stderrOfDeath(const char* verbosity, const std::function<void()>& fn) {
    const std::string path = ::testing::TempDir() + "tolan-exception-test-" +
                             ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".err";
    unlink(path.c_str());
    EXPECT_EXIT(
        {
          const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
          dup2(fd, STDERR_FILENO);
          if (verbosity) {
            setenv("TOLAN_BACKTRACE_VERBOSITY", verbosity, 1);
          } else {
            unsetenv("TOLAN_BACKTRACE_VERBOSITY");
          }
          fn();
          _exit(0);
        },
        ::testing::KilledBySignal(SIGABRT), "");
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    unlink(path.c_str());
    return text.str();
  }

  static size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  }
};

// Throws from a function the compiler cannot see is called where nothing may
// propagate, so that the runtime (not the test framework) meets it.
template <typename T>
__attribute__((noinline)) void raise(T value) {
  throw value;
}
template <typename T>
void raiseUncaught(T value) noexcept {
  raise(value);
}

namespace internal {
struct LocalOnly {};
}  // namespace internal

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
  const std::string message =
      std::string(__FILE__) + ":" + std::to_string(kFailingAssertionLine) + ": impossible ordering";
  const size_t traced = err.find(message);
  const size_t aborting = err.find("Tolan::Assert aborting because: " + message + "\n");
  const size_t stack = err.find("Backtrace:\n");
  ASSERT_NE(traced, std::string::npos) << err;
  ASSERT_NE(aborting, std::string::npos) << err;
  ASSERT_NE(stack, std::string::npos) << err;
  EXPECT_LT(traced, aborting);
  EXPECT_LT(aborting, stack);
  // The trace line is at level 0 on the default handle.
  const std::string traceLine = err.substr(0, err.find('\n', traced));
  EXPECT_THAT(traceLine, HasSubstr(" Tolan 0 "));
  // Nothing was in flight, so there is no "terminate called" line.
  EXPECT_THAT(err, Not(HasSubstr("terminate called")));

  EXPECT_THAT(quiet, EndsWith("Tolan::Assert aborting because: " + message + "\n"));
  EXPECT_THAT(quiet, Not(HasSubstr("Backtrace:")));
}

TEST_F(ProcessEndTest, UncaughtStandardException) {
  const std::string head =
      "terminate called after throwing an instance of 'std::runtime_error'\n  what(): bad thing\n";
  const std::string verbose = stderrOfDeath(nullptr, [] { raiseUncaught(std::runtime_error("bad thing")); });
  const std::string quiet = stderrOfDeath("0", [] { raiseUncaught(std::runtime_error("bad thing")); });
  EXPECT_THAT(verbose, StartsWith(head + "Timestamp:"));
  // Taken in the handler, with the throw still on the stack.
  EXPECT_THAT(verbose, HasSubstr("(__cxa_throw+0x"));
  EXPECT_EQ(quiet, head);
}

TEST_F(ProcessEndTest, UncaughtLibraryExceptionCarriesItsOwnStack) {
  std::vector<std::string> errs;
  for (const char* verbosity : {static_cast<const char*>(nullptr), "0"})
    errs.push_back(stderrOfDeath(verbosity, [] { raiseUncaught(Tolan::OutOfRangeException("index 9")); }));
  for (const std::string& err : errs) {
    EXPECT_THAT(err, StartsWith("terminate called after throwing an instance of 'Tolan::OutOfRangeException'\n"
                                "  what(): Tolan::OutOfRangeException(\"index 9\")\nTimestamp:"));
    // Its own stack only: no second one from the handler, whatever the verbosity.
    EXPECT_EQ(count(err, "Backtrace:\n"), 1u) << err;
  }
}

TEST_F(ProcessEndTest, UncaughtNonExceptionType) {
  const std::string head = "terminate called after throwing an instance of 'int'\n";
  const std::string verbose = stderrOfDeath(nullptr, [] { raiseUncaught(42); });
  const std::string quiet = stderrOfDeath("0", [] { raiseUncaught(42); });
  const std::string local = stderrOfDeath("0", [] { raiseUncaught(internal::LocalOnly{}); });
  EXPECT_THAT(verbose, StartsWith(head + "Timestamp:"));
  EXPECT_EQ(count(verbose, "Backtrace:\n"), 1u);
  EXPECT_EQ(quiet, head);
  // A type local to its translation unit has a '*' before its mangled name.
  EXPECT_EQ(local, "terminate called after throwing an instance of '(anonymous namespace)::internal::LocalOnly'\n");
}

TEST_F(ProcessEndTest, TerminateWithNothingInFlight) {
  const std::string verbose = stderrOfDeath(nullptr, [] { std::terminate(); });
  const std::string quiet = stderrOfDeath("0", [] { std::terminate(); });
  EXPECT_THAT(verbose, StartsWith("Timestamp:"));
  EXPECT_EQ(count(verbose, "Backtrace:\n"), 1u);
  EXPECT_EQ(quiet, "");
}

}  // namespace
