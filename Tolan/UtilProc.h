// UtilProc.h - questions about processes, answered from /proc.
//
// The name, start time and command line of a process, which process owns a
// named Unix socket or holds a lock file, and the core-dump filter of this
// process. Every function traces on the handler it is given (class name
// "Tolan::Util"): a process that has gone away or a file that cannot be read
// is an ordinary outcome, traced and reported through the result; only
// output of the kernel that cannot be parsed is a library assertion.
//
// They keep no state and may be called from any thread. readSocketPid and
// readLockPid walk every process's descriptors: milliseconds to tens of
// milliseconds on a busy machine, so keep them off hot paths.
#pragma once

#include <sys/types.h>

#include <string>

#include "Tolan/Common.h"

namespace Tolan {
namespace Platform {
class DebugHandler;
}

namespace Util {

// What readSocketPid and readLockPid return when nobody is found. Zero rather
// than -1, so that a careless kill(result, ...) can never reach every process.
constexpr pid_t kNoPid = 0;

// The process name (the "Name:" line of /proc/<pid>/status, at most 15
// characters, as ps shows it). Empty when the process cannot be read or the
// line is missing or empty; those are traced at level 1, except that an
// unreadable status file (the process has exited) is traced only when
// `traceMissing` is true, so that pollers of short-lived processes stay quiet.
TOLAN_EXPORT String readProcTitle(Platform::DebugHandler& handler, pid_t pid, bool traceMissing);
TOLAN_EXPORT String readProcTitle(pid_t pid, bool traceMissing);

// The start time of the process, in clock ticks since boot, as the decimal
// text of field 22 of /proc/<pid>/stat (stable for the life of the process,
// so (pid, start time) names a process even after the pid is reused). Empty
// when the file cannot be read (traced at level 5). A stat line that cannot
// be parsed is a library assertion.
TOLAN_EXPORT String readProcStartTime(Platform::DebugHandler& handler, pid_t pid);
TOLAN_EXPORT String readProcStartTime(pid_t pid);

// The raw contents of /proc/<pid>/cmdline: the arguments, each followed by
// a NUL byte. Empty when unreadable (traced at level 1) and for kernel threads.
TOLAN_EXPORT String readPidCmdline(Platform::DebugHandler& handler, pid_t pid);

// The process that has the Unix socket bound to `socketName` open (the path
// as listed in /proc/net/unix; abstract names start with "@"). kNoPid when no
// such socket exists in this network namespace or no visible process holds it.
TOLAN_EXPORT pid_t readSocketPid(Platform::DebugHandler& handler, const String& socketName);

// The process holding an open-file-description or POSIX lock on the file
// `lockName` (as given to FileLock: "<dir>/<file>"). kNoPid when none does.
TOLAN_EXPORT pid_t readLockPid(Platform::DebugHandler& handler, const String& lockName);

// Sets bit 3 (file-backed shared mappings) of this process's
// /proc/<pid>/coredump_filter so that core dumps include them. Returns false
// (traced at level 1) when the file cannot be opened; an unreadable mask is a
// library assertion.
TOLAN_EXPORT bool includeShmemInCore();

}  // namespace Util

// Seconds the library's wait functions wait by default: WAITFOR_DEFAULT when
// set to a non-negative number (read at every call), else 10. An unparsable
// value is reported on standard error and the default used.
TOLAN_EXPORT double waitForDefaultTimeout();

// The built-in default of waitForDefaultTimeout(), in seconds.
constexpr double kWaitForDefaultSeconds = 10.0;
}  // namespace Tolan
