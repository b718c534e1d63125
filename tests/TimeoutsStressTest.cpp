#include <gtest/gtest.h>

#include "support/TimeoutsModel.h"

namespace {

// Long random runs: dense wheels (few links, many operations each) and, last,
// a crowded one (many links sharing slots, long cascades).
TEST(TimeoutsStress, DenseAndCrowdedWheelsAgainstReference) {
  for (uint64_t seed = 100; seed < 105; ++seed) {
    const bool crowded = seed == 104;
    TolanTest::TimeoutsModel model(crowded ? 20000 : 256, seed);
    model.run(crowded ? 600000 : 300000);
    EXPECT_GT(model.fired(), crowded ? 50000u : 10000u);
    if (HasFailure()) FAIL() << "seed " << seed;
  }
}

}  // namespace
