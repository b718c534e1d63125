// The exception family, library assertions, the terminate handler, and the
// thread-safe strerror.
#include <fcntl.h>

#include <csignal>

#include "Tolan/DebugOutput.h"
#include "Tolan/Errno.h"
#include "support/Support.h"

using namespace TolanTest;

// Exported (the test is linked with -rdynamic) so that captured stacks can be
// checked for it by name; the copy keeps the call from becoming a tail call.
extern "C" __attribute__((noinline)) void tolanTestThrowRuntime(const Tolan::String& text) {
  Tolan::RuntimeException::throwException(Tolan::String(text));
}

// Each class's throwException throws that very class, which names itself.
TEST(Exception, EveryClassThrowsItselfWithItsMessageAndStack) {
#define ROW_(Class) {&Tolan::Class::throwException, "Tolan::" #Class}
  const std::pair<void (*)(const Tolan::String&), const char*> rows[] = {
      ROW_(MemoryResourceException), ROW_(NoPermissionException), ROW_(UnimplementedException),
      ROW_(InvalidInitializeException), ROW_(RuntimeException), ROW_(OutOfRangeException),
      ROW_(CorruptionDetectedException), ROW_(InvalidSizeException), ROW_(AssertException),
      {&tolanTestThrowRuntime, "Tolan::RuntimeException"}};
#undef ROW_
  for (auto [thrower, name] : rows) {
    try {
      thrower("oops");
      ADD_FAILURE() << name << " not thrown";
    } catch (const Tolan::Exception& e) {
      EXPECT_EQ(Tolan::typeName(typeid(e).name()), name);
      EXPECT_STREQ(e.name(), name);
      EXPECT_EQ(e.msg(), std::string(name) + "(\"oops\")");
      const char* what = e.what();
      EXPECT_EQ(what, e.msg() + "\n" + e.backtrace().pretty());
      EXPECT_EQ(e.what(), what) << "the same cached text, not rebuilt";
      if (thrower == &tolanTestThrowRuntime) {
        EXPECT_THAT(what, HasSubstr("(tolanTestThrowRuntime+0x"));
      }
    }
  }
  const Tolan::Exception quiet("plain", false);
  EXPECT_EQ(quiet.msg(), "Tolan::Exception(\"plain\")");
  EXPECT_THAT(quiet.what(), EndsWith("No backtrace available\n"));
}

struct Gadget {
  static void check(int v) { TOLAN_ASSERT_C(v < 10, Gadget, "value {} too large", v); }
};

TEST(Assert, ThrowsTheDetailedMessageBuiltOnlyOnFailure) {
  const int line = __LINE__ + 2;
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[] { TOLAN_ASSERT(1 + 1 == 3, "sum was {} of {}", 2, "ints"); },
       "Tolan::AssertException(\"" __FILE__ ":" + std::to_string(line) + ": sum was 2 of ints\")"},
      {[] { Gadget::check(12); }, ": Gadget::check() value 12 too large\")"},
      {[] { TOLAN_FAIL("unreachable {}", 1); }, ": unreachable 1\")"}};
  for (const auto& [call, text] : rows) EXPECT_ASSERTS(call(), text);
  int evaluated = 0;
  auto costly = [&] { return ++evaluated; };
  TOLAN_ASSERT(true, "never built {}", costly());
  TOLAN_ASSERT_C(true, Gadget, "never built {}", costly());
  EXPECT_EQ(evaluated, 0);
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
  EXPECT_ASSERTS(Tolan::debugAndThrowAssertException(handler, 3, stream, "Queue.cpp", "drain", 42),
                 "(\"Queue.cpp:drain:42: queue 7 corrupt\")");
  EXPECT_EQ(handler.dumped, "queue 7 corrupt|3|Queue.cpp|42|drain");
}

// Unknown numbers are rendered into the caller's buffer: these are the texts a
// shared buffer would mix up between threads.
TEST(Errno, EachThreadGetsItsOwnTextAndKeepsErrno) {
  constexpr int kRounds = 2000;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        const int unknown = (t % 2 ? -1 : 1) * (100000 + t * kRounds + i);
        errno = t + 1;
        if (Tolan::strerror(unknown) != "Unknown error " + std::to_string(unknown)) ++wrong;
        if (std::strcmp(Tolan::strerror(t % 2 ? EINVAL : 0), t % 2 ? "Invalid argument" : "Success") != 0) ++wrong;
        if (errno != t + 1) ++wrong;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
}

