// The timing wheel alone: a randomised run against a reference, and the cases
// the run cannot reach.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "Tolan/Assert.h"
#include "Tolan/Exception.h"
#include "Tolan/Impl/Timeouts.h"
#include "support/TimeoutsModel.h"

namespace {

struct Wheel {
  ~Wheel() { timeouts_close(T); }
  timeouts* T = timeouts_open(100, nullptr);
};

TEST(Timeouts, OpenRefusesZeroRate) {
  int error = 0;
  EXPECT_EQ(timeouts_open(0, &error), nullptr);
  EXPECT_EQ(error, EINVAL);
  EXPECT_EQ(timeouts_open(0, nullptr), nullptr);
}

// Covers past, near, far and huge ticks, re-adds, deletes of waiting and
// expired links, caller flag bits, closing with links held, and ordering.
TEST(Timeouts, RandomisedAgainstReference) {
  for (uint64_t seed : {1u, 2u, 3u}) {
    TolanTest::TimeoutsModel model(64, seed);
    model.run(20000);
    EXPECT_GT(model.fired(), 1000u) << "seed " << seed << " exercised too little";
    if (HasFailure()) FAIL() << "seed " << seed;
  }
}

// The reference model never holds a link at the largest tick.
TEST(Timeouts, RelativeTicksSaturate) {
  Wheel w;
  timeout link;
  timeouts_update(w.T, 5);
  timeouts_add(w.T, timeout_init(&link, 0), UINT64_MAX);
  EXPECT_EQ(link.expires, UINT64_MAX);
  EXPECT_LE(timeouts_timeout(w.T), UINT64_MAX - 5);
  EXPECT_GT(timeouts_timeout(w.T), UINT64_MAX / 2) << "a far link must not make the caller wake early";
  timeouts_update(w.T, UINT64_MAX - 1);
  EXPECT_EQ(timeouts_get(w.T), nullptr);
  timeouts_update(w.T, UINT64_MAX);
  EXPECT_EQ(timeouts_get(w.T), &link);
  EXPECT_EQ(timeouts_get(w.T), nullptr);
  EXPECT_EQ(timeouts_timeout(w.T), TIMEOUT_NEVER);
}

TEST(Timeouts, DeletingFromAnotherWheelIsAnAssertion) {
  Tolan::throwOnAssertFailIs(true);
  Wheel a, b;
  timeout link;
  timeouts_add(a.T, timeout_init(&link, 0), 10);
  EXPECT_THAT([&] { timeouts_del(b.T, &link); },
              ::testing::ThrowsMessage<Tolan::AssertException>(::testing::HasSubstr("is held by another wheel than")));
  EXPECT_TRUE(timeout_pending(&link));
  timeouts_del(a.T, &link);
}

}  // namespace
