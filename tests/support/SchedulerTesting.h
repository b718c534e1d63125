// Helpers for the scheduler tests: a task whose work is a function, a
// fixture with a root of its own, and single event-loop passes.
#pragma once

#include <event2/event.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Tolan/LibeventFactory.h"
#include "Tolan/TaskScheduler.h"

namespace TolanTest {

// A task that appends its name to `log` on every run, then runs `body`.
struct Probe : Tolan::Task {
  Probe(std::shared_ptr<Tolan::TaskScheduler> scheduler, Tolan::TaskPriority priority, std::string name,
        std::vector<std::string>* log, std::function<void(Probe&)> body = {})
      : Task(std::move(scheduler), priority, std::move(name)), log(log), body(std::move(body)) {}
  void taskExecute() override {
    if (log) log->push_back(taskName());
    if (body) body(*this);
  }
  std::vector<std::string>* log;
  std::function<void(Probe&)> body;
};

// A statistics record without work counters, its name interned in `names`.
inline Tolan::TaskStat statRecord(Tolan::ConstStringCache& names, const char* name, uint32_t key,
                                  Tolan::TaskPriority priority, uint32_t runs, std::chrono::nanoseconds total,
                                  std::chrono::nanoseconds lastLatency = {}, std::chrono::nanoseconds maxLatency = {},
                                  std::chrono::nanoseconds maxRun = {}, uint8_t status = 0) {
  return Tolan::TaskStat(names.intern(name), Tolan::TaskKey(key), priority, runs, total, 0, 0,
                         Tolan::TaskMaybeU32::none(), 0, Tolan::TaskMaybeU32::none(), 0, 0, maxRun, lastLatency,
                         maxLatency, Tolan::TaskStat::TaskStatus(status));
}

// Each test gets a root of its own on the test thread.
class SchedulerFixture : public ::testing::Test {
 protected:
  std::shared_ptr<Probe> task(Tolan::TaskPriority priority, std::string name,
                              std::function<void(Probe&)> body = {}) {
    return std::make_shared<Probe>(root, priority, std::move(name), &log, std::move(body));
  }
  // One task per blank-separated name, scheduled in order; the first letter
  // of a name gives its priority (a, h, n, l, s).
  std::vector<std::shared_ptr<Probe>> scheduled(const std::string& names) {
    std::vector<std::shared_ptr<Probe>> tasks;
    std::istringstream in(names);
    for (std::string name; in >> name;) {
      const auto p = Tolan::TaskPriority::fromNumber(static_cast<unsigned>(std::string("ahnls").find(name[0])));
      tasks.push_back(task(p, name));
      tasks.back()->scheduleTask();
    }
    return tasks;
  }
  // One pass of the thread's event loop: at most one scheduler callback.
  static void pass() { Tolan::Platform::doEventLoop(0.0); }
  // Runs the loop until nothing is left to do.
  static void drain() { Tolan::Platform::doEventLoop(); }
  // How many events of `type` the history holds.
  size_t count(Tolan::TaskSchedulerEventType type) const {
    size_t n = 0;
    for (const auto& event : root->history().events()) n += event.eventType == type;
    return n;
  }
  // The log joined with blanks, then cleared.
  std::string ran() {
    std::string joined;
    for (const auto& name : log) joined += (joined.empty() ? "" : " ") + name;
    log.clear();
    return joined;
  }

  std::shared_ptr<Tolan::TaskSchedulerRoot> root = Tolan::TaskSchedulerRootIs("test");
  std::vector<std::string> log;
};

}  // namespace TolanTest
