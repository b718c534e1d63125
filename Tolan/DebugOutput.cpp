#include "Tolan/DebugOutput.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>

#include "Tolan/Impl/MessageBuffer.h"
#include "Tolan/Impl/QuietWrite.h"
#include "Tolan/Impl/TraceOutput.h"
#include "Tolan/Loco.h"
#include "Tolan/Thread.h"

// A line is assembled whole on the caller's stack (prefix, message, newline)
// and written with write(2) under the global lock: nothing is held back in a
// buffer when the process dies, and lines of different threads never mix.
//
// The field switches are read without the lock; a concurrent setTraceFormat()
// can at worst give one line a mixture of old and new fields.
//
// The sink is never destroyed: threads may trace while static destructors run.
//
// What a trace line must never do to the process:
// - block it before main(): the file is opened non-blocking, so a FIFO
//   without a reader fails to open (ENXIO) instead of waiting for one;
// - leak into programs it execs: the file is opened close-on-exec;
// - kill it: a reader that went away (SIGPIPE) or a file-size limit
//   (SIGXFSZ) would end the process by default. Both signals are blocked in
//   the writing thread for the length of a write to a sink that can raise
//   them (standard error, a pipe or socket, a regular file under a size
//   limit), and a signal that the write itself raised is taken off again
//   before they are unblocked; the process's dispositions are never touched,
//   and a signal that was already pending stays pending. A size limit set
//   after the trace file was opened counts from the next setupTolanDebug();
// - lose lines silently: a write to the trace file that fails (full disk,
//   /dev/full, the size limit, a reader gone) is reported once on standard
//   error, and that line and all later ones go to standard error until the
//   next setupTolanDebug() reopens the file (appending, so that what was
//   written before the failure is kept). A line is never torn between the
//   two: a partial line left in a regular file is cut off again.

namespace Tolan {
namespace {

enum Field : unsigned { kDate, kTime, kPid, kTid, kHandle, kLevel, kLineInfo, kFuncName, kFieldCount };

// Keywords in the fixed order in which their fields are printed.
constexpr const char* kFieldNames[kFieldCount] = {"date",   "time",  "pid",       "tid",
                                                  "handle", "level", "line-info", "func-name"};

std::atomic<bool> gShow[kFieldCount] = {};

bool show(Field f) noexcept { return gShow[f].load(std::memory_order_relaxed); }

struct TraceSink {
  int fd = -1;          // the trace file; -1 writes to standard error
  String name;          // TRACEFILE the file was opened from
  bool failed = false;  // a write to the file failed: name kept, fd closed
  bool quiet = false;   // writes to fd can raise SIGPIPE or SIGXFSZ
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
    // localtime_r holds glibc's time-zone lock, which fork() does not reset.
    // Under the global lock, which the fork handler takes before fork, no
    // thread is inside it when a child is made. Once a second per thread.
    Platform::LocoGuard guard;
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

// Writes all of [p, p + n) to fd; 0 on success, else the error. A partial
// line left in a regular file is cut off, so that no line is torn. Holding
// the signals costs three system calls besides the write, so it is done only
// for sinks that can raise them (`quiet`).
int writeWhole(int fd, const char* p, size_t n, bool quiet) noexcept {
  std::optional<Impl::QuietWrite> held;
  if (quiet) held.emplace();
  size_t done = 0;
  while (done < n) {
    const ssize_t w = ::write(fd, p + done, n - done);
    if (w > 0) {
      done += static_cast<size_t>(w);
    } else if (w < 0 && errno == EINTR) {
      continue;
    } else {
      const int error = w < 0 ? errno : EIO;
      if (held) held->failedWith(error);
      const off_t end = done > 0 ? ::lseek(fd, 0, SEEK_CUR) : -1;
      if (end >= static_cast<off_t>(done)) (void)::ftruncate(fd, end - static_cast<off_t>(done));
      return error;
    }
  }
  return 0;
}

String errorText(int error) {
  char buffer[256];
  return ::strerror_r(error, buffer, sizeof buffer);  // the GNU form returns the text
}

// Standard error is the sink of last resort: its own failures are ignored. It
// may be a pipe or a socket (a service's journal) and the program may
// redirect it at any time, so its writes always hold the signals.
void writeStderr(const char* p, size_t n) noexcept { (void)writeWhole(STDERR_FILENO, p, n, true); }
void writeStderr(const std::string& text) noexcept { writeStderr(text.data(), text.size()); }

// Whether writes to the trace file can raise a signal: SIGPIPE from a pipe,
// FIFO or socket, SIGXFSZ from a regular file under a finite size limit.
// Decided when the file is opened and again at every setupTolanDebug(), so a
// size limit lowered later is honoured from the next setup on.
bool canRaiseSignals(int fd) noexcept {
  struct stat st;
  if (::fstat(fd, &st) != 0) return true;
  if (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)) return true;
  if (!S_ISREG(st.st_mode)) return false;
  struct rlimit limit;
  return ::getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur != RLIM_INFINITY;
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
  if (s.fd >= 0) {
    const int error = writeWhole(s.fd, out.data(), out.size(), s.quiet);
    if (error == 0) return;
    ::close(s.fd);
    s.fd = -1;
    s.failed = true;
    writeStderr("Error writing TRACEFILE=" + s.name + ": " + errorText(error) +
                "\nDefaulting to std::cerr for trace output.\n");
  }
  writeStderr(out.data(), out.size());
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
  bool append = false;
  if (name && s.name == name) {
    if (s.fd >= 0) {
      s.quiet = canRaiseSignals(s.fd);
      return;
    }
    append = s.failed;  // recovering after a failed write: keep what was written
  } else {
    if (s.fd >= 0) ::close(s.fd);
    s.fd = -1;
    s.name.clear();
    s.failed = false;
    if (!name) return;
  }
  s.name = name;
  s.failed = false;
  const int fd =
      ::open(name, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | (append ? O_APPEND : O_TRUNC), 0666);
  if (fd >= 0) {
    // Non-blocking only for the open; a slow reader slows tracing as it would on stderr.
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) (void)::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    s.fd = fd;
    s.quiet = canRaiseSignals(fd);
    return;
  }
  writeStderr(String("Error opening TRACEFILE=") + name + "\nDefaulting to std::cerr for trace output.\n");
  s.name.clear();
}

}  // namespace Impl
}  // namespace Tolan
