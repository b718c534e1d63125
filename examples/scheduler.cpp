// scheduler.cpp - tasks of several priorities on a thread's scheduler.
//
// On the main thread and then on a second thread: one task per priority,
// scheduled lowest first, and a long computation at low priority that works
// in slices of its quantum and reschedules itself for the rest. The loop
// returns by itself when nothing is left to run; each thread then prints the
// newest events of its scheduling history and the statistics report of its
// tasks. At the very end the main thread writes the JSON introspection
// document of its scheduler to standard output (pipe it to jq to read it).
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Tolan/Platform.h"
#include "Tolan/TaskScheduler.h"
#include "Tolan/TaskStatReport.h"

namespace {

using Tolan::TaskPriority;

class Greeter : public Tolan::Task {
 public:
  Greeter(std::shared_ptr<Tolan::TaskScheduler> scheduler, TaskPriority priority)
      : Task(std::move(scheduler), priority, std::string("greet-") + priority.toStrep()) {}
  void taskExecute() override { std::printf("  %s ran\n", taskName().c_str()); }
};

// Sums 1..n, a slice per run: it works until its 2 ms quantum is used up.
class Summer : public Tolan::Task {
 public:
  Summer(std::shared_ptr<Tolan::TaskScheduler> scheduler, uint64_t n)
      : Task(std::move(scheduler), TaskPriority::low, "summer"), n_(n) {
    taskQuantumIs(std::chrono::milliseconds(2));
  }
  void taskExecute() override {
    do {
      sum_ += ++i_;
    } while (i_ < n_ && (i_ % 4096 != 0 || !taskShouldYield()));
    if (i_ < n_) {
      scheduleTask();
    } else {
      std::printf("  summer: 1 + ... + %llu = %llu in %u runs\n", static_cast<unsigned long long>(n_),
                  static_cast<unsigned long long>(sum_), taskRunCount());
    }
  }

 private:
  uint64_t n_, i_ = 0, sum_ = 0;
};

void runTasks(const char* where) {
  auto root = Tolan::schedulerRootTolan();
  root->historyEntryCountIs(16);
  std::printf("%s, scheduler \"%s\":\n", where, root->schedulerName().c_str());
  std::vector<std::shared_ptr<Tolan::Task>> tasks;
  tasks.push_back(std::make_shared<Summer>(root, 20000000));
  for (unsigned p = TaskPriority::scavenge + 1; p-- > 0;)
    tasks.push_back(std::make_shared<Greeter>(root, TaskPriority::fromNumber(p)));
  for (auto& task : tasks) task->scheduleTask();
  Tolan::Platform::doEventLoop();  // returns once the scheduler is idle
  std::printf("%s\n", root->historyRenderTextForDebugToString().c_str());
  tasks.resize(1);  // the greeters end: they show as completed tasks
  std::printf("%s\n", root->statsRenderTextForDebugToString(true, true, false, false).c_str());
}

}  // namespace

int main() {
  runTasks("main thread");
  // The thread's root and event base go by themselves when it ends.
  std::thread([] { runTasks("second thread"); }).join();
  // All of the main thread's scheduler: tasks that never ran, completed
  // tasks, task groups, and its history.
  std::fflush(stdout);
  Tolan::schedulerRootTolan()->statsRenderJson(std::cout, true, true, true);
  std::cout << std::endl;
  return 0;
}
