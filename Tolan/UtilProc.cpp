#include "Tolan/UtilProc.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/DirNode.h"
#include "Tolan/Errno.h"
#include "Tolan/Exception.h"
#include "Tolan/Impl/ProcParsers.h"
#include "Tolan/UtilFile.h"

namespace Tolan {
namespace Util {
namespace {

// Index of the start time among the blank-separated fields that follow the
// command name: field 22 of the line, where the state (field 3) is index 0.
constexpr size_t kStartTimeFieldPos = 19;

bool toU32(const String& text, uint32_t& value) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long v = std::strtoul(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFul) return false;
  value = static_cast<uint32_t>(v);
  return true;
}

// Splits at runs of blanks.
std::vector<String> fields(const String& line) {
  std::vector<String> out;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    const size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
    if (i > start) out.emplace_back(line, start, i - start);
  }
  return out;
}

// Calls `visit(pid, fdPath, fdName)` for each descriptor of every process
// under /proc until it returns true; returns that pid, or kNoPid.
template <typename Visit>
pid_t forEachProcessFd(Platform::DebugHandler& handler, Visit visit) {
  // The caller's handler need not be owned by a shared pointer.
  const auto tracing = Debuggable::ownerOrBorrowed(handler);
  DirNode proc(tracing, "/proc");
  TOLAN_ASSERT_C(proc.isOpen(), Tolan::Util, "Couldn't open /proc");
  while (struct dirent* entry = proc.readEntry()) {
    const String name(entry->d_name);
    if (name == "self") continue;
    uint32_t pid = 0;
    if (!toU32(name, pid)) {
      TOLAN_TRACE_C(handler, 1, Tolan::Util, "could not convert pid directory string '{}' to U32", name);
      continue;
    }
    const String fdDir = fmt::format("/proc/{}/fd", pid);
    DirNode fds(tracing, fdDir);
    try {
      while (struct dirent* fdEntry = fds.readEntry()) {
        if (fdEntry->d_name[0] == '.') continue;
        if (visit(static_cast<pid_t>(pid), fdDir + "/" + fdEntry->d_name, String(fdEntry->d_name))) {
          return static_cast<pid_t>(pid);
        }
      }
    } catch (const RuntimeException&) {
      // The process exited while we read its descriptors: the kernel ends
      // the listing with an error rather than a short read. Not ours to report.
      TOLAN_TRACE_C(handler, 5, Tolan::Util, "pid:{} went away while its descriptors were read", pid);
    }
  }
  return kNoPid;
}

}  // namespace

String readProcTitle(Platform::DebugHandler& handler, pid_t pid, bool traceMissing) {
  const String file = fmt::format("/proc/{}/status", pid);
  std::ifstream in(file);
  if (!in.is_open()) {
    if (traceMissing) {
      TOLAN_TRACE_C(handler, 1, Tolan::Util, "error - Couldn't access status file:{} stream state:{}", file,
                    static_cast<int>(in.rdstate()));
    }
    return String();
  }
  String line;
  while (std::getline(in, line)) {
    const size_t at = line.find("Name:");
    if (at == String::npos) continue;
    const size_t first = line.find_first_not_of(" \t\n", at + 5);
    String title;
    if (first != String::npos) title = line.substr(first, line.find_last_not_of(" \t\n") + 1 - first);
    if (title.empty()) {
      TOLAN_TRACE_C(handler, 1, Tolan::Util, "error - Read 0 length title for pid:{}", pid);
    } else {
      TOLAN_TRACE_C(handler, 5, Tolan::Util, "success - title:{}", title);
    }
    return title;
  }
  TOLAN_TRACE_C(handler, 1, Tolan::Util, "error - Couldn't find proc title for pid:{} stream state:{}", pid,
                static_cast<int>(in.rdstate()));
  return String();
}

String readProcTitle(pid_t pid, bool traceMissing) { return readProcTitle(*TOLAN_DEFAULT_HANDLE, pid, traceMissing); }

String readProcStartTime(Platform::DebugHandler& handler, pid_t pid) {
  const String file = fmt::format("/proc/{}/stat", pid);
  std::ifstream in(file);
  if (!in.is_open()) {
    TOLAN_TRACE_C(handler, 5, Tolan::Util, "error - Couldn't access stat file:{} stream state:{}", file,
                  static_cast<int>(in.rdstate()));
    return String();
  }
  String line;
  if (!std::getline(in, line)) {
    TOLAN_TRACE_C(handler, 5, Tolan::Util, "failed to read contents of file: {} stream state: {}", file,
                  static_cast<int>(in.rdstate()));
    return String();
  }
  String startTime = Impl::parseProcStartTime(line, file);
  TOLAN_TRACE_C(handler, 5, Tolan::Util, "success - pid:{} start time:{}", pid, startTime);
  return startTime;
}

