// A trace line with a message of up to 500 characters is built and written
// without touching the heap. Counted by replacing the global operator new
// for this test program (the library's allocations come here too).
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

#include "Tolan/Debug.h"
#include "Tolan/DebugOutput.h"

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

TEST(TraceAllocation, MessagesUpTo500CharactersDoNotAllocate) {
  Tolan::Platform::setTraceFormat("date,time,tid,handle,level,line-info");
  auto handler = Tolan::Platform::getDebugHandler("AllocTest");
  handler->enabledIs(5, true);
  // Heap allocations made by one trace call of a `size`-character message.
  auto allocationsFor = [&handler](size_t size) {
    const std::string text(size, 'm');
    const char* message = text.c_str();
    tlsAllocations = 0;
    tlsCounting = true;
    TOLAN_TRACE(handler, 5, "{}", message);
    tlsCounting = false;
    return tlsAllocations;
  };
  testing::internal::CaptureStderr();
  allocationsFor(10);  // first use: time zone, stream set-up
  EXPECT_EQ(allocationsFor(10), 0);
  EXPECT_EQ(allocationsFor(500), 0);
  EXPECT_GT(allocationsFor(5000), 0);  // the counter works: a long message does spill
  EXPECT_NE(testing::internal::GetCapturedStderr().find(std::string(5000, 'm') + "\n"), std::string::npos);
}

}  // namespace
