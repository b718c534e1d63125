// FileLock.h - an exclusive advisory lock on a named file.
//
// FileLock keeps two processes, or two independent parts of one process,
// from both holding "<dir>/<fileName>". It uses Linux open-file-description
// locks: the lock belongs to the open file, not to the process, so
//   - closing the descriptor (release(), closeFd(), destruction, process
//     exit) drops it and another process can take it at once;
//   - two FileLock objects for one path conflict even inside one process;
//   - a child made by fork() shares the description and must not release it:
//     release() from a child is a library assertion.
// lock() never waits. The lock file is created (mode 0666, whatever the
// umask) together with its directory and is never deleted; the descriptor is
// close-on-exec, so programs started by the holder do not inherit the lock.
//
// A FileLock is used by one thread at a time. Each operation is a handful of
// system calls. Trace goes to the handler given at construction: level 1 for
// expected failures (contention, unopenable file), level 5 for every step.
#pragma once

#include <sys/types.h>

#include <string>

#include "Tolan/Common.h"
#include "Tolan/Debug.h"

namespace Tolan {

// The fcntl command numbers of open-file-description locks, for callers
// whose C library headers predate them.
constexpr int cmd_F_OFD_GETLK() { return 36; }
constexpr int cmd_F_OFD_SETLK() { return 37; }

class TOLAN_EXPORT FileLock : public Debuggable {
 public:
  // `handler` must be owned by a shared pointer (as getDebugHandler's are).
  // A `fileName` containing "/" is a library assertion.
  FileLock(Platform::DebugHandler& handler, const String& dir, const String& fileName);
  // Closes the descriptor if open, dropping the lock.
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Tries once to take the lock; true when it is held. With `allowReentry`,
  // an object that already holds it in this process returns true without a
  // system call. Without it, a second lock() on a holding object opens a
  // second description, which conflicts with the first: false, the first
  // stays held. Contention and an unopenable file return false; a directory
  // that cannot be made or an unexpected fcntl error is a library assertion.
  bool lock(bool allowReentry);

  // Unlocks and closes. Releasing a lock that is not held, or releasing from
  // a process other than the one that locked (a forked child), is a library
  // assertion; in the child case the parent's lock stays intact.
  void release();

  // Closes the descriptor (dropping the lock) without release()'s checks.
  // A child that inherited the object uses this to let go of its copy of the
  // descriptor; the parent's lock is unaffected as long as the parent keeps
  // its own descriptor open.
  void closeFd();

  // "<dir>/<fileName>".
  const String& file() const noexcept { return file_; }
  // True while this object holds an open lock descriptor.
  bool held() const noexcept { return fd_ >= 0; }

 private:
  String dir_;
  String file_;
  int fd_ = -1;
  pid_t ownerPid_ = 0;
};

}  // namespace Tolan
