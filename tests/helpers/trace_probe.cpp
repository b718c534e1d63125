// trace_probe - drives the trace channels from a child process whose
// environment the test chose. Each argument is one command, run in order:
//
//   handler NAME            keep a handler for NAME, print "handler <display string>"
//   trace NAME LEVEL TEXT   trace TEXT on the kept handler for NAME
//   threads T N NAME        T threads each trace N numbered lines at level 1
//   setup [SPEC] / format [SPEC]   setupTolanDebug / setTraceFormat (null without SPEC)
//   clear SPEC              clearTolanDebug(SPEC)
//   setenv VAR VALUE / unsetenv VAR
//   dump-map / print-format / default-handle
//   exec SHELLCOMMAND       replace the probe with sh -c SHELLCOMMAND
//   stderr-to-dead-pipe     standard error becomes a pipe nobody reads
//   fifo-reader-gone PATH   TRACEFILE=PATH, a FIFO whose only reader leaves after setup
//   fsize BYTES|unlimited   the soft RLIMIT_FSIZE
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Tolan/Debug.h"
#include "Tolan/DebugOutput.h"

namespace {

using Tolan::Platform::DebugHandler;

// Kept for the whole run, so later set/clear commands act on them.
std::map<std::string, std::shared_ptr<DebugHandler>> gHandlers;

DebugHandler& handlerFor(const std::string& name) {
  auto& h = gHandlers[name];
  if (!h) h = Tolan::Platform::getDebugHandler(name);
  return *h;
}

std::string display(const DebugHandler& h) { return static_cast<const Tolan::Orn::DebugHandler&>(h).displayString(); }

bool run(const std::string& command) {
  const size_t blank = command.find(' ');
  const std::string verb = command.substr(0, blank);
  const bool hasRest = blank != std::string::npos;
  const std::string rest = hasRest ? command.substr(blank + 1) : std::string();
  std::istringstream in(rest);
  std::string name, text;
  unsigned level = 0, threads = 0, lines = 0;

  if (verb == "handler") {
    std::cout << "handler " << display(handlerFor(rest)) << std::endl;
  } else if (verb == "trace") {
    if (!(in >> name >> level)) return false;
    std::getline(in >> std::ws, text);
    TOLAN_TRACE(handlerFor(name), level, "{}", text);
  } else if (verb == "threads") {
    if (!(in >> threads >> lines >> name)) return false;
    DebugHandler& h = handlerFor(name);
    std::vector<std::thread> pool;
    for (unsigned t = 0; t < threads; ++t) {
      pool.emplace_back([&h, t, lines] {
        // A long, checkable body, so that torn or interleaved lines show.
        const std::string filler(120, static_cast<char>('A' + t));
        for (unsigned i = 0; i < lines; ++i) TOLAN_TRACE(h, 1, "line t={} i={} {} end", t, i, filler);
      });
    }
    for (auto& th : pool) th.join();
  } else if (verb == "setup") {
    Tolan::Platform::setupTolanDebug(hasRest ? rest.c_str() : nullptr);
  } else if (verb == "clear") {
    Tolan::Platform::clearTolanDebug(rest.c_str());
  } else if (verb == "format") {
    Tolan::Platform::setTraceFormat(hasRest ? rest.c_str() : nullptr);
  } else if (verb == "setenv") {
    in >> name;
    std::getline(in >> std::ws, text);
    setenv(name.c_str(), text.c_str(), 1);
  } else if (verb == "unsetenv") {
    unsetenv(rest.c_str());
  } else if (verb == "dump-map") {
    Tolan::Platform::dumpTolanDebugMap();
  } else if (verb == "print-format") {
    Tolan::Platform::printAllTraceFormat();
  } else if (verb == "default-handle") {
    std::cout << "default " << display(*TOLAN_DEFAULT_HANDLE) << std::endl;
  } else if (verb == "exec") {
    execl("/bin/sh", "sh", "-c", rest.c_str(), static_cast<char*>(nullptr));
    return false;
  } else if (verb == "stderr-to-dead-pipe") {
    int p[2];
    if (pipe(p) != 0) return false;
    close(p[0]);
    dup2(p[1], STDERR_FILENO);
    close(p[1]);
  } else if (verb == "fifo-reader-gone") {
    if (mkfifo(rest.c_str(), 0600) != 0) return false;
    const int reader = open(rest.c_str(), O_RDONLY | O_NONBLOCK);
    setenv("TRACEFILE", rest.c_str(), 1);
    Tolan::Platform::setupTolanDebug("");
    close(reader);
  } else if (verb == "fsize") {
    struct rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = rest == "unlimited" ? limit.rlim_max : std::stoul(rest);
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
  } else {
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (!run(argv[i])) {
      std::cerr << "trace_probe: bad command: " << argv[i] << std::endl;
      return 2;
    }
  }
  return 0;
}
