// Helpers for the tests of the event platform and the timer wheel.
#pragma once

#include <event2/event.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <limits>
#include <stdexcept>
#include <vector>

#include "Tolan/Assert.h"
#include "Tolan/Exception.h"
#include "Tolan/Platform.h"

// `statement` fails a library assertion whose message contains `text`.
#define EXPECT_ASSERTS(statement, text) \
  EXPECT_THAT([&] { statement; }, ::testing::ThrowsMessage<Tolan::AssertException>(::testing::HasSubstr(text)))

namespace TolanTest {

constexpr double kInf = std::numeric_limits<double>::infinity();

// Turns on libevent's debug mode, which makes misuse (deleting an unassigned
// event, re-assigning an added one) a fatal error, and makes library
// assertions throw. Debug mode must be on before any base exists, so call it
// from a namespace-scope initializer.
inline bool debugModeAndThrowingAssertions() {
  event_enable_debug_mode();
  Tolan::throwOnAssertFailIs(true);
  return true;
}

// Counts every kind of notification and stamps timeouts with Tolan::time().
// After each notification `then` runs, and then it throws if asked to.
struct Counting : Tolan::Platform::TimeoutHandler, Tolan::Platform::CallbackHandler, Tolan::Platform::FdEventHandler {
  void timeout() override {
    at.push_back(Tolan::time());
    note(fired);
  }
  void callback() override { note(calls); }
  void readFdEvent(int fd) override {
    char buf[64];
    while (consume && ::read(fd, buf, sizeof buf) > 0) {
    }
    note(reads, fd);
  }
  void writeFdEvent(int fd) override { note(writes, fd); }
  void note(int& counter, int fd = -2) {
    ++counter;
    lastFd = fd;
    if (then) then();
    if (throwIt) throw std::runtime_error("handler failed");
  }
  bool handleTimeoutException() override { return swallow; }
  bool handleCallbackException() override { return swallow; }
  bool handleFdException(int fd) override {
    exceptionFd = fd;
    return swallow;
  }
  std::vector<double> at;
  int fired = 0, calls = 0, reads = 0, writes = 0, lastFd = -2, exceptionFd = -2;
  bool consume = true, throwIt = false, swallow = false;
  std::function<void()> then;
};

// Real seconds that `f()` took.
template <typename F>
double realSeconds(F&& f) {
  const auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace TolanTest
