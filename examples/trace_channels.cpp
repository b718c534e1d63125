// Trace channels: named handlers whose levels are switched on and off from
// outside the program, by the environment variables TRACE, TRACEFORMAT and
// TRACEFILE (read when the library loads).
//
// This program runs itself several times with different environments and
// says what each run shows. The traced part is the few lines in traceSome().
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "Tolan/Debug.h"

extern char** environ;

namespace {

// What a program using the library writes: one handler per component, trace
// calls at levels from 1 (failures) to 9 (per-operation detail).
void traceSome() {
  auto net = Tolan::Platform::getDebugHandler("Demo.Net");
  auto disk = Tolan::Platform::getDebugHandler("Demo.Disk");
  TOLAN_TRACE(net, 1, "connection to {} refused", "10.0.0.7:80");
  TOLAN_TRACE(net, 5, "connected to {} in {} ms", "10.0.0.8:80", 12);
  TOLAN_TRACE(net, 9, "sent {} bytes", 512);
  TOLAN_TRACE(disk, 5, "flushed {} pages", 32);
  TOLAN_TRACE(disk, 8, "wrote page {}", 7);
  std::cout << "   (the run ends here)" << std::endl;
}

// Runs this program again with `settings` ("NAME=value") added to a copy of
// our environment without any TRACE* variable. Its output, standard error
// included, goes to our standard output.
void runWith(const std::vector<std::string>& settings) {
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) {
    if (std::strncmp(*e, "TRACE", 5) != 0) env.emplace_back(*e);
  }
  env.insert(env.end(), settings.begin(), settings.end());
  std::vector<char*> envp;
  for (auto& s : env) envp.push_back(s.data());
  envp.push_back(nullptr);

  std::cout << "   $";
  for (const auto& s : settings) std::cout << ' ' << s;
  std::cout << " trace_channels" << std::endl;

  char self[] = "/proc/self/exe";
  char child[] = "--child";
  char* argv[] = {self, child, nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  pid_t pid;
  if (posix_spawn(&pid, self, &actions, nullptr, argv, envp.data()) != 0) {
    std::perror("posix_spawn");
    std::exit(1);
  }
  posix_spawn_file_actions_destroy(&actions);
  int status;
  waitpid(pid, &status, 0);
  std::cout << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--child") == 0) {
    traceSome();
    return 0;
  }

  std::cout << "1. Without TRACE, only the library's own handlers (names beginning \"Tolan\")\n"
               "   have levels 0 and 1 on; the Demo handlers are silent.\n";
  runWith({});

  std::cout << "2. TRACE=\"Demo*/5\" switches level 5 on for every handler whose name begins\n"
               "   with \"Demo\". Each line starts with date, time, thread id, handler and level.\n";
  runWith({"TRACE=Demo*/5"});

  std::cout << "3. TRACE names one handler exactly and its levels (here 1 and 9); TRACEFORMAT\n"
               "   picks the prefix fields, always shown in their fixed order.\n";
  runWith({"TRACE=Demo.Net/19", "TRACEFORMAT=level,handle,line-info"});

  std::cout << "4. TRACEFORMAT=help lists the fields and keeps the default format.\n";
  runWith({"TRACEFORMAT=help", "TRACE=Demo.Disk/8"});

  char path[] = "/tmp/trace_channels-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) {
    std::perror("mkstemp");
    return 1;
  }
  close(fd);
  std::cout << "5. TRACEFILE sends the lines to a file instead of standard error; \"*\" is\n"
               "   every level. Nothing appears on the terminal...\n";
  runWith({"TRACE=Demo*/*", std::string("TRACEFILE=") + path, "TRACEFORMAT=handle,level"});
  std::cout << "   ...and the file " << path << " holds:\n";
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) std::cout << "   | " << line << '\n';
  std::remove(path);
  return 0;
}
