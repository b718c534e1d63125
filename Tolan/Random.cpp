#include "Tolan/Random.h"

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <random>

namespace Tolan {
namespace {

// std::mt19937_64 is exactly the generator we want: the standard
// initialisation from one seed (index left at 312, so the first draw
// regenerates the state), the 0xb5026f5aa96619e9 matrix and the 29/17/37/43
// tempering. Using it keeps our sequences identical to any other program that
// seeds the standard engine with the same value.
struct RandomState {
  std::mt19937_64 engine;
  uint32_t seed = 0;
  bool seedChosen = false;
};

RandomState& state() {
  static RandomState s;
  return s;
}

uint32_t chooseSeed() {
  if (const char* env = std::getenv("KVTEST_RANDSEED")) {
    return static_cast<uint32_t>(std::strtoul(env, nullptr, 10));
  }
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint32_t>(ts.tv_nsec);
}

}  // namespace

void Random::setSeed() {
  RandomState& s = state();
  if (!s.seedChosen) {
    s.seed = chooseSeed();
    s.seedChosen = true;
  }
  // stdio rather than iostreams: this may run before any stream is set up.
  std::fprintf(stderr, "Tolan::Random::setSeed(), setting seed to %u\n", s.seed);
  std::fflush(stderr);
  std::srand(s.seed);
  s.engine.seed(s.seed);
}

uint32_t Random::getSeed() noexcept { return state().seed; }

uint64_t Random::rand64() noexcept { return state().engine(); }

String Random::randomString(unsigned length) {
  // sizeof includes the terminating NUL: index 62 picks it.
  static const char kAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  static_assert(sizeof kAlphabet == 63, "62 characters and the NUL");
  String result(length, '\0');
  for (unsigned i = 0; i < length; ++i) result[i] = kAlphabet[std::rand() % 63];
  return result;
}

}  // namespace Tolan
