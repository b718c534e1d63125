#include "support/Support.h"
#include "support/TimeoutsModel.h"

// Long random runs: dense wheels (few links, many operations each) and, last,
// a crowded one (many links sharing slots, long cascades).
TEST(TimeoutsStress, DenseAndCrowdedWheelsAgainstModel) {
  for (uint64_t seed = 100; seed < 105; ++seed) {
    const bool crowded = seed == 104;
    TolanTest::TimeoutsModel model(crowded ? 20000 : 256, [](const char* what, size_t link) {
      ADD_FAILURE() << what << " (link " << link << ")";
    });
    std::mt19937_64 rng(seed);
    for (int i = 0; i < (crowded ? 600000 : 300000) && !model.failed(); ++i) model.randomStep(rng);
    EXPECT_GT(model.fired(), crowded ? 50000u : 10000u) << "seed " << seed;
  }
}
