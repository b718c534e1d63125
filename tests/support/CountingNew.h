// CountingNew.h - replaces the global operator new of a test binary so that
// a test can count the heap allocations of its own thread. Include it from
// exactly one file of the binary.
#pragma once

#include <cstdlib>
#include <new>

namespace TolanTest {
inline thread_local long allocationsOnThisThread = 0;
}  // namespace TolanTest

// Out of line, so that the compiler does not pair an inlined malloc() or
// free() with the other operator.
__attribute__((noinline)) void* operator new(std::size_t size) {
  ++TolanTest::allocationsOnThisThread;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }
