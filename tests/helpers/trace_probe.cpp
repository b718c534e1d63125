// trace_probe - a program for tests of the trace channels from outside.
//
// Each argument is one command, run in order; words within a command are
// separated by single blanks, and the last field takes the rest of the text:
//
//   handler NAME            get a handler for NAME, keep it, print "handler <display string>"
//   trace NAME LEVEL TEXT   trace TEXT at LEVEL on a (kept) handler for NAME
//   trace-c NAME LEVEL TEXT the same with the class name "Probe"
//   trace-long NAME LEVEL N trace a message of N characters: "<N>:" then a pattern
//   threads T N NAME        T threads each trace N numbered lines at level 1 on NAME
//   setup [SPEC]            setupTolanDebug(SPEC), or of null without SPEC
//   clear SPEC              clearTolanDebug(SPEC)
//   format [SPEC]           setTraceFormat(SPEC), or of null without SPEC
//   setenv VAR VALUE / unsetenv VAR
//   dump-map                dumpTolanDebugMap()
//   print-format            printAllTraceFormat()
//   default-handle          print "default <display string of TOLAN_DEFAULT_HANDLE>"
//
// Handlers obtained by name are kept for the whole run (the first per name
// is reused), so later set/clear commands act on them.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Tolan/Debug.h"

namespace {

using Tolan::Platform::DebugHandler;

std::map<std::string, std::shared_ptr<DebugHandler>> gHandlers;

DebugHandler& handlerFor(const std::string& name) {
  auto& h = gHandlers[name];
  if (!h) h = Tolan::Platform::getDebugHandler(name);
  return *h;
}

std::string display(const DebugHandler& h) {
  return static_cast<const Tolan::Orn::DebugHandler&>(h).displayString();
}

// Splits off the first `n` blank-separated words; the remainder is the last element.
std::vector<std::string> split(const std::string& command, size_t n) {
  std::vector<std::string> parts;
  size_t begin = 0;
  while (parts.size() < n) {
    const size_t blank = command.find(' ', begin);
    if (blank == std::string::npos) break;
    parts.push_back(command.substr(begin, blank - begin));
    begin = blank + 1;
  }
  parts.push_back(begin <= command.size() ? command.substr(begin) : std::string());
  return parts;
}

struct Probe {};

bool run(const std::string& command) {
  const auto word = split(command, 1);
  const std::string& verb = word[0];
  const bool hasRest = word.size() > 1;
  const std::string rest = hasRest ? word[1] : std::string();

  if (verb == "handler") {
    std::cout << "handler " << display(handlerFor(rest)) << std::endl;
  } else if (verb == "trace" || verb == "trace-c") {
    const auto p = split(rest, 2);
    if (p.size() != 3) return false;
    DebugHandler& h = handlerFor(p[0]);
    const unsigned level = static_cast<unsigned>(std::stoul(p[1]));
    if (verb == "trace") {
      TOLAN_TRACE(h, level, "{}", p[2]);
    } else {
      TOLAN_TRACE_C(h, level, Probe, "{}", p[2]);
    }
  } else if (verb == "trace-long") {
    const auto p = split(rest, 2);
    if (p.size() != 3) return false;
    const size_t n = std::stoul(p[2]);
    std::string text = std::to_string(n) + ":";
    for (size_t i = 0; text.size() < n; ++i) text += static_cast<char>('a' + i % 26);
    text.resize(n);
    TOLAN_TRACE(handlerFor(p[0]), static_cast<unsigned>(std::stoul(p[1])), "{}", text);
  } else if (verb == "threads") {
    const auto p = split(rest, 2);
    if (p.size() != 3) return false;
    const int threads = std::stoi(p[0]);
    const int lines = std::stoi(p[1]);
    DebugHandler& h = handlerFor(p[2]);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
      pool.emplace_back([&h, t, lines] {
        // A long, checkable body, so that torn or interleaved lines show.
        const std::string filler(120, static_cast<char>('A' + t));
        for (int i = 0; i < lines; ++i) TOLAN_TRACE(h, 1, "line t={} i={} {} end", t, i, filler);
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
    const auto p = split(rest, 1);
    setenv(p[0].c_str(), p.size() > 1 ? p[1].c_str() : "", 1);
  } else if (verb == "unsetenv") {
    unsetenv(rest.c_str());
  } else if (verb == "dump-map") {
    Tolan::Platform::dumpTolanDebugMap();
  } else if (verb == "print-format") {
    Tolan::Platform::printAllTraceFormat();
  } else if (verb == "default-handle") {
    std::cout << "default " << display(*TOLAN_DEFAULT_HANDLE) << std::endl;
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
