// A trace line with a message of up to 500 characters is built and written
// without touching the heap. Counted by replacing the global operator new
// for this test program (the library's allocations come here too).
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

#include "Tolan/Debug.h"

namespace {
thread_local bool tlsCounting = false;
thread_local int tlsAllocations = 0;
}  // namespace

void* operator new(std::size_t size) {
  if (tlsCounting) ++tlsAllocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

// Heap allocations made by one trace call of a `size`-character message.
int allocationsForMessageOf(size_t size) {
  static auto handler = [] {
    auto h = Tolan::Platform::getDebugHandler("AllocTest");
    h->enabledIs(5, true);
    return h;
  }();
  const std::string text(size, 'm');
  const char* message = text.c_str();
  tlsAllocations = 0;
  tlsCounting = true;
  TOLAN_TRACE(handler, 5, "{}", message);
  tlsCounting = false;
  return tlsAllocations;
}

TEST(TraceAllocation, MessagesUpTo500CharactersDoNotAllocate) {
  Tolan::Platform::setTraceFormat("date,time,tid,handle,level,line-info");
  testing::internal::CaptureStderr();
  allocationsForMessageOf(10);  // first use: time zone, stream set-up
  const int small = allocationsForMessageOf(10);
  const int limit = allocationsForMessageOf(500);
  const int large = allocationsForMessageOf(5000);
  const std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(small, 0);
  EXPECT_EQ(limit, 0);
  EXPECT_GT(large, 0);  // the counter works: a long message does spill
  EXPECT_NE(out.find(std::string(5000, 'm') + "\n"), std::string::npos);
}

}  // namespace
