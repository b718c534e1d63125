// Drives the timing wheel with operations read from the input, through the
// model the unit tests use (tests/support/TimeoutsModel.h), which checks the
// wheel after each one. Any disagreement aborts.
//
// Input: a byte stream of operations. Each starts with an opcode byte; the
// next byte picks one of 16 links; ticks and clock steps are read as 1 to 8
// little-endian bytes (the opcode's high bits say how many), so short inputs
// reach near ticks and long ones huge ones.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "../tests/support/TimeoutsModel.h"

namespace {

struct Input {
  const uint8_t* p;
  size_t n;
  uint8_t byte() {
    if (!n) return 0;
    --n;
    return *p++;
  }
  uint64_t number(unsigned bytes) {
    uint64_t v = 0;
    for (unsigned i = 0; i < bytes; ++i) v |= uint64_t{byte()} << (8 * i);
    return v;
  }
};

void fail(const char* what, size_t link) {
  std::fprintf(stderr, "timing wheel disagrees with its model: %s (link %zu)\n", what, link);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in{data, size};
  TolanTest::TimeoutsModel model(16, fail);
  while (in.n) {
    const uint8_t op = in.byte();
    const size_t i = in.byte() % model.links();
    const unsigned width = 1 + ((op >> 4) & 7);
    switch (op & 7) {
      case 0:
      case 1:  // add, relative (0) or absolute (1)
        model.add(i, in.number(width), (op & 7) == 1);
        break;
      case 2:
        model.del(i);
        break;
      case 3: {  // advance by a step, saturating
        const uint64_t step = in.number(width);
        model.advanceTo(model.now() + std::min(step, UINT64_MAX - model.now()));
        model.drain();
        break;
      }
      case 4:  // advance as far as the wheel says is safe
        model.advanceByTimeout();
        break;
      case 5:  // fetch one expired link without advancing
        model.drain(1);
        break;
      case 6:  // close (every link must come free) and start again
        model.reopen(in.number(width));
        break;
      default:
        model.advanceTo(in.number(width));  // anywhere, backwards included
        break;
    }
    model.check(i);
  }
  return 0;
}
