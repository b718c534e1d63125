// event_loop: timeouts, a deferred callback and a pipe watch on one thread's
// event loop; then the same program under fast-forward, where a minute of
// timers passes in a moment of real time.
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "Tolan/Platform.h"

using namespace Tolan::Platform;

namespace {

// Ticks `ticks` times, `period` apart; each tick asks for a deferred callback,
// which writes to a pipe, whose reader counts the bytes.
class Program : public TimeoutHandler, public CallbackHandler, public FdEventHandler {
 public:
  Program(double period, int ticks) : period_(period), ticksLeft_(ticks) {
    if (::pipe(fds_) != 0) std::perror("pipe");
    timer_ = getTimerControl(static_cast<TimeoutHandler*>(this));
    callback_ = getCallbackControl(static_cast<CallbackHandler*>(this));
    watch_ = getFdControl(static_cast<FdEventHandler*>(this));
    watch_->setFd(fds_[0]);  // read interest is on by default
  }
  ~Program() override {
    watch_->delFd();
    ::close(fds_[0]);
    ::close(fds_[1]);
  }

  void start() {
    start_ = Tolan::time();
    timer_->setTimeout(period_);
  }
  int bytesRead() const { return bytesRead_; }

 private:
  void timeout() override {
    std::printf("  tick at t=%6.2f s\n", Tolan::time() - start_);
    callback_->requestCallback();
    callback_->requestCallback();  // coalesced: one callback per tick
    if (--ticksLeft_ > 0) timer_->setTimeout(period_);
  }
  void callback() override {
    if (::write(fds_[1], "x", 1) != 1) std::perror("write");
  }
  void readFdEvent(int fd) override {
    char buf[16];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) bytesRead_ += static_cast<int>(n);
  }
  void writeFdEvent(int) override {}

  double period_;
  int ticksLeft_;
  double start_ = 0;
  int bytesRead_ = 0;
  int fds_[2] = {-1, -1};
  std::shared_ptr<TimerControl> timer_;
  std::shared_ptr<CallbackControl> callback_;
  std::shared_ptr<FdControl> watch_;
};

void run(const char* title, double period, int ticks) {
  std::printf("%s: %d ticks, %.2f s apart\n", title, ticks, period);
  Program program(period, ticks);
  const auto realStart = std::chrono::steady_clock::now();
  const double virtualStart = Tolan::time();
  program.start();
  doEventLoop(period * ticks + 0.5 * period);
  const double real = std::chrono::duration<double>(std::chrono::steady_clock::now() - realStart).count();
  std::printf("  pipe bytes read: %d; elapsed: real %.3f s, Tolan::time() %.3f s\n\n", program.bytesRead(), real,
              Tolan::time() - virtualStart);
}

}  // namespace

int main() {
  run("Real time", 0.1, 6);
  setFastForward(true);  // main thread only
  run("Fast-forward", 5.0, 12);
  setFastForward(false);
  return 0;
}
