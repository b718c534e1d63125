// ut_probe - a program for tests of the utilities that act at process start.
//
//   ut_probe random N   setSeed(), then print the seed and N rand64() values, one a line
//   ut_probe flag       print platformLibPresenceFlag
//
// Linked against the incompatible library as ut_incompat_probe, it never
// reaches main(): the library's load-time check aborts first.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Tolan/CheckIncompat.h"
#include "Tolan/Random.h"

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "random") == 0) {
    Tolan::Random::setSeed();
    std::printf("seed %u\n", Tolan::Random::getSeed());
    for (long i = std::strtol(argv[2], nullptr, 10); i > 0; --i) {
      std::printf("%llu\n", static_cast<unsigned long long>(Tolan::Random::rand64()));
    }
    return 0;
  }
  if (argc >= 2 && std::strcmp(argv[1], "flag") == 0) {
    std::printf("%d\n", platformLibPresenceFlag);
    return 0;
  }
  std::fprintf(stderr, "usage: ut_probe random N | flag\n");
  return 2;
}
