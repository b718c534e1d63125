// Rules changed, handlers made and dropped, and lines traced, all at once from
// several threads. The registry must stay consistent (sanitizer builds catch
// the rest) and no line may be torn.

#include "Tolan/DebugOutput.h"
#include "support/Support.h"

using namespace TolanTest;
using namespace Tolan::Platform;

TEST(TraceRegistryStress, ChurnFromManyThreads) {
  setTraceFormat("handle,level");
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  const std::string out = traceOf([&] {
    for (int t = 0; t < 5; ++t) {
      threads.emplace_back([&stop, t] {
        const char* specs[] = {"Stress*/1", "StressA*/2", "StressAb/3", "*/4", "StressB*/5*"};
        const char* names[] = {"StressAb", "StressAc", "StressB", "Stress", "Other"};
        for (unsigned i = 0; !stop; ++i) {
          if (t < 2) {  // rule changers
            i % 2 ? clearTolanDebug(specs[(i + t) % 5]) : setupTolanDebug(specs[(i + t) % 5]);
            continue;
          }
          auto h = getDebugHandler(names[(i + t) % 5]);  // handler users: make, trace, drop
          if (h->activeLevels() & ~kAllTraceLevels) ADD_FAILURE() << h->activeLevels();
          for (unsigned level = 1; level <= 5; ++level) TOLAN_TRACE(h, level, "stress line {} of thread {} end", i, t);
        }
      });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    stop = true;
    for (auto& th : threads) th.join();
  });
  std::istringstream lines(out);
  long count = 0;
  for (std::string line; std::getline(lines, line) && !HasFailure(); ++count) {
    char handle[32];
    unsigned level = 0, i = 0, t = 0;
    int used = 0;
    const bool whole = std::sscanf(line.c_str(), "%31s %u stress line %u of thread %u end%n", handle, &level, &i, &t,
                                   &used) == 4 && used == static_cast<int>(line.size()) && level >= 1 && level <= 5;
    EXPECT_TRUE(whole && t >= 2 && t <= 4) << "torn line: " << line;
  }
  EXPECT_GT(count, 0);
  // Quiet again, the registry still answers as the rules say.
  clearTolanDebug("*/4,Stress*/*");
  setupTolanDebug("StressC*/7");
  EXPECT_EQ(getDebugHandler("StressCd")->activeLevels(), 1u << 7);
}
