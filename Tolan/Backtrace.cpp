#include "Tolan/Backtrace.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <pthread.h>
#include <time.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

#include <boost/circular_buffer.hpp>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <limits>
#include <mutex>
#include <ostream>
#include <sstream>

#include "Tolan/Assert.h"
#include "Tolan/Impl/ForkLocks.h"
#include "Tolan/Locking.h"
#include "Tolan/Thread.h"

// Capture speed. A plain libunwind cursor walk (unw_init_local, then
// unw_step and unw_get_reg per frame) interprets DWARF CFI for every frame
// and costs some 30 times more than unw_backtrace, which walks with a
// per-thread cache of frame layouts keyed by address (and falls back to the
// cursor walk itself where the cache cannot describe a frame). That tracer is
// reachable only through unw_backtrace, so we call it, and drop the one frame
// of our own making. The result is what the cursor walk yields: return
// addresses, innermost first, starting in the caller.
//
// Frame accounting: capture() is inlined into the constructor and unwind(),
// so unw_backtrace's first address is in one of them (slot 0, not kept) and
// the next is in their caller. Neither may be inlined into its caller, cloned
// or left by a tail call, any of which would shift that count. `noinline`
// alone is not enough: at -O3 GCC still put the constructor's body into
// BacktraceTracker::backtraceIs, so frame 0 was the caller's caller. `noipa`
// (no inlining, cloning or other interprocedural change) holds in every build
// type, so an exception's frame 0 is always in the Tolan::Exception constructor.

