// Random.h - the process-wide seeded pseudo-random generator.
//
// One MT19937-64 generator (and the C library's rand(), seeded alongside it)
// for randomised tests and jitter. The seed is chosen once per process: from
// KVTEST_RANDSEED (decimal) when set, otherwise from the monotonic clock; it is
// printed on standard error at every setSeed() so that a failing randomised
// run can be repeated with KVTEST_RANDSEED=<seed>.
//
// Not cryptographic. The state is process-wide and unguarded: callers
// serialise their use (in practice, one test thread). rand64() costs a few
// nanoseconds; setSeed() writes a line and re-initialises the state.
#pragma once

#include <cstdint>
#include <string>

#include "Tolan/Common.h"

namespace Tolan {

class TOLAN_EXPORT Random {
 public:
  // Chooses the seed on the first call only; on every call prints
  // "Tolan::Random::setSeed(), setting seed to <seed>" on standard error and
  // re-seeds both generators with it, so the sequences restart.
  static void setSeed();
  // The seed chosen by the first setSeed() (0 before it).
  static uint32_t getSeed() noexcept;
  // The next value of the MT19937-64 sequence. Call setSeed() first; before
  // that the generator runs from the standard default seed.
  static uint64_t rand64() noexcept;
  // `length` characters drawn with rand() from "0-9A-Za-z". One index in 63
  // selects the alphabet's terminating NUL, so about one character in 63 is a
  // zero byte: kept as it is because existing seeds reproduce the strings.
  // The result always has exactly `length` characters.
  static String randomString(unsigned length);
};

}  // namespace Tolan
