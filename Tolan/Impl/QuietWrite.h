// Impl/QuietWrite.h - a write that cannot kill the process with a signal.
// Internal: shared by the trace sink and the asynchronous JSON writer.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace Tolan {
namespace Impl {

// Holds SIGPIPE and SIGXFSZ back in the calling thread while it writes.
class QuietWrite {
 public:
  QuietWrite() noexcept {
    sigemptyset(&quiet_);
    sigaddset(&quiet_, SIGPIPE);
    sigaddset(&quiet_, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &quiet_, &old_);
    sigpending(&pendingBefore_);
  }
  // Takes off a signal that a failed write raised (EPIPE, EFBIG), unless the
  // caller had it blocked or it was pending already, then restores the mask.
  ~QuietWrite() {
    if (raisedBy_ != 0) {
      sigset_t pending;
      sigpending(&pending);
      if (sigismember(&pending, raisedBy_) && !sigismember(&pendingBefore_, raisedBy_) &&
          !sigismember(&old_, raisedBy_)) {
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, raisedBy_);
        const timespec none{0, 0};
        while (sigtimedwait(&one, nullptr, &none) < 0 && errno == EINTR) {
        }
      }
    }
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
  }
  void failedWith(int error) noexcept { raisedBy_ = error == EPIPE ? SIGPIPE : error == EFBIG ? SIGXFSZ : 0; }

 private:
  sigset_t quiet_, old_, pendingBefore_;
  int raisedBy_ = 0;
};

}  // namespace Impl
}  // namespace Tolan