namespace Tolan {
namespace {

constexpr int kSlots = 1 + static_cast<int>(Backtrace::kMaxFrames);
constexpr unsigned kDefaultTrackerCapacity = 100;

// Keeps the calling function's frame: nothing may follow a call in tail position.
#define TOLAN_KEEP_FRAME_() asm volatile("" ::: "memory")

double monotonicSeconds() noexcept {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// libunwind takes locks of its own while walking and registers no fork
// handler: a child forked while another thread was inside unw_backtrace would
// hang on its first stack. Captures share this lock; the fork handler takes it
// exclusively, so no walk is under way at fork(). Writers first, so that a
// steady stream of exceptions cannot hold fork() off.
struct CaptureLock {
  CaptureLock() noexcept {
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&lock, &attr);
    pthread_rwlockattr_destroy(&attr);
  }
  pthread_rwlock_t lock;
};

// The child of a fork gets a new lock rather than re-initialising the held
// one in place; the old one stays, unused, for the life of the process.
CaptureLock* gCaptureLock = nullptr;

CaptureLock& captureLock() noexcept {
  static const bool made = (gCaptureLock = new CaptureLock, true);
  (void)made;
  return *gCaptureLock;
}

}  // namespace

inline __attribute__((always_inline)) void Backtrace::capture() noexcept {
  timestamp_ = monotonicSeconds();
  pthread_rwlock_t& lock = captureLock().lock;
  pthread_rwlock_rdlock(&lock);
#if defined(__SANITIZE_THREAD__)
  // unw_backtrace's per-thread cache is freed by a thread-exit destructor that
  // takes a mutex after ThreadSanitizer has finished the thread, which crashes
  // every thread that ever captured a stack. The cursor walk keeps no such
  // cache; it is slower, which matters little in that build. Same frames.
  int n = 0;
  unw_context_t context;
  unw_cursor_t cursor;
  if (unw_getcontext(&context) == 0 && unw_init_local(&cursor, &context) == 0) {
    unw_word_t ip = 0;
    do {
      if (unw_get_reg(&cursor, UNW_REG_IP, &ip) < 0 || ip == 0) break;
      slots_[n++] = reinterpret_cast<void*>(ip);
    } while (n < kSlots && unw_step(&cursor) > 0);
  }
#else
  const int n = unw_backtrace(slots_, kSlots);
#endif
  pthread_rwlock_unlock(&lock);
  frameCount_ = n > 1 ? static_cast<uint32_t>(n - 1) : 0;
}

__attribute__((noipa)) Backtrace::Backtrace(bool capture) noexcept
    : frameCount_(0), tid_(cachedGettid()), timestamp_(std::numeric_limits<double>::infinity()) {
  if (capture) this->capture();
  TOLAN_KEEP_FRAME_();
}

__attribute__((noipa)) void Backtrace::unwind() noexcept {
  capture();
  TOLAN_KEEP_FRAME_();
}

String Backtrace::pretty() const {
  std::ostringstream os;
  os << "Timestamp:" << std::fixed << std::setprecision(6) << timestamp_ << " tid:" << tid_ << " Backtrace:\n";
  if (frameCount_ == 0) {
    os << "No backtrace available\n";
    return os.str();
  }
  for (uint32_t i = 0; i < frameCount_; ++i) {
    const void* address = frames()[i];
    Dl_info info;
    // Every frame holds a return address, just past its call. A call to a
    // noreturn function may be the caller's last instruction, so the address
    // itself can lie in the next symbol (or a .cold part); the byte before it
    // is in the call. The offset stays that of the return address.
    if (dladdr(static_cast<const char*>(address) - 1, &info)) {
      if (info.dli_fname) os << info.dli_fname;
      // Without a symbol the offset is into the object, which is what
      // addr2line wants for a position-independent object.
      const void* base = info.dli_saddr ? info.dli_saddr : info.dli_fbase;
      const auto offset = reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(base);
      os << '(' << (info.dli_sname ? info.dli_sname : "") << "+0x" << std::hex << offset << std::dec << ')';
    }
    os << '[' << address << "]\n";
  }
  return os.str();
}

int Backtrace::verbosity() noexcept {
  const char* value = std::getenv("TOLAN_BACKTRACE_VERBOSITY");
  return value && std::strcmp(value, "0") == 0 ? 0 : 1;
}

String TrackedBacktrace::toString() const { return "Exception message:" + message_ + "\n" + backtrace_.pretty(); }

// ---------------------------------------------------------------------------
// The tracker. Its state is created on first use and never destroyed, so that
// exceptions made during static destruction still find it.

namespace {

struct TrackerState {
  Locking::Lock lock;
  boost::circular_buffer<TrackedBacktrace> buffer;
};

TrackerState& tracker() {
  static NoDestructor<TrackerState> state;
  return *state;
}

}  // namespace

namespace Impl {
void trackerForkPrepare() noexcept {
  tracker().lock.lock();
  pthread_rwlock_wrlock(&captureLock().lock);
}
void trackerForkParent() noexcept {
  pthread_rwlock_unlock(&captureLock().lock);
  tracker().lock.unlock();
}
void trackerForkChild() noexcept {
#if defined(__SANITIZE_THREAD__)
  // This thread write-locked the old one in prepare: tell the race detector it let go.
  __tsan_mutex_pre_unlock(&gCaptureLock->lock, 0);
  __tsan_mutex_post_unlock(&gCaptureLock->lock, 0);
#endif
  gCaptureLock = new CaptureLock;
  tracker().lock.reinitialise();
}
}  // namespace Impl

void BacktraceTracker::enabledIs(bool on) {
  TrackerState& t = tracker();
  std::lock_guard<Locking::Lock> guard(t.lock);
  if (on) {
    if (t.buffer.capacity() == 0) t.buffer.set_capacity(kDefaultTrackerCapacity);
  } else if (t.buffer.empty()) {
    boost::circular_buffer<TrackedBacktrace>().swap(t.buffer);
  }
  enabled_.store(on, std::memory_order_relaxed);
}

unsigned BacktraceTracker::capacity() {
  TrackerState& t = tracker();
  std::lock_guard<Locking::Lock> guard(t.lock);
  return static_cast<unsigned>(t.buffer.capacity());
}

void BacktraceTracker::capacityIs(unsigned n) {
  TOLAN_ASSERT(enabled(), "User must enable the tracker to set the capacity.");
  TOLAN_ASSERT(n != 0, "Cannot set a capacity of 0, use clear() instead.");
  TrackerState& t = tracker();
  std::lock_guard<Locking::Lock> guard(t.lock);
  t.buffer.set_capacity(n);
}

void BacktraceTracker::backtraceIs(const String& msg) {
  if (!enabled()) return;
  record(msg, Backtrace(true));
}

void BacktraceTracker::record(const String& msg, const Backtrace& backtrace) {
  TrackerState& t = tracker();
  std::lock_guard<Locking::Lock> guard(t.lock);
  // Disabled between the unlocked test and here: drop it, as if a moment earlier.
  if (!enabled()) return;
  t.buffer.push_back(TrackedBacktrace(msg, backtrace));
}

std::vector<TrackedBacktrace> BacktraceTracker::tracked() {
  TrackerState& t = tracker();
  std::lock_guard<Locking::Lock> guard(t.lock);
  return std::vector<TrackedBacktrace>(t.buffer.begin(), t.buffer.end());
}

void BacktraceTracker::clear() {
  TrackerState& t = tracker();
  std::lock_guard<Locking::Lock> guard(t.lock);
  t.buffer.clear();
}

void BacktraceTracker::printAll(std::ostream& os) {
  TrackerState& t = tracker();
  std::lock_guard<Locking::Lock> guard(t.lock);
  for (const TrackedBacktrace& entry : t.buffer) os << entry.toString() << '\n';
  os.flush();
}

String typeName(const char* mangled) {
  if (!mangled) return String();
  int status = 0;
  char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
  if (status != 0) return mangled;
  TOLAN_ASSERT(demangled != nullptr, "unable to demangle type {} status:{}", mangled, status);
  String result(demangled);
  std::free(demangled);
  return result;
}

}  // namespace Tolan
