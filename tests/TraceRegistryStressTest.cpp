// Rules changed, handlers made and dropped, and lines traced, all at once from
// several threads. The registry must stay consistent (sanitizer builds catch
// the rest) and no line may be torn.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Tolan/Debug.h"

namespace {

using Tolan::Platform::clearTolanDebug;
using Tolan::Platform::getDebugHandler;
using Tolan::Platform::setupTolanDebug;

std::string display(const Tolan::Platform::DebugHandler& h) {
  return static_cast<const Tolan::Orn::DebugHandler&>(h).displayString();
}

TEST(TraceRegistryStress, ChurnFromManyThreads) {
  Tolan::Platform::setTraceFormat("handle,level");
  testing::internal::CaptureStderr();
  std::atomic<bool> stop{false};
  std::atomic<long> traced{0};
  std::vector<std::thread> threads;

  // Rule changers: prefix and specific rules, set and cleared.
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&stop, t] {
      const std::string specs[] = {"Stress*/1", "StressA*/2", "StressAb/3", "*/4", "StressB*/5*"};
      for (unsigned i = 0; !stop; ++i) {
        const std::string& spec = specs[(i + t) % 5];
        if (i % 2) clearTolanDebug(spec.c_str());
        else setupTolanDebug(spec.c_str());
      }
    });
  }
  // Handler users: make, trace, drop.
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&stop, &traced, t] {
      const char* names[] = {"StressAb", "StressAc", "StressB", "Stress", "Other"};
      for (unsigned i = 0; !stop; ++i) {
        auto h = getDebugHandler(names[(i + t) % 5]);
        if (h->activeLevels() & ~Tolan::Platform::kAllTraceLevels) ADD_FAILURE() << display(*h);
        for (unsigned level = 1; level <= 5; ++level) {
          if (TOLAN_TRACE_ENABLED(h, level)) ++traced;
          TOLAN_TRACE(h, level, "stress line {} of thread {} end", i, t);
        }
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  stop = true;
  for (auto& th : threads) th.join();
  const std::string out = testing::internal::GetCapturedStderr();
  Tolan::Platform::setTraceFormat("date,time,tid,handle,level");

  // Every line arrived whole: "<handle> <level> stress line <i> of thread <t> end".
  std::istringstream lines(out);
  long count = 0;
  std::string bad;
  for (std::string line; std::getline(lines, line);) {
    ++count;
    char handle[32];
    unsigned level = 0, i = 0, t = 0;
    int used = 0;
    if (std::sscanf(line.c_str(), "%31s %u stress line %u of thread %u end%n", handle, &level, &i, &t, &used) != 4 ||
        static_cast<size_t>(used) != line.size() || level < 1 || level > 5 || t > 2) {
      bad = line;
      break;
    }
  }
  EXPECT_EQ(bad, "");
  EXPECT_GT(count, 0);
  EXPECT_GT(traced.load(), 0);

  // Quiet again, the registry still answers as the rules say.
  clearTolanDebug("*/4,Stress*/*");
  setupTolanDebug("StressC*/7");
  EXPECT_EQ(display(*getDebugHandler("StressCd")), "StressCd/7");
}

}  // namespace
