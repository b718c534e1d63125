#include "Tolan/Errno.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(Errno, KnownAndUnknownNumbersLeaveErrnoAlone) {
  errno = EBADF;
  EXPECT_STREQ(Tolan::strerror(EINVAL), "Invalid argument");
  EXPECT_EQ(errno, EBADF);
  EXPECT_STREQ(Tolan::strerror(0), "Success");
  EXPECT_STREQ(Tolan::strerror(123456), "Unknown error 123456");
  EXPECT_STREQ(Tolan::strerror(-3), "Unknown error -3");
  EXPECT_EQ(errno, EBADF);
}

// Unknown numbers are rendered into the caller's buffer, so these are the
// texts a shared buffer would mix up between threads.
TEST(Errno, EachThreadGetsItsOwnText) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  std::atomic<int> wrong{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      while (!go.load()) {
      }
      for (int i = 0; i < kRounds; ++i) {
        const int unknown = 100000 + t * kRounds + i;
        const int known = (t % 2) ? ENOENT : EACCES;
        errno = t + 1;
        const char* text = Tolan::strerror(unknown);
        const std::string expected = "Unknown error " + std::to_string(unknown);
        if (expected != text) ++wrong;
        if (std::strcmp(Tolan::strerror(known), (t % 2) ? "No such file or directory" : "Permission denied") != 0)
          ++wrong;
        if (errno != t + 1) ++wrong;
      }
    });
  }
  go = true;
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
