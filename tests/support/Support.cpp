#include "support/Support.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace TolanTest {
namespace {

// Registered once for every test binary: the suite catches library assertions
// as exceptions; death tests switch that off inside their statement.
class ThrowingAssertions : public testing::Environment {
  void SetUp() override {
    Tolan::throwOnAssertFailIs(true);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }
};
testing::Environment* const gEnvironment = testing::AddGlobalTestEnvironment(new ThrowingAssertions);

std::string readAll(int fd) {
  std::string s;
  char buf[65536];
  for (ssize_t n; (n = pread(fd, buf, sizeof buf, static_cast<off_t>(s.size()))) > 0;) s.append(buf, n);
  return s;
}

}  // namespace

std::string traceOf(const std::function<void()>& body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

std::string traceOf(Tolan::Platform::DebugHandler& handler, const std::string& levels,
                    const std::function<void()>& body) {
  for (char c : levels) handler.enabledIs(c - '0', true);
  const std::string text = traceOf(body);
  for (char c : levels) handler.enabledIs(c - '0', false);
  return text;
}

std::string stdoutOf(const std::function<void()>& body) {
  testing::internal::CaptureStdout();
  body();
  return testing::internal::GetCapturedStdout();
}

std::string fileText(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

size_t occurrences(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

void Counting::timeout() {
  at.push_back(Tolan::time());
  note(fired);
}

void Counting::readFdEvent(int fd) {
  char buf[64];
  while (consume && ::read(fd, buf, sizeof buf) > 0) {
  }
  note(reads, fd);
}

void Counting::note(int& counter, int fd) {
  ++counter;
  lastFd = fd;
  if (then) then();
  if (throwIt) throw std::runtime_error("handler failed");
}

ScratchDir::ScratchDir() {
  char pattern[] = "/tmp/tolan-test-XXXXXX";
  if (!mkdtemp(pattern)) std::abort();
  path = pattern;
}

ScratchDir::~ScratchDir() { std::filesystem::remove_all(path); }

ForkedChild::ForkedChild(const std::function<char()>& setup) {
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

void ForkedChild::finish() {
  if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

// The wait status of child `pid`, killed if still running after `limit`.
static int waitStatus(pid_t pid, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) kill(pid, SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return status;
}

int exitStatusInChild(const std::function<int()>& body, std::chrono::seconds limit) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  const int status = waitStatus(pid, limit);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

pid_t exitedPid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

std::string ChildResult::describe() const {
  return (signal ? "killed by signal " + std::to_string(signal) : "exit code " + std::to_string(exitCode)) +
         "; stderr: " + err.substr(0, 2000);
}

ChildResult runChild(const std::string& program, const std::vector<std::string>& args,
                     std::map<std::string, std::optional<std::string>> env) {
  // env(1) applies the environment changes and then becomes the program.
  std::vector<std::string> words{"/usr/bin/env"};
  for (const auto& [name, value] : env)
    if (!value) words.insert(words.end(), {"-u", name});
  words.push_back("--");
  for (const auto& [name, value] : env)
    if (value) words.push_back(name + "=" + *value);
  words.push_back(program);
  words.insert(words.end(), args.begin(), args.end());
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
    r.err = "cannot start " + program + ": " + std::strerror(rc);
  } else {
    const int status = waitStatus(pid, std::chrono::seconds(60));
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    r.out = readAll(outFd);
    r.err = readAll(errFd);
  }
  close(outFd);
  close(errFd);
  return r;
}

std::string helperPath(const std::string& name) { return std::string(TOLAN_TEST_BINARY_DIR) + "/" + name; }

ChildResult traceProbe(const std::vector<std::string>& commands,
                       std::map<std::string, std::optional<std::string>> env) {
  for (const char* name : {"TRACE", "TRACEFILE", "TRACEFORMAT"}) env.emplace(name, std::nullopt);
  return runChild(helperPath("trace_probe"), commands, std::move(env));
}

}  // namespace TolanTest