String readProcStartTime(pid_t pid) { return readProcStartTime(*TOLAN_DEFAULT_HANDLE, pid); }

String readPidCmdline(Platform::DebugHandler& handler, pid_t pid) {
  String contents;
  readFile(handler, fmt::format("/proc/{}/cmdline", pid), contents);
  return contents;
}

pid_t readSocketPid(Platform::DebugHandler& handler, const String& socketName) {
  TOLAN_TRACE_C(handler, 5, Tolan::Util, "searching for socket name:{}", socketName);
  String table;
  readFile(handler, "/proc/net/unix", table);
  // "Num RefCount Protocol Flags Type St Inode Path": the path is the eighth
  // column and may itself hold blanks, so it is the rest of the line.
  String inodeText;
  bool found = false;
  size_t begin = table.find('\n');  // skip the header
  while (!found && begin != String::npos && begin + 1 < table.size()) {
    ++begin;
    size_t eol = table.find('\n', begin);
    const String line = table.substr(begin, eol == String::npos ? String::npos : eol - begin);
    begin = eol;
    size_t pos = 0;
    String columns[7];
    bool complete = true;
    for (String& column : columns) {
      const size_t start = line.find_first_not_of(' ', pos);
      if (start == String::npos) {
        complete = false;
        break;
      }
      pos = line.find(' ', start);
      column = line.substr(start, pos == String::npos ? String::npos : pos - start);
      if (pos == String::npos) pos = line.size();
    }
    if (!complete) continue;
    const size_t pathStart = line.find_first_not_of(' ', pos);
    if (pathStart != String::npos && line.compare(pathStart, String::npos, socketName) == 0) {
      inodeText = columns[6];
      found = true;
    }
  }
  if (!found) {
    TOLAN_TRACE_C(handler, 5, Tolan::Util, "unable to find inode");
    return kNoPid;
  }
  TOLAN_TRACE_C(handler, 5, Tolan::Util, "sockInode:{}", inodeText);
  uint32_t inode = 0;
  if (!toU32(inodeText, inode)) {
    TOLAN_TRACE_C(handler, 1, Tolan::Util, "Couldn't convert inode '{}' to U32.", inodeText);
    return kNoPid;
  }

  TOLAN_TRACE_C(handler, 5, Tolan::Util, "searching for inode: {}", inode);
  const pid_t owner = forEachProcessFd(handler, [&](pid_t, const String& fdPath, const String&) {
    TOLAN_TRACE_C(handler, 9, Tolan::Util, "reading entry {}", fdPath);
    struct stat st {};
    if (::stat(fdPath.c_str(), &st) != 0) {
      TOLAN_TRACE_C(handler, 1, Tolan::Util, "stat failed:{}", Tolan::strerror(errno));
      return false;
    }
    TOLAN_TRACE_C(handler, 9, Tolan::Util, "socket {}'s inode is:{}", fdPath, st.st_ino);
    return S_ISSOCK(st.st_mode) && st.st_ino == inode;
  });
  if (owner != kNoPid) TOLAN_TRACE_C(handler, 5, Tolan::Util, "found owner pid:{}", owner);
  return owner;
}

