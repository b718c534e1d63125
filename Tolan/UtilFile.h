// UtilFile.h - small file and path helpers used across the library.
//
// Thin, synchronous wrappers over the system calls, meant for configuration,
// lock and /proc files: small files read whole, directories made on demand.
// They never throw for ordinary failures (missing file, no permission); they
// report them through the result and, where they take a handler, trace them
// at level 1 (class name "Tolan::Util"). Any thread may call them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "Tolan/Common.h"

namespace Tolan {
namespace Platform {
class DebugHandler;
}

namespace Util {

// Creates every missing directory of `path` (absolute or relative; a trailing
// "/" is ignored) with exactly `mode`, whatever the umask (directories that
// already exist are left as they are). Returns 0 when it created the
// last directory, EEXIST when that directory already existed, and otherwise
// the errno of the step that failed (ENOTDIR when a component, or the path
// itself, exists but is not a directory; EINVAL for an empty path).
TOLAN_EXPORT int mkpath(const String& path, mode_t mode);

// Reads the whole file into `contents` (replacing it), looping until end of
// file, so that /proc files, which report a size of 0, are read completely.
// On failure traces "could not read file:{} error:{}" at level 1, leaves
// `contents` empty and returns false.
TOLAN_EXPORT bool readFile(Platform::DebugHandler& handler, const String& path, String& contents);

// Creates `path` with `mode` (less the umask) if missing, then sets its
// modification and access times to now. Returns false (errno set) on failure.
TOLAN_EXPORT bool touch(const String& path, mode_t mode = 0666);

// Removes a file (not a directory). A file that does not exist counts as
// removed. Returns false (errno set) on any other failure.
TOLAN_EXPORT bool removeFile(const String& path);

// Size in bytes of the file at `path` (symbolic links followed); nullopt
// (errno set) when it cannot be examined.
TOLAN_EXPORT std::optional<uint64_t> fileSize(const String& path);

// The current directory. On failure traces "getcwd() failed:{}" at level 1
// and returns an empty string.
TOLAN_EXPORT String getCwd(Platform::DebugHandler& handler);

}  // namespace Util
}  // namespace Tolan
