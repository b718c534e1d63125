// timer_tasks.cpp - periodic timer tasks with jitter, and a task group.
//
// Three pollers run every 10 s of virtual time, each period stretched by up
// to 20 % of random jitter so that they drift apart instead of firing
// together. Beside them, 200 small "connection" tasks live in one task group:
// the root sees a single task of normal priority, and each turn of the group
// runs every connection that is ready once. A timer task wakes the
// connections every 3 s. Fast-forward skips every wait, so a virtual minute
// passes at once; the program then prints what ran and the root's statistics.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Tolan/Platform.h"
#include "Tolan/TaskScheduler.h"
#include "Tolan/TaskStatReport.h"

namespace {

using Tolan::TaskPriority;

const double kStart = Tolan::time();

class Poller : public Tolan::TimerTask {
 public:
  Poller(std::shared_ptr<Tolan::TaskScheduler> scheduler, int id)
      : TimerTask(std::move(scheduler), TaskPriority::normal, "poller-" + std::to_string(id)) {}
  void taskExecute() override {
    std::printf("  %6.2f s  %s\n", Tolan::time() - kStart, taskName().c_str());
    scheduleTaskJitterUp(10.0, 20);  // next in 10 to 12 s
  }
};

class Connection : public Tolan::Task {
 public:
  explicit Connection(std::shared_ptr<Tolan::TaskScheduler> group)
      : Task(std::move(group), TaskPriority::normal, "conn") {}
  void taskExecute() override { ++handled; }
  static inline long handled = 0;
};

// Makes every connection ready again, every 3 s.
class Waker : public Tolan::TimerTask {
 public:
  Waker(std::shared_ptr<Tolan::TaskScheduler> scheduler, std::vector<std::shared_ptr<Connection>>* conns)
      : TimerTask(std::move(scheduler), TaskPriority::normal, "waker"), conns_(conns) {}
  void taskExecute() override {
    for (auto& conn : *conns_) conn->scheduleTask();
    scheduleTaskDelay(3.0);
  }

 private:
  std::vector<std::shared_ptr<Connection>>* conns_;
};

}  // namespace

int main() {
  Tolan::Platform::setFastForward(true);
  auto root = Tolan::schedulerRootTolan();

  std::vector<std::shared_ptr<Poller>> pollers;
  for (int i = 0; i < 3; ++i) {
    pollers.push_back(std::make_shared<Poller>(root, i));
    pollers.back()->scheduleTaskDelay(1.0);  // all three start together
  }

  auto group = Tolan::TaskGroupIs("connections", TaskPriority::normal, root);
  std::vector<std::shared_ptr<Connection>> conns;
  for (int i = 0; i < 200; ++i) conns.push_back(std::make_shared<Connection>(group));
  auto waker = std::make_shared<Waker>(root, &conns);
  waker->scheduleTaskDelay(0.0);

  std::printf("pollers (virtual seconds since start):\n");
  Tolan::Platform::doEventLoop(60.0);  // one virtual minute
  for (auto& p : pollers) p->stopTimerTask();
  waker->stopTimerTask();

  std::printf("\n%ld connection runs in %u turns of the group's one task\n", Connection::handled,
              group->parentTaskRunCount());
  // The root's own tasks: the group is one line, "TaskGroup;connections".
  std::printf("\n%s", root->statsRenderTextForDebugToString(false, false, false, false).c_str());
  Tolan::Platform::setFastForward(false);
  return 0;
}
