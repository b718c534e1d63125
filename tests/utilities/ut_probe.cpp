// ut_probe random N: setSeed(), then print the seed and N rand64() values.
// ut_probe flag: print platformLibPresenceFlag. Linked behind the
// incompatible library (ut_incompat_probe) it never reaches main().
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
  } else {
    std::printf("%d\n", platformLibPresenceFlag);
  }
}
