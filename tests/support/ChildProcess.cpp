#include "support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

extern char** environ;

namespace Tolan {
namespace Test {
namespace {

std::string readAll(int fd) {
  std::string s;
  char buf[65536];
  for (ssize_t n; (n = pread(fd, buf, sizeof buf, static_cast<off_t>(s.size()))) > 0;)
    s.append(buf, static_cast<size_t>(n));
  return s;
}

}  // namespace

std::string ChildResult::describe() const {
  return (timedOut ? "timed out; " : "") +
         (signal ? "killed by signal " + std::to_string(signal) : "exit code " + std::to_string(exitCode)) +
         "; stderr: " + err.substr(0, 2000);
}

ChildResult ChildProcess::run() const {
  // env(1) applies the environment changes and then becomes the program.
  std::vector<std::string> words{"/usr/bin/env"};
  for (const auto& [name, value] : envChanges_)
    if (!value) words.insert(words.end(), {"-u", name});
  words.push_back("--");
  for (const auto& [name, value] : envChanges_)
    if (value) words.push_back(name + "=" + *value);
  words.push_back(program_);
  words.insert(words.end(), args_.begin(), args_.end());
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  // Output goes to memory files, read once the child is gone: nothing to
  // drain while it runs, and no pipe for a concurrently spawned child to hold.
  const int outFd = memfd_create("child-out", MFD_CLOEXEC), errFd = memfd_create("child-err", MFD_CLOEXEC);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ChildResult r;
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    r.exitCode = 127;
    r.err = "cannot start " + program_ + ": " + std::strerror(rc);
  } else {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    int status = 0;
    for (pid_t got; (got = waitpid(pid, &status, r.timedOut ? 0 : WNOHANG)) != pid && (got == 0 || errno == EINTR);) {
      if (r.timedOut) continue;
      if (std::chrono::steady_clock::now() > deadline) r.timedOut = kill(pid, SIGKILL) == 0;
      else std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (WIFEXITED(status)) r.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) r.signal = WTERMSIG(status);
    r.out = readAll(outFd);
    r.err = readAll(errFd);
  }
  close(outFd);
  close(errFd);
  return r;
}

std::string helperPath(const std::string& name) { return std::string(TOLAN_TEST_BINARY_DIR) + "/" + name; }

ChildProcess traceProbe(const std::vector<std::string>& commands) {
  ChildProcess child(helperPath("trace_probe"));
  child.unsetEnv("TRACE").unsetEnv("TRACEFILE").unsetEnv("TRACEFORMAT");
  for (const auto& c : commands) child.arg(c);
  return child;
}

}  // namespace Test
}  // namespace Tolan
