// Drives the timing wheel with operations read from the input and checks it
// against an ordered reference after each one. Any disagreement traps.
//
// Input: a byte stream of operations. Each starts with an opcode byte; the
// low 4 bits of the next byte pick one of 16 links; ticks and clock steps are
// read as 1 to 8 little-endian bytes (the opcode's high bits say how many),
// so short inputs reach near ticks and long ones huge ones.
#include <cstddef>
#include <cstdint>
#include <set>
#include <utility>

#include "Tolan/Impl/Timeouts.h"

namespace {

constexpr size_t kLinks = 16;

struct Input {
  const uint8_t* p;
  size_t n;
  bool empty() const { return n == 0; }
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

#define CHECK(cond) \
  do {              \
    if (!(cond)) __builtin_trap(); \
  } while (0)

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in{data, size};
  timeouts* T = timeouts_open(100, nullptr);
  timeout links[kLinks];
  uint64_t expires[kLinks];
  bool held[kLinks] = {};
  std::set<std::pair<uint64_t, size_t>> ref;
  uint64_t cur = 0;
  for (size_t i = 0; i < kLinks; ++i) timeout_init(&links[i], static_cast<int>(i & 0x1d));

  auto drain = [&] {
    while (timeout* link = timeouts_get(T)) {
      const size_t i = static_cast<size_t>(link - links);
      CHECK(i < kLinks && held[i] && expires[i] <= cur);
      ref.erase({expires[i], i});
      held[i] = false;
    }
    CHECK(ref.empty() || ref.begin()->first > cur);
  };

  while (!in.empty()) {
    const uint8_t op = in.byte();
    const size_t i = in.byte() % kLinks;
    const unsigned width = 1 + ((op >> 4) & 7);
    switch (op & 7) {
      case 0:
      case 1: {  // add, relative (0) or absolute (1)
        const uint64_t tick = in.number(width);
        const bool absolute = (op & 7) == 1;
        links[i].flags = (links[i].flags & ~TIMEOUT_ABS) | (absolute ? TIMEOUT_ABS : 0);
        timeouts_add(T, &links[i], tick);
        if (held[i]) ref.erase({expires[i], i});
        expires[i] = absolute ? tick : (cur + tick < cur ? UINT64_MAX : cur + tick);
        held[i] = true;
        ref.insert({expires[i], i});
        break;
      }
      case 2:
        timeouts_del(T, &links[i]);
        if (held[i]) ref.erase({expires[i], i});
        held[i] = false;
        break;
      case 3: {  // advance by a step
        const uint64_t step = in.number(width);
        const uint64_t to = cur + step < cur ? UINT64_MAX : cur + step;
        timeouts_update(T, to);
        cur = to;
        drain();
        break;
      }
      case 4:  // advance as far as the wheel says is safe
        if (!ref.empty() && ref.begin()->first > cur) {
          const uint64_t t = timeouts_timeout(T);
          CHECK(t >= 1 && t <= ref.begin()->first - cur);
          cur += t;
          timeouts_update(T, cur);
        }
        drain();
        break;
      default: {  // fetch one expired link without advancing
        if (timeout* link = timeouts_get(T)) {
          const size_t k = static_cast<size_t>(link - links);
          CHECK(k < kLinks && held[k] && expires[k] <= cur);
          ref.erase({expires[k], k});
          held[k] = false;
        }
        break;
      }
    }
    const bool due = !ref.empty() && ref.begin()->first <= cur;
    CHECK(timeouts_expired(T) == due);
    CHECK(timeouts_pending(T) == (!ref.empty() && ref.rbegin()->first > cur));
    CHECK((links[i].flags & ~TIMEOUT_ABS) == static_cast<int>(i & 0x1d));
    if (due) CHECK(timeouts_timeout(T) == 0);
    if (ref.empty()) CHECK(timeouts_timeout(T) == TIMEOUT_NEVER);
  }
  timeouts_close(T);
  for (size_t i = 0; i < kLinks; ++i) CHECK(!timeout_pending(&links[i]));
  return 0;
}
