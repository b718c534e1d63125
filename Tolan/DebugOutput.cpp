#include "Tolan/DebugOutput.h"

#include <fmt/format.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "Tolan/Impl/MessageBuffer.h"
#include "Tolan/Impl/TraceOutput.h"
#include "Tolan/Loco.h"
#include "Tolan/Thread.h"

// A line is assembled whole on the caller's stack (prefix, message, newline)
// and written with one call under the global lock, then flushed: one write(2)
// per line, nothing held back in a buffer when the process dies.
//
// The field switches are read without the lock; a concurrent setTraceFormat()
// can at worst give one line a mixture of old and new fields.
//
// The sink is never destroyed: threads may trace while static destructors run,
// and every line is already flushed, so closing the file at exit adds nothing.

namespace Tolan {
namespace {

enum Field : unsigned { kDate, kTime, kPid, kTid, kHandle, kLevel, kLineInfo, kFuncName, kFieldCount };

// Keywords in the fixed order in which their fields are printed.
constexpr const char* kFieldNames[kFieldCount] = {"date",   "time",  "pid",       "tid",
                                                  "handle", "level", "line-info", "func-name"};

std::atomic<bool> gShow[kFieldCount] = {};

bool show(Field f) noexcept { return gShow[f].load(std::memory_order_relaxed); }

struct TraceSink {
  std::ofstream file;
  String name;
};

TraceSink& sink() {
  static NoDestructor<TraceSink> instance;
  return *instance;
}

// Room for a default prefix plus a 500-character message without allocating.
using LineBuffer = fmt::basic_memory_buffer<char, Fmt::kMessageInlineSize + 140>;

// The local date and time of one second, as printed. Converting and
// formatting the time was the largest cost of a line after the write itself,
// yet it changes once a second (localtime_r() reads the time zone only once
// per process); each thread keeps the text of its last second.
struct SecondText {
  time_t second = -1;
  bool valid = false;  // localtime_r() failed: neither field is printed
  size_t dateLength = 0;
  size_t timeLength = 0;
  char date[32] = {};  // "%Y-%m-%d "
  char time[32] = {};  // "%H:%M:%S"
};
thread_local SecondText tlsSecond;

const SecondText& secondText(time_t second) {
  SecondText& t = tlsSecond;
  if (t.second != second) {
    struct tm local;
    t.second = second;
    t.valid = localtime_r(&second, &local) != nullptr;
    if (t.valid) {
      t.dateLength = strftime(t.date, sizeof t.date, "%Y-%m-%d ", &local);
      t.timeLength = strftime(t.time, sizeof t.time, "%H:%M:%S", &local);
    }
  }
  return t;
}

void appendNumber(LineBuffer& out, long long n) {
  const fmt::format_int text(n);
  out.append(text.data(), text.data() + text.size());
  out.push_back(' ');
}

void appendPrefix(LineBuffer& out, unsigned level, std::string_view handleName, const char* file, const char* func,
                  int line) {
  if (show(kDate) || show(kTime)) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    const SecondText& t = secondText(now.tv_sec);
    if (t.valid) {
      if (show(kDate)) out.append(t.date, t.date + t.dateLength);
      if (show(kTime)) {
        out.append(t.time, t.time + t.timeLength);
        // Microseconds as a plain number, no zero padding: 12:00:00.42 is 42 us.
        out.push_back('.');
        appendNumber(out, now.tv_usec);
      }
    }
  }
  if (show(kPid)) appendNumber(out, getpid());
  if (show(kTid)) appendNumber(out, cachedGettid());
  if (show(kHandle)) {
    out.append(handleName.data(), handleName.data() + handleName.size());
    out.push_back(' ');
  }
  if (show(kLevel)) appendNumber(out, level);
  if (show(kLineInfo)) {
    const char* base = file ? std::strrchr(file, '/') : nullptr;
    fmt::format_to(fmt::appender(out), "{}:{} ", base ? base + 1 : (file ? file : ""), line);
  }
  if (show(kFuncName)) fmt::format_to(fmt::appender(out), "{} ", func ? func : "");
}

}  // namespace

namespace Impl {

void writeTraceLine(const char* msg, size_t len, unsigned level, std::string_view handleName, const char* file,
                    const char* func, int line) {
  LineBuffer out;
  appendPrefix(out, level, handleName, file, func, line);
  out.append(msg, msg + len);
  out.push_back('\n');

  Platform::LocoGuard guard;
  TraceSink& s = sink();
  std::ostream& os = s.file.is_open() ? static_cast<std::ostream&>(s.file) : std::cerr;
  os.write(out.data(), static_cast<std::streamsize>(out.size()));
  os.flush();
}

}  // namespace Impl

namespace Platform {

void setTraceFormat(const char* spec) {
  if (!spec) spec = std::getenv("TRACEFORMAT");
  if (!spec) return;
  if (std::strcmp(spec, "help") == 0) {
    std::cerr << "Usage:\n"
              << "  TRACEFORMAT=field,field,...\n"
              << "List of possible fields:\n";
    for (unsigned f = 0; f + 1 < kFieldCount; ++f) std::cerr << "  " << kFieldNames[f] << "\n";
    std::cerr << "  " << kFieldNames[kFuncName] << std::endl;
    return;
  }

  bool wanted[kFieldCount] = {};
  // Empty items are skipped; the first unknown one leaves the format as it was.
  const bool valid = Impl::forEachCommaItem(spec, [&wanted](std::string_view item) {
    if (item.empty()) return true;
    unsigned f = 0;
    while (f < kFieldCount && item != kFieldNames[f]) ++f;
    if (f == kFieldCount) {
      std::cerr << item << " is an invalid field in TRACEFORMAT\n"
                << "Set TRACEFORMAT=help for more information." << std::endl;
      return false;
    }
    wanted[f] = true;
    return true;
  });
  if (!valid) return;

  LocoGuard guard;
  for (unsigned f = 0; f < kFieldCount; ++f) gShow[f].store(wanted[f], std::memory_order_relaxed);
}

void clearTraceFormat() {
  LocoGuard guard;
  for (auto& s : gShow) s.store(false, std::memory_order_relaxed);
}

void printAllTraceFormat() {
  String line;
  for (unsigned f = 0; f < kFieldCount; ++f) {
    if (f) line += ' ';
    line += show(static_cast<Field>(f)) ? '1' : '0';
  }
  std::cout << line << std::endl;
}

}  // namespace Platform

namespace Impl {

void reopenTraceFile() {
  Platform::LocoGuard guard;
  TraceSink& s = sink();
  const char* name = std::getenv("TRACEFILE");
  if (name && s.name == name) {
    if (s.file.is_open()) return;
  } else {
    if (s.file.is_open()) s.file.close();
    s.name.clear();
    if (!name) return;
  }
  s.name = name;
  s.file.clear();
  s.file.open(name, std::ios::out | std::ios::trunc);
  if (!s.file.is_open()) {
    std::cerr << "Error opening TRACEFILE=" << name << "\n"
              << "Defaulting to std::cerr for trace output." << std::endl;
    s.name.clear();
  }
}

}  // namespace Impl
}  // namespace Tolan
