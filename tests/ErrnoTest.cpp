#include "Tolan/Errno.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

// Unknown numbers are rendered into the caller's buffer: these are the texts a
// shared buffer would mix up between threads.
TEST(Errno, EachThreadGetsItsOwnTextAndKeepsErrno) {
  constexpr int kRounds = 2000;
  std::atomic<int> wrong{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      while (!go) {
      }
      for (int i = 0; i < kRounds; ++i) {
        const int unknown = (t % 2 ? -1 : 1) * (100000 + t * kRounds + i);
        errno = t + 1;
        if (Tolan::strerror(unknown) != "Unknown error " + std::to_string(unknown)) ++wrong;
        if (std::strcmp(Tolan::strerror(t % 2 ? EINVAL : 0), t % 2 ? "Invalid argument" : "Success") != 0) ++wrong;
        if (errno != t + 1) ++wrong;
      }
    });
  }
  go = true;
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
