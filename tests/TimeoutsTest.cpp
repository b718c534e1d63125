// The timing wheel alone: random runs against the model, and the cases a run
// cannot reach.
#include "support/Support.h"
#include "support/TimeoutsModel.h"

using TolanTest::TimeoutsModel;

static void report(const char* what, size_t link) { ADD_FAILURE() << what << " (link " << link << ")"; }

// Past, near, far and huge ticks, re-adds, deletes of waiting and expired
// links, caller flag bits, closing with links held, and ordering.
TEST(Timeouts, RandomisedAgainstModel) {
  for (uint64_t seed : {1u, 2u, 3u}) {
    TimeoutsModel model(64, report);
    std::mt19937_64 rng(seed);
    for (int i = 0; i < 20000 && !model.failed(); ++i) model.randomStep(rng);
    EXPECT_GT(model.fired(), 1000u) << "seed " << seed << " exercised too little";
  }
}

TEST(Timeouts, RelativeTicksSaturateAtTheEndOfTime) {
  TimeoutsModel model(1, report);
  model.advanceTo(5);
  model.add(0, UINT64_MAX, false);
  EXPECT_GT(timeouts_timeout(model.wheel()), UINT64_MAX / 2) << "a far link must not make the caller wake early";
  for (uint64_t tick : {UINT64_MAX - 1, UINT64_MAX}) {
    model.advanceTo(tick);
    model.drain();
    model.check(0);
  }
  EXPECT_EQ(model.fired(), 1u);
}

TEST(Timeouts, RefusesZeroRateAndForeignLinks) {
  int error = 0;
  EXPECT_EQ(timeouts_open(0, &error), nullptr);
  EXPECT_EQ(error, EINVAL);
  EXPECT_EQ(timeouts_open(0, nullptr), nullptr);
  timeouts *a = timeouts_open(100, nullptr), *b = timeouts_open(100, nullptr);
  timeout link;
  timeouts_add(a, timeout_init(&link, 0), 10);
  EXPECT_ASSERTS(timeouts_del(b, &link), "is held by another wheel than");
  EXPECT_TRUE(timeout_pending(&link));
  timeouts_close(a);
  timeouts_close(b);
  EXPECT_FALSE(timeout_pending(&link));
}
