// ChildProcess.h - run a program in a child process and collect what it did.
//
// For tests of behaviour that is fixed at process start (environment read at
// library load, say) or that ends the process (aborts): the child gets its
// own environment, the test process's environment is never touched.
//
//   auto r = ChildProcess(helperPath("trace_probe"))
//                .arg("dump-map")
//                .env("TRACE", "Foo*/2")
//                .unsetEnv("TRACEFILE")
//                .run();
//   EXPECT_TRUE(r.exitedWith(0)) << r.describe();
//   EXPECT_THAT(r.out, HasSubstr("Foo*/2"));
//
// Standard output and standard error are captured separately and in full;
// standard input is /dev/null.
// A child that outlives its time limit is killed with SIGKILL and reported as
// timed out. run() may be called from any thread; it blocks until the child
// has been reaped.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Tolan {
namespace Test {

struct ChildResult {
  std::string out;       // everything the child wrote on standard output
  std::string err;       // everything the child wrote on standard error
  int exitCode = -1;     // exit status when the child exited normally, else -1
  int signal = 0;        // terminating signal when the child was killed, else 0
  bool timedOut = false; // true when we killed it for overrunning its time limit

  bool exitedWith(int code) const { return signal == 0 && !timedOut && exitCode == code; }
  bool killedBy(int sig) const { return signal == sig; }
  // One line for assertion messages: status plus the start of stderr.
  std::string describe() const;
};

class ChildProcess {
 public:
  // `program` is a path; it is not looked up in PATH.
  explicit ChildProcess(std::string program);

  // Appends one argument (argv[1], argv[2], ...).
  ChildProcess& arg(std::string value);
  ChildProcess& args(const std::vector<std::string>& values);
  // Sets a variable in the child's environment.
  ChildProcess& env(const std::string& name, std::string value);
  // Removes a variable from the child's environment.
  ChildProcess& unsetEnv(const std::string& name);
  // Starts from an empty environment instead of a copy of ours.
  ChildProcess& clearEnv();
  // Time limit, 10 s unless set.
  ChildProcess& timeout(std::chrono::milliseconds limit);

  // Starts the child and waits for it. Failure to start it at all (no such
  // program) is reported as exit code 127 with the reason in `err`.
  ChildResult run() const;

 private:
  std::string program_;
  std::vector<std::string> args_;
  // nullopt: remove the variable.
  std::map<std::string, std::optional<std::string>> envChanges_;
  bool inheritEnv_ = true;
  std::chrono::milliseconds timeout_{10000};
};

// Path of a helper program built next to the tests (tests/helpers/*).
std::string helperPath(const std::string& name);

}  // namespace Test
}  // namespace Tolan
