// ChildProcess.h - run a program in a child process and collect what it did.
//
// For behaviour fixed at process start (environment read at library load) or
// that ends the process: the child gets its own environment, ours is never
// touched. stdout and stderr are captured separately; stdin is /dev/null. A
// child still running after a minute is killed with SIGKILL.
//
//   auto r = ChildProcess(helperPath("trace_probe")).arg("dump-map").env("TRACE", "Foo*/2").run();
//   EXPECT_TRUE(r.exitedWith(0)) << r.describe();
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Tolan {
namespace Test {

struct ChildResult {
  std::string out, err;
  int exitCode = -1;  // -1 unless the child exited normally
  int signal = 0;     // terminating signal, else 0
  bool timedOut = false;

  bool exitedWith(int code) const { return signal == 0 && !timedOut && exitCode == code; }
  bool killedBy(int sig) const { return signal == sig; }
  // Status plus the start of stderr, for assertion messages.
  std::string describe() const;
};

class ChildProcess {
 public:
  explicit ChildProcess(std::string program) : program_(std::move(program)) {}

  ChildProcess& arg(std::string value) { args_.push_back(std::move(value)); return *this; }
  ChildProcess& env(const std::string& name, std::string value) { envChanges_[name] = std::move(value); return *this; }
  ChildProcess& unsetEnv(const std::string& name) { envChanges_[name] = std::nullopt; return *this; }

  // Blocks until the child is reaped; a program that cannot be started
  // reports exit code 127 with the reason in `err`.
  ChildResult run() const;

 private:
  std::string program_;
  std::vector<std::string> args_;
  std::map<std::string, std::optional<std::string>> envChanges_;  // nullopt: remove
};

// Path of a helper program built next to the tests (tests/helpers/*).
std::string helperPath(const std::string& name);

// trace_probe running `commands`, with TRACE, TRACEFILE and TRACEFORMAT unset.
ChildProcess traceProbe(const std::vector<std::string>& commands);

}  // namespace Test
}  // namespace Tolan
