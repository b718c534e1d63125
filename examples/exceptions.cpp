// Exceptions that know where they were made, assertions a program can
// survive or die of, and the report a dying process leaves behind.
//
// The program catches a library exception and prints it, keeps the last few
// exceptions in the backtrace tracker, turns a failed assertion into an
// exception, and finally lets a forked child die of an uncaught exception so
// that the terminate handler's report can be seen.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <stdexcept>

#include "Tolan/Assert.h"
#include "Tolan/Backtrace.h"
#include "Tolan/Errno.h"
#include "Tolan/Exception.h"

namespace {

void openConfig(const char* path) {
  if (access(path, R_OK) != 0)
    Tolan::RuntimeException::throwException(std::string(path) + ": " + Tolan::strerror(errno));
}

[[noreturn]] __attribute__((noinline)) void connectDatabase() { throw std::runtime_error("database went away"); }

// Nothing may leave a noexcept function: the runtime calls std::terminate().
void serveForever() noexcept { connectDatabase(); }

void checkQueue(int depth) { TOLAN_ASSERT(depth < 100, "queue depth {} over the limit", depth); }

}  // namespace

int main() {
  std::cout << "1. A caught library exception: msg() and what() (which adds the stack)\n";
  try {
    openConfig("/no/such/config");
  } catch (const Tolan::Exception& e) {
    std::cout << "msg():  " << e.msg() << "\nwhat(): " << e.what() << "\n";
  }

  std::cout << "2. The tracker remembers exceptions even after they were handled\n";
  Tolan::BacktraceTracker::enabledIs(true);
  Tolan::BacktraceTracker::capacityIs(2);
  for (const char* path : {"/no/a", "/no/b", "/no/c"}) {
    try {
      openConfig(path);
    } catch (const Tolan::Exception&) {
    }
  }
  for (const auto& entry : Tolan::BacktraceTracker::tracked())
    std::cout << "  tracked: " << entry.message() << " (" << entry.backtrace().frameCount() << " frames)\n";

  std::cout << "\n3. A failed assertion, thrown because throwOnAssertFailIs(true); its trace line goes to\n"
               "   standard error (or TRACEFILE)\n";
  std::cout.flush();
  Tolan::throwOnAssertFailIs(true);
  try {
    checkQueue(250);
  } catch (const Tolan::AssertException& e) {
    std::cout << "  caught " << e.msg() << "\n";
  }

  std::cout << "\n4. A child process dies of an uncaught std::runtime_error "
               "(TOLAN_BACKTRACE_VERBOSITY=0 leaves out the stack):\n";
  std::cout.flush();
  const pid_t child = fork();
  if (child == 0) {
    setenv("TOLAN_BACKTRACE_VERBOSITY", "0", 1);
    dup2(STDOUT_FILENO, STDERR_FILENO);  // show the report in this program's output
    serveForever();
  }
  int status = 0;
  waitpid(child, &status, 0);
  std::cout << "  child ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0) << " (SIGABRT is "
            << SIGABRT << ")\n";
  return 0;
}
