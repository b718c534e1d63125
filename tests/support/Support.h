// Support.h - what the tests of this suite share.
//
// Every test binary links Support.cpp, whose GoogleTest environment makes
// library assertions throw Tolan::AssertException (so a test can catch them)
// and runs death tests in the "threadsafe" style (a fresh process per death
// statement). The tests of the event platform also link
// support/libevent/DebugMode.cpp (see tests/Events.cmake).
#pragma once

// The usual headers, so that each test file names only what it tests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Exception.h"
#include "Tolan/Platform.h"

// `statement` throws an E whose what() (message, then stack) contains `text`.
#define EXPECT_THROWS_WITH(statement, E, text) \
  EXPECT_THAT([&] { statement; }, ::testing::ThrowsMessage<E>(::testing::HasSubstr(text)))

// `statement` fails a library assertion whose message contains `text`.
#define EXPECT_ASSERTS(statement, text) EXPECT_THROWS_WITH(statement, Tolan::AssertException, text)

// `statement` ends the process with standard error matching `regex`; inside
// it library assertions abort, as they do in production.
#define EXPECT_ABORTS(statement, regex) \
  EXPECT_DEATH({ Tolan::throwOnAssertFailIs(false); statement; }, regex)

// Tests say `using namespace TolanTest;` and have GoogleTest's names too.
namespace TolanTest {
using namespace ::testing;

constexpr double kInf = std::numeric_limits<double>::infinity();

// What `body` wrote on standard error, which is where this suite's trace
// lines go (the tests run without TRACEFILE). The second form switches the
// `levels` (digits) of `handler` on for the length of `body`, then off.
std::string traceOf(const std::function<void()>& body);
std::string traceOf(Tolan::Platform::DebugHandler& handler, const std::string& levels,
                    const std::function<void()>& body);

// What `body` wrote on standard output.
std::string stdoutOf(const std::function<void()>& body);
// The whole content of a file ("" when it cannot be read).
std::string fileText(const std::string& path);
// How often `needle` occurs in `text`, overlaps included.
size_t occurrences(const std::string& text, const std::string& needle);

// The steady clock in seconds, and the real seconds that `f()` took.
inline double realNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
template <typename F>
double realSeconds(F&& f) {
  const double start = realNow();
  f();
  return realNow() - start;
}

// A handler of every kind of event that counts its notifications and stamps
// timeouts with Tolan::time(). After each notification `then` runs; then it
// throws if asked to, and its exception operations answer `swallow`.
struct Counting : Tolan::Platform::TimeoutHandler, Tolan::Platform::CallbackHandler,
                  Tolan::Platform::FdEventHandler {
  void timeout() override;
  void callback() override { note(calls); }
  void readFdEvent(int fd) override;  // drains the descriptor when `consume`
  void writeFdEvent(int fd) override { note(writes, fd); }
  bool handleTimeoutException() override { return swallow; }
  bool handleCallbackException() override { return swallow; }
  bool handleFdException(int fd) override { return exceptionFd = fd, swallow; }
  void note(int& counter, int fd = -2);
  int notified() const { return fired + calls + reads + writes; }

  std::vector<double> at;
  int fired = 0, calls = 0, reads = 0, writes = 0, lastFd = -2, exceptionFd = -2;
  bool consume = true, throwIt = false, swallow = false;
  std::function<void()> then;
};

// A scratch directory, removed with everything in it.
struct ScratchDir {
  ScratchDir();
  ~ScratchDir();
  std::string path;
};

// Runs `setup` in a forked child, which then waits until finish() (or
// destruction) kills it; it never returns into the test framework. report()
// is setup's result, or 0 once setup exec'd another program.
class ForkedChild {
 public:
  explicit ForkedChild(const std::function<char()>& setup);
  ~ForkedChild() { finish(); }
  void finish();
  pid_t pid() const { return pid_; }
  char report() const { return report_; }

 private:
  pid_t pid_ = -1;
  char report_ = 0;
};

// Exit status of `body` run in a forked child, or 128 + the killing signal;
// a child still running after `limit` is killed (SIGKILL: 137).
int exitStatusInChild(const std::function<int()>& body, std::chrono::seconds limit = std::chrono::seconds(60));

// A pid that names no process: that of a child already reaped.
pid_t exitedPid();

// A program run to its end in a child process, for behaviour fixed at start
// (environment read at library load) or that ends the process. Our own
// environment is never touched. A child still running after a minute is
// killed.
struct ChildResult {
  std::string out, err;
  int exitCode = -1;  // -1 unless the child exited normally
  int signal = 0;     // the terminating signal, else 0
  bool exitedWith(int code) const { return signal == 0 && exitCode == code; }
  // Status and the start of stderr, for failure messages.
  std::string describe() const;
};
// `env` sets variables (or, nullopt, removes them) for the child only; a
// program that cannot be started reports exit code 127.
ChildResult runChild(const std::string& program, const std::vector<std::string>& args,
                     std::map<std::string, std::optional<std::string>> env = {});

// A helper program built next to the tests (tests/helpers, tests/utilities).
std::string helperPath(const std::string& name);

// trace_probe running `commands` with TRACE, TRACEFILE and TRACEFORMAT unset
// unless `env` sets them.
ChildResult traceProbe(const std::vector<std::string>& commands,
                       std::map<std::string, std::optional<std::string>> env = {});

}  // namespace TolanTest
