#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace Tolan {
namespace Test {
namespace {

// Both ends close-on-exec, so a child spawned concurrently from another
// thread does not inherit them and keep our reads from seeing EOF.
void makePipe(int fds[2]) {
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
}

// Reads both pipes until both reach EOF; kills the child at the deadline.
void drain(pid_t pid, int outFd, int errFd, std::chrono::milliseconds limit, ChildResult& r) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::string* sinks[2] = {&r.out, &r.err};
  pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  int open = 2;
  char buf[65536];
  while (open > 0) {
    int wait = -1;
    if (!r.timedOut) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        kill(pid, SIGKILL);
        r.timedOut = true;
      } else {
        wait = static_cast<int>(left.count()) + 1;
      }
    }
    const int n = poll(fds, 2, wait);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::runtime_error(std::string("poll: ") + std::strerror(errno));
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t got = read(fds[i].fd, buf, sizeof buf);
      if (got > 0) {
        sinks[i]->append(buf, static_cast<size_t>(got));
      } else if (got == 0 || errno != EINTR) {
        fds[i].fd = -1;  // poll ignores negative descriptors
        --open;
      }
    }
  }
}

}  // namespace

std::string ChildResult::describe() const {
  std::string s;
  if (timedOut) s += "timed out; ";
  if (signal) s += "killed by signal " + std::to_string(signal);
  else s += "exit code " + std::to_string(exitCode);
  s += "; stderr: " + err.substr(0, 2000);
  return s;
}

ChildProcess::ChildProcess(std::string program) : program_(std::move(program)) {}

ChildProcess& ChildProcess::arg(std::string value) {
  args_.push_back(std::move(value));
  return *this;
}

ChildProcess& ChildProcess::args(const std::vector<std::string>& values) {
  args_.insert(args_.end(), values.begin(), values.end());
  return *this;
}

ChildProcess& ChildProcess::env(const std::string& name, std::string value) {
  envChanges_[name] = std::move(value);
  return *this;
}

ChildProcess& ChildProcess::unsetEnv(const std::string& name) {
  envChanges_[name] = std::nullopt;
  return *this;
}

ChildProcess& ChildProcess::clearEnv() {
  inheritEnv_ = false;
  return *this;
}

ChildProcess& ChildProcess::timeout(std::chrono::milliseconds limit) {
  timeout_ = limit;
  return *this;
}

ChildResult ChildProcess::run() const {
  std::vector<std::string> envStrings;
  if (inheritEnv_) {
    for (char** e = environ; *e; ++e) {
      const std::string entry(*e);
      const std::string name = entry.substr(0, entry.find('='));
      if (!envChanges_.count(name)) envStrings.push_back(entry);
    }
  }
  for (const auto& [name, value] : envChanges_) {
    if (value) envStrings.push_back(name + "=" + *value);
  }

  std::vector<char*> argv{const_cast<char*>(program_.c_str())};
  for (const auto& a : args_) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& e : envStrings) envp.push_back(e.data());
  envp.push_back(nullptr);

  int outPipe[2], errPipe[2];
  makePipe(outPipe);
  makePipe(errPipe);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // dup2 clears close-on-exec on the copies.
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);

  ChildResult r;
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, program_.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(outPipe[1]);
  close(errPipe[1]);
  if (rc != 0) {
    close(outPipe[0]);
    close(errPipe[0]);
    r.exitCode = 127;
    r.err = "cannot start " + program_ + ": " + std::strerror(rc);
    return r;
  }

  try {
    drain(pid, outPipe[0], errPipe[0], timeout_, r);
  } catch (...) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(outPipe[0]);
    close(errPipe[0]);
    throw;
  }
  close(outPipe[0]);
  close(errPipe[0]);

  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) r.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) r.signal = WTERMSIG(status);
  return r;
}

std::string helperPath(const std::string& name) { return std::string(TOLAN_TEST_BINARY_DIR) + "/" + name; }

}  // namespace Test
}  // namespace Tolan
