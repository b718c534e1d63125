// Real descriptors for the descriptor-task tests: socket pairs, pipes and
// loopback TCP connections that close themselves, and a bounded loop run.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "support/Support.h"

namespace TolanTest {

// Two connected descriptors: `a` and `b` (for a pipe, `a` reads and `b` writes;
// for TCP on 127.0.0.1, `a` is the accepted end).
struct FdPair {
  enum Kind { socketPair, pipe, tcp };
  explicit FdPair(Kind kind = socketPair) {
    int fds[2] = {-1, -1};
    if (kind == socketPair) {
      EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    } else if (kind == pipe) {
      EXPECT_EQ(::pipe(fds), 0);
    } else {
      const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
      socklen_t len = sizeof addr;
      auto* any = reinterpret_cast<sockaddr*>(&addr);
      EXPECT_TRUE(::bind(listener, any, len) == 0 && ::listen(listener, 1) == 0 && ::getsockname(listener, any, &len) == 0);
      fds[1] = ::socket(AF_INET, SOCK_STREAM, 0);
      EXPECT_EQ(::connect(fds[1], any, len), 0);
      fds[0] = ::accept(listener, nullptr, nullptr);
      ::close(listener);
    }
    a = fds[0];
    b = fds[1];
  }
  ~FdPair() { closeA(), closeB(); }
  void closeA() { a = a >= 0 ? ::close(a), -1 : -1; }
  void closeB() { b = b >= 0 ? ::close(b), -1 : -1; }
  int a, b;
};

// Runs the thread's loop in short slices until `done()` or `bound` real
// seconds; true when done.
inline bool runUntil(const std::function<bool()>& done, double bound = 10.0) {
  for (const double end = realNow() + bound; !done(); Tolan::Platform::doEventLoop(0.002))
    if (realNow() > end) return false;
  return true;
}

}  // namespace TolanTest
