// Real system objects for tests of the system utilities: a forked child that
// holds something (a lock, a socket, a process name) while the test looks at
// it, and a scratch directory.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

namespace Tolan {
namespace Test {

// Runs `setup` in a forked child, which then sleeps until finish() (or
// destruction) kills it; it never returns into the test framework.
// report() is setup's result, or 0 once setup exec'd another program.
class ForkedChild {
 public:
  explicit ForkedChild(const std::function<char()>& setup) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) std::abort();
    if ((pid_ = fork()) == 0) {
      const char c = setup();
      if (write(ready[1], &c, 1) != 1) _exit(3);
      for (;;) pause();
    }
    close(ready[1]);
    if (read(ready[0], &report_, 1) != 1) report_ = 0;
    close(ready[0]);
  }
  ~ForkedChild() { finish(); }
  void finish() {
    if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  pid_t pid() const { return pid_; }
  char report() const { return report_; }

 private:
  pid_t pid_ = -1;
  char report_ = 0;
};

// Exit status of `body` run in a forked child, or 128 + the killing signal.
inline int exitStatusInChild(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A pid that names no process: that of a child already reaped.
inline pid_t exitedPid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

struct TempDir {
  TempDir() {
    char pattern[] = "/tmp/tolan-ut-XXXXXX";
    if (!mkdtemp(pattern)) std::abort();
    path = pattern;
  }
  ~TempDir() { std::filesystem::remove_all(path); }
  std::string path;
};

// The message() of the E that `f` throws, or "(nothing thrown)".
template <typename E, typename F>
std::string thrownMessage(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.message();
  }
  return "(nothing thrown)";
}

}  // namespace Test
}  // namespace Tolan
