#include <gtest/gtest.h>

#include "support/TimeoutsModel.h"

namespace {

// Long random runs: a dense wheel (few links, many operations each) and a
// crowded one (many links sharing slots, long cascades).
TEST(TimeoutsStress, DenseWheelAgainstReference) {
  for (uint64_t seed = 100; seed < 104; ++seed) {
    TolanTest::TimeoutsModel model(256, seed);
    model.run(300000);
    EXPECT_GT(model.fired(), 10000u);
    if (HasFailure()) FAIL() << "seed " << seed;
  }
}

TEST(TimeoutsStress, CrowdedWheelAgainstReference) {
  TolanTest::TimeoutsModel model(20000, 7);
  model.run(600000);
  EXPECT_GT(model.fired(), 50000u);
}

}  // namespace