pid_t readLockPid(Platform::DebugHandler& handler, const String& lockName) {
  TOLAN_TRACE_C(handler, 9, Tolan::Util, "lockName:{}", lockName);
  // The lock file itself, to recognise descriptors opened under another
  // spelling of its path.
  struct stat lockStat {};
  const bool haveLockStat = ::stat(lockName.c_str(), &lockStat) == 0;

  // /proc/locks lists every lock by "major:minor:inode"; when our inode is
  // not among them nobody holds a lock and the walk over all processes is
  // skipped.
  String locks;
  readFile(handler, "/proc/locks", locks);
  if (haveLockStat && !locks.empty()) {
    bool listed = false;
    for (const String& field : fields(locks)) {
      const size_t colon = field.rfind(':');
      if (colon != String::npos && colon > 0 && field.find(':') != colon &&
          field.compare(colon + 1, String::npos, std::to_string(lockStat.st_ino)) == 0) {
        listed = true;
        break;
      }
    }
    if (!listed) return kNoPid;
  }

  const pid_t owner = forEachProcessFd(handler, [&](pid_t pid, const String& fdPath, const String& fdName) {
    struct stat st {};
    if (::stat(fdPath.c_str(), &st) != 0) {
      TOLAN_TRACE_C(handler, 5, Tolan::Util, "stat {} failed:{}", fdPath, Tolan::strerror(errno));
      return false;
    }
    char target[4096];
    const ssize_t n = ::readlink(fdPath.c_str(), target, sizeof target - 1);
    if (n < 0) {
      TOLAN_TRACE_C(handler, 5, Tolan::Util, "readlink of file:{} failed {}", fdPath, Tolan::strerror(errno));
      return false;
    }
    const String file(target, static_cast<size_t>(n));
    TOLAN_TRACE_C(handler, 9, Tolan::Util, "lock {}'s file is:{}", fdPath, file);
    const bool sameFile = file == lockName || (haveLockStat && st.st_dev == lockStat.st_dev &&
                                               st.st_ino == lockStat.st_ino);
    if (!sameFile) return false;
    String info;
    readFile(handler, fmt::format("/proc/{}/fdinfo/{}", pid, fdName), info);
    if (info.find("OFDLCK") != String::npos || info.find("POSIX") != String::npos) return true;
    TOLAN_TRACE_C(handler, 5, Tolan::Util, "pid:{} file:{} is open, but not locked associated with lock", pid,
                  file);
    return false;
  });
  if (owner != kNoPid) TOLAN_TRACE_C(handler, 5, Tolan::Util, "found owner pid:{}", owner);
  return owner;
}

bool includeShmemInCore() {
  const String file = fmt::format("/proc/{}/coredump_filter", ::getpid());
  FILE* f = std::fopen(file.c_str(), "r+");
  if (f == nullptr) {
    TOLAN_TRACE_C(TOLAN_DEFAULT_HANDLE, 1, Tolan::Util, "could not open {}: {}", file, Tolan::strerror(errno));
    return false;
  }
  unsigned mask = 0;
  if (std::fscanf(f, "%x", &mask) != 1) {
    const int err = errno;
    std::fclose(f);
    TOLAN_FAIL_C(Tolan::Util, "fscanf failed for file:{} error:{}", file, Tolan::strerror(err));
  }
  mask |= 8u;  // file-backed shared mappings
  std::rewind(f);
  std::fprintf(f, "%u", mask);
  const bool ok = std::fclose(f) == 0;
  if (!ok) {
    TOLAN_TRACE_C(TOLAN_DEFAULT_HANDLE, 1, Tolan::Util, "could not write {}: {}", file, Tolan::strerror(errno));
  }
  return ok;
}

}  // namespace Util

double waitForDefaultTimeout() {
  const char* env = std::getenv("WAITFOR_DEFAULT");
  if (env == nullptr) return kWaitForDefaultSeconds;
  char* end = nullptr;
  const double value = std::strtod(env, &end);
  if (end == env || *end != '\0' || !std::isfinite(value) || value < 0) {
    std::fprintf(stderr, "Parsing the WAITFOR_DEFAULT env. variable failed\n");
    return kWaitForDefaultSeconds;
  }
  return value;
}

namespace Impl {

String parseProcStartTime(const String& line, const String& file) {
  // The command name may contain blanks and parentheses: only the last ")"
  // ends it.
  const size_t paren = line.rfind(')');
  TOLAN_ASSERT_C(paren != String::npos && paren + 2 < line.size(), Tolan::Util,
                 "input not long enough to contain start time. file: {} line: \"{}\"", file, line);
  const String procStartTime = line.substr(paren + 2);
  size_t tokPos = 0;
  size_t index = 0;
  for (;;) {
    const size_t blank = procStartTime.find(' ', tokPos);
    if (index == Util::kStartTimeFieldPos) {
      return procStartTime.substr(tokPos, blank == String::npos ? String::npos : blank - tokPos);
    }
    if (blank == String::npos) break;
    tokPos = blank + 1;
    ++index;
  }
  TOLAN_FAIL_C(Tolan::Util,
               "Failed to parse start time from file: {} line: \"{}\" procStartTime.size():{} tokPos:{} "
               "startTimeFieldPos:{}",
               file, line, procStartTime.size(), tokPos, Util::kStartTimeFieldPos);
}

}  // namespace Impl
}  // namespace Tolan
