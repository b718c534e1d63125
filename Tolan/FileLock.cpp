#include "Tolan/FileLock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Tolan/Assert.h"
#include "Tolan/Errno.h"
#include "Tolan/UtilFile.h"

namespace Tolan {

#ifdef F_OFD_SETLK
static_assert(F_OFD_SETLK == cmd_F_OFD_SETLK() && F_OFD_GETLK == cmd_F_OFD_GETLK(), "OFD lock commands");
#endif

namespace {

// Whole file, from the start to beyond any end. l_pid must be 0 for OFD locks.
struct flock wholeFile(short type) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 0;
  fl.l_pid = 0;
  return fl;
}

}  // namespace

FileLock::FileLock(Platform::DebugHandler& handler, const String& dir, const String& fileName)
    : Debuggable(handler), dir_(dir), file_(fmt::format("{}/{}", dir, fileName)) {
  TOLAN_ASSERT_C(fileName.find('/') == String::npos, FileLock, "unexpected '/' in filename: {}", fileName);
}

FileLock::~FileLock() {
  TOLAN_TRACE_C(*this, 5, FileLock, "file:{}", file_);
  if (fd_ != -1) closeFd();
}

bool FileLock::lock(bool allowReentry) {
  TOLAN_TRACE_C(*this, 5, FileLock, "file:{}", file_);
  const pid_t pid = ::getpid();
  if (allowReentry && fd_ != -1 && ownerPid_ == pid) {
    TOLAN_TRACE_C(*this, 5, FileLock, "re-entry held by pid:{} on file:{}", ownerPid_, file_);
    return true;
  }

  const int mk = Util::mkpath(dir_, 0777);
  TOLAN_ASSERT_C(mk == 0 || mk == EEXIST, FileLock, "unexpected mkpath() error {}: {}", dir_, Tolan::strerror(mk));

  // Every user of the lock must be able to open the file, whoever made it,
  // so the one who creates it sets 0666 explicitly. The umask is never
  // touched: it belongs to the whole process, and files other threads create
  // meanwhile would get open permissions.
  int fd = ::open(file_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd >= 0) {
    (void)::fchmod(fd, 0666);
  } else if (errno == EEXIST) {
    fd = ::open(file_.c_str(), O_RDWR | O_CLOEXEC);
  }
  const int openErr = errno;
  if (fd < 0) {
    TOLAN_TRACE_C(*this, 1, FileLock, "error: could not open lock file:{} {}", file_, Tolan::strerror(openErr));
    return false;
  }

  struct flock fl = wholeFile(F_WRLCK);
  if (::fcntl(fd, cmd_F_OFD_SETLK(), &fl) != 0) {
    const int err = errno;
    if (err == EAGAIN) {
      TOLAN_TRACE_C(*this, 1, FileLock, "error: conflicting lock held on file:{}", file_);
      ::close(fd);
      return false;
    }
    ::close(fd);
    TOLAN_FAIL_C(FileLock, "unexpected error: {} file:{}", Tolan::strerror(err), file_);
  }

  // Already set by O_CLOEXEC (which leaves no window for another thread's
  // fork and exec); set again in case the open flag was ignored.
  if (::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
    const int err = errno;
    ::close(fd);
    TOLAN_FAIL_C(FileLock, "unexpected error:{} file:{}", Tolan::strerror(err), file_);
  }

  TOLAN_TRACE_C(*this, 5, FileLock, "acquired lock on file:{}", file_);
  // Only reachable with fd_ open if its lock vanished (the descriptor was
  // closed behind our back); do not leak it.
  if (fd_ != -1) ::close(fd_);
  fd_ = fd;
  ownerPid_ = pid;
  return true;
}

void FileLock::release() {
  TOLAN_TRACE_C(*this, 5, FileLock, "file:{}", file_);
  TOLAN_ASSERT_C(fd_ != -1, FileLock, "attempting to release a lock that is not currently held. File:{}", file_);
  const pid_t pid = ::getpid();
  TOLAN_ASSERT_C(pid == ownerPid_, FileLock, "called from child process:{} of owner pid:{}", pid, ownerPid_);
  struct flock fl = wholeFile(F_UNLCK);
  if (::fcntl(fd_, cmd_F_OFD_SETLK(), &fl) != 0) {
    TOLAN_FAIL_C(FileLock, "unexpected error: {} file:{} fd:{}", Tolan::strerror(errno), file_, fd_);
  }
  TOLAN_TRACE_C(*this, 5, FileLock, "released lock on file:{}", file_);
  closeFd();
}

void FileLock::closeFd() {
  TOLAN_TRACE_C(*this, 5, FileLock, "file:{} fd:{}", file_, fd_);
  if (fd_ == -1) return;
  if (::close(fd_) == 0) {
    TOLAN_TRACE_C(*this, 5, FileLock, "closed fd for file:{}", file_);
  } else {
    TOLAN_TRACE_C(*this, 1, FileLock, "error: {} file:{} fd:{}", Tolan::strerror(errno), file_, fd_);
  }
  fd_ = -1;
}

}  // namespace Tolan
