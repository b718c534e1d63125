#include "Tolan/UtilFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "Tolan/Debug.h"
#include "Tolan/Errno.h"

namespace Tolan {
namespace Util {
namespace {

// Makes one directory with exactly `mode` (mkdir applies the umask, so the
// mode is set again); 0, EEXIST (an existing directory) or an error number.
int makeOne(const String& dir, mode_t mode) {
  if (::mkdir(dir.c_str(), mode) == 0) return ::chmod(dir.c_str(), mode) == 0 ? 0 : errno;
  const int err = errno;
  if (err != EEXIST) return err;
  struct stat st {};
  if (::stat(dir.c_str(), &st) != 0) return errno;
  return S_ISDIR(st.st_mode) ? EEXIST : ENOTDIR;
}

}  // namespace

int mkpath(const String& path, mode_t mode) {
  String dir = path;
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  if (dir.empty()) return EINVAL;
  // Parents first, left to right; each may exist already. Walking from the
  // root (rather than from the leaf upwards) keeps this simple and the
  // number of system calls is bounded by the depth anyway.
  for (size_t slash = dir.find('/', 1); slash != String::npos; slash = dir.find('/', slash + 1)) {
    if (dir[slash - 1] == '/') continue;  // "a//b"
    const int rc = makeOne(dir.substr(0, slash), mode);
    if (rc != 0 && rc != EEXIST) return rc;
  }
  return makeOne(dir, mode);
}

bool readFile(Platform::DebugHandler& handler, const String& path, String& contents) {
  contents.clear();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int err = 0;
  if (fd < 0) {
    err = errno;
  } else {
    char buffer[4096];
    for (;;) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n > 0) {
        contents.append(buffer, static_cast<size_t>(n));
      } else if (n == 0) {
        break;
      } else if (errno != EINTR) {
        err = errno;
        contents.clear();
        break;
      }
    }
    ::close(fd);
  }
  if (err != 0) {
    TOLAN_TRACE_C(handler, 1, Tolan::Util, "could not read file:{} error:{}", path, Tolan::strerror(err));
    return false;
  }
  return true;
}

bool touch(const String& path, mode_t mode) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY, mode);
  if (fd < 0) return false;
  const bool ok = ::futimens(fd, nullptr) == 0;
  const int err = errno;
  ::close(fd);
  errno = err;
  return ok;
}

bool removeFile(const String& path) { return ::unlink(path.c_str()) == 0 || errno == ENOENT; }

std::optional<uint64_t> fileSize(const String& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return static_cast<uint64_t>(st.st_size);
}

String getCwd(Platform::DebugHandler& handler) {
  char buffer[PATH_MAX];
  if (::getcwd(buffer, sizeof buffer) == nullptr) {
    TOLAN_TRACE_C(handler, 1, Tolan::Util, "getcwd() failed:{}", Tolan::strerror(errno));
    return String();
  }
  return String(buffer);
}

}  // namespace Util
}  // namespace Tolan
