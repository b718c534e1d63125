#include "Tolan/ForkHandler.h"

#include <pthread.h>

#include <atomic>
#include <cstdio>

#include "Tolan/Assert.h"
#include "Tolan/Errno.h"
#include "Tolan/Impl/ForkLocks.h"

namespace Tolan {
namespace Platform {
namespace {

std::atomic<bool> gForkedChild{false};
std::atomic<bool> gHandlerRegistered{false};

// Taken in the order code takes them, so that prepare cannot wait for one
// lock while a thread holding it waits for the other.
void prepareLocks() noexcept {
  Impl::pluginForkPrepare();
  Impl::locoForkPrepare();
  Impl::trackerForkPrepare();
}
void releaseLocksInParent() noexcept {
  Impl::trackerForkParent();
  Impl::locoForkParent();
  Impl::pluginForkParent();
}
void releaseLocksInChild() noexcept {
  Impl::trackerForkChild();
  Impl::locoForkChild();
  Impl::pluginForkChild();
}

}  // namespace

void setupHandler() {
  if (gHandlerRegistered.exchange(true)) return;
  int rc = pthread_atfork(&prepareLocks, &releaseLocksInParent, &releaseLocksInChild);
  if (rc == 0) rc = pthread_atfork(nullptr, nullptr, &handleFork);
  if (rc != 0) {
    // pthread_atfork reports its error as the result, not in errno.
    std::fprintf(stderr, "Tolan failed to register atfork handler, reason: %s\n", Tolan::strerror(rc));
    TOLAN_PROCESS_ASSERT(false && "Failed to register Tolan atfork handler",
                         "false && \"Failed to register Tolan atfork handler\"");
  }
}

void handleFork() noexcept { gForkedChild.store(true, std::memory_order_relaxed); }

bool isForkedChild() noexcept { return gForkedChild.load(std::memory_order_relaxed); }

void forkedChildIs(bool forked) noexcept { gForkedChild.store(forked, std::memory_order_relaxed); }

namespace {
// After the trace start-up (101) and the terminate handler (102): a child
// forked by any code after load, even before main(), sees the flag.
__attribute__((constructor(110))) void registerForkHandlerAtLoad() { setupHandler(); }
}  // namespace

}  // namespace Platform
}  // namespace Tolan
