// ForkedChild.h - a forked copy of the test process that does one thing and
// then waits, for tests that need another process holding something real
// (a lock, a socket, a process name) while the test looks at it.
//
//   ForkedChild child([] { return bind(...) == 0 ? 'y' : 'n'; });
//   ASSERT_EQ(child.report(), 'y');          // setup done, child now waits
//   EXPECT_EQ(readSocketPid(h, path), child.pid());
//   child.finish();                          // let it exit and reap it
//
// The child never returns into the test framework: it ends with _exit().
// Header only; any test may include it.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

namespace Tolan {
namespace Test {

class ForkedChild {
 public:
  // Runs `setup` in the child and hands its result to the parent, which
  // waits for it. If setup exec's another program, report() is 0 once the
  // exec has happened (the report pipe closes on exec).
  explicit ForkedChild(const std::function<char()>& setup) {
    int ready[2], done[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe(done) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      close(done[1]);
      const char c = setup();
      if (write(ready[1], &c, 1) != 1) _exit(3);
      char x;
      (void)!read(done[0], &x, 1);  // returns when the parent lets go
      _exit(0);
    }
    close(ready[1]);
    close(done[0]);
    doneFd_ = done[1];
    if (read(ready[0], &report_, 1) != 1) report_ = 0;
    close(ready[0]);
  }
  ~ForkedChild() { finish(); }
  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;

  // Lets the child exit (an exec'd one is sent SIGTERM) and reaps it.
  void finish() {
    if (doneFd_ < 0) return;
    close(doneFd_);
    doneFd_ = -1;
    if (report_ == 0) kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }
  char report() const { return report_; }

 private:
  pid_t pid_ = -1;
  int doneFd_ = -1;
  char report_ = 0;
};

// Runs `body` in a forked child that exits with its result; returns the exit
// status, or 128 + the signal that ended the child.
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

}  // namespace Test
}  // namespace Tolan