// Ending the process. Each case runs in a death-test child whose standard
// error goes to a file, so that the parent can check the whole report,
// including what must not be in it. A child re-runs the test body up to its
// own death, so a test makes all its calls before it checks any result.
//
// The standard error of `fn`, run with TOLAN_BACKTRACE_VERBOSITY set to
// `verbosity` (null: unset), which must die by SIGABRT.
static std::string stderrOfDeath(const char* verbosity, const std::function<void()>& fn) {
  // Named after the test process, which the child knows as its parent.
  const pid_t parent = testing::internal::InDeathTestChild() ? getppid() : getpid();
  const std::string path = testing::TempDir() + "tolan-exception-test-" + std::to_string(parent) + ".err";
  EXPECT_EXIT(
      {
        Tolan::throwOnAssertFailIs(false);
        dup2(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        verbosity ? setenv("TOLAN_BACKTRACE_VERBOSITY", verbosity, 1) : unsetenv("TOLAN_BACKTRACE_VERBOSITY");
        fn();
        _exit(0);
      },
      KilledBySignal(SIGABRT), "");
  const std::string text = fileText(path);
  unlink(path.c_str());
  return text;
}

// Thrown where nothing may propagate, so that the runtime (not the test
// framework) meets it.
template <typename T>
__attribute__((noinline)) void throwValue(T value) {
  throw value;
}
template <typename T>
void raiseUncaught(T value) noexcept {
  throwValue(value);
}

namespace {
struct LocalOnly {};
}  // namespace

static void failingAssertion() {
  TOLAN_ASSERT(2 < 1, "impossible {}", "ordering");
}
constexpr int kFailingAssertionLine = __LINE__ - 2;

TEST(ProcessEndDeathTest, AFailedAssertionTracesThenReportsThenAborts) {
  const std::string err = stderrOfDeath(nullptr, [] {
    Tolan::Platform::clearTolanDebug("Tolan/0");  // level 0 off: traced all the same
    failingAssertion();
  });
  const std::string quiet = stderrOfDeath("0", [] { failingAssertion(); });
  // Inside a catch block the runtime calls the handled exception current.
  const std::string inCatch = stderrOfDeath(nullptr, [] {
    try {
      Tolan::RuntimeException::throwException("handled");
    } catch (const Tolan::Exception&) {
      failingAssertion();
    }
  });
  const std::string message = fmt::format("{}:{}: impossible ordering", __FILE__, kFailingAssertionLine);
  // The trace line (level 0, default handle), the report, then the stack.
  const size_t traced = err.find(" Tolan 0 " + message + "\n");
  const size_t aborting = err.find("Tolan::Assert aborting because: " + message + "\n");
  const size_t stack = err.find("Backtrace:\n");
  EXPECT_TRUE(traced < aborting && aborting < stack && stack != std::string::npos) << err;
  EXPECT_THAT(err, Not(HasSubstr("terminate called")));  // nothing was in flight
  // The stack is the assertion's (its failure function is exported), never the handled exception's.
  EXPECT_THAT(err, HasSubstr("assertFailV"));
  EXPECT_THAT(inCatch, AllOf(HasSubstr("assertFailV"), Not(HasSubstr("handled")))) << inCatch;
  EXPECT_THAT(quiet, EndsWith("Tolan::Assert aborting because: " + message + "\n"));
  EXPECT_THAT(quiet, Not(HasSubstr("Backtrace:")));
}

TEST(ProcessEndDeathTest, TerminateReportsWhatWasInFlightAndAStackUnlessQuiet) {
  const std::string head = "terminate called after throwing an instance of ";
  const struct {
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
  for (const auto& c : cases) {
    verbose.push_back(stderrOfDeath(nullptr, c.fn));
    quiet.push_back(stderrOfDeath("0", c.fn));
  }
  const std::string local = stderrOfDeath("0", [] { raiseUncaught(LocalOnly{}); });
  // A second thread terminates while the first is writing its report: it
  // must wait, and the first report arrives whole.
  const std::string racing = stderrOfDeath(nullptr, [] {
    static std::atomic<bool> reporting{false};
    struct Slow : std::exception {
      const char* what() const noexcept override {
        reporting = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // room for the other to arrive
        return "slow";
      }
    };
    std::thread first([] { raiseUncaught(Slow()); });
    while (!reporting) {
    }
    raiseUncaught(std::runtime_error("second"));
  });
  EXPECT_THAT(racing, AllOf(HasSubstr("  what(): slow\nTimestamp:"), EndsWith("]\n\n"), Not(HasSubstr("second"))));
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].report);
    EXPECT_THAT(verbose[i], StartsWith(cases[i].report + "Timestamp:"));
    EXPECT_EQ(occurrences(verbose[i], "Backtrace:\n"), 1u) << verbose[i];
    if (cases[i].ownStack) {
      EXPECT_THAT(quiet[i], StartsWith(cases[i].report + "Timestamp:"));
    } else {
      EXPECT_EQ(quiet[i], cases[i].report);
    }
    EXPECT_EQ(occurrences(quiet[i], "Backtrace:\n"), cases[i].ownStack ? 1u : 0u);
  }
#if !defined(__SANITIZE_THREAD__)  // instrumented frames have cleanups: the runtime ends it from _Unwind_Resume
  EXPECT_THAT(verbose[0], HasSubstr("(__cxa_throw+0x"));  // the stack is taken with the throw still on it
#endif
  // A type local to its translation unit has a '*' before its mangled name.
  EXPECT_EQ(local, head + "'(anonymous namespace)::LocalOnly'\n");
}
