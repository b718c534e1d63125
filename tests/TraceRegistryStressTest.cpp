// Rules changed, handlers made and dropped, and lines traced, all at once from
// several threads. The registry must stay consistent (sanitizer builds catch
// the rest) and no line may be torn.
#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Tolan/Debug.h"
#include "Tolan/DebugOutput.h"

namespace {

std::string display(const Tolan::Platform::DebugHandler& h) {
  return static_cast<const Tolan::Orn::DebugHandler&>(h).displayString();
}

TEST(TraceRegistryStress, ChurnFromManyThreads) {
  Tolan::Platform::setTraceFormat("handle,level");
  testing::internal::CaptureStderr();
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {  // rule changers
    threads.emplace_back([&stop, t] {
      const char* specs[] = {"Stress*/1", "StressA*/2", "StressAb/3", "*/4", "StressB*/5*"};
      for (unsigned i = 0; !stop; ++i) {
        if (i % 2) Tolan::Platform::clearTolanDebug(specs[(i + t) % 5]);
        else Tolan::Platform::setupTolanDebug(specs[(i + t) % 5]);
      }
    });
  }
  for (int t = 0; t < 3; ++t) {  // handler users: make, trace, drop
    threads.emplace_back([&stop, t] {
      const char* names[] = {"StressAb", "StressAc", "StressB", "Stress", "Other"};
      for (unsigned i = 0; !stop; ++i) {
        auto h = Tolan::Platform::getDebugHandler(names[(i + t) % 5]);
        if (h->activeLevels() & ~Tolan::Platform::kAllTraceLevels) ADD_FAILURE() << display(*h);
        for (unsigned level = 1; level <= 5; ++level) TOLAN_TRACE(h, level, "stress line {} of thread {} end", i, t);
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  stop = true;
  for (auto& th : threads) th.join();
  std::istringstream out(testing::internal::GetCapturedStderr());
  Tolan::Platform::setTraceFormat("date,time,tid,handle,level");

  const std::regex whole(R"(\S+ [1-5] stress line \d+ of thread [0-2] end)");
  long count = 0;
  for (std::string line; std::getline(out, line); ++count) {
    if (!std::regex_match(line, whole)) {
      ADD_FAILURE() << "torn line: " << line;
      break;
    }
  }
  EXPECT_GT(count, 0);

  // Quiet again, the registry still answers as the rules say.
  Tolan::Platform::clearTolanDebug("*/4,Stress*/*");
  Tolan::Platform::setupTolanDebug("StressC*/7");
  EXPECT_EQ(display(*Tolan::Platform::getDebugHandler("StressCd")), "StressCd/7");
}

}  // namespace
