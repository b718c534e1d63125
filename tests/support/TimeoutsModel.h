// Randomised check of the timing wheel against an ordered reference, shared by
// the quick test and the stress test, which differ only in length.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "Tolan/Impl/Timeouts.h"

namespace TolanTest {

class TimeoutsModel {
 public:
  TimeoutsModel(size_t links, uint64_t seed)
      : links_(links), expires_(links, kIdle), addSeq_(links), flags_(links), rng_(seed) {
    reopen(0);
  }
  ~TimeoutsModel() { timeouts_close(T_); }

  // Runs `ops` random operations; stops at the first failed check.
  void run(size_t ops) {
    for (size_t i = 0; i < ops && !::testing::Test::HasFailure(); ++i) step();
    drain(SIZE_MAX);
    check();
  }
  size_t fired() const { return fired_; }

 private:
  static constexpr uint64_t kIdle = UINT64_MAX;  // not held (never a tick the model adds)

  uint64_t pick(uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng_); }
  uint64_t after(uint64_t ticks) const { return cur_ + ticks < cur_ ? UINT64_MAX - 1 : cur_ + ticks; }

  // Closing must leave every link free for reuse.
  void reopen(uint64_t start) {
    timeouts_close(T_);
    for (size_t i = 0; i < links_.size(); ++i) {
      EXPECT_FALSE(T_ && timeout_pending(&links_[i])) << "link " << i << " still held after close";
      flags_[i] = static_cast<int>(pick(32)) & ~TIMEOUT_ABS;  // caller bits 0x01, 0x04, 0x08, 0x10
      timeout_init(&links_[i], flags_[i]);
      expires_[i] = kIdle;
    }
    ref_.clear();
    lastSeqOfTick_.clear();
    int error = -1;
    T_ = timeouts_open(100, &error);
    ASSERT_NE(T_, nullptr);
    EXPECT_EQ(error, 0);
    timeouts_update(T_, cur_ = start);
  }

  void add(size_t i) {
    const size_t other = pick(links_.size());
    const uint64_t ticks[] = {
        cur_ - std::min(cur_, pick(1000)),                              // past or now
        after(pick(uint64_t{1} << 40)),                                 // far
        UINT64_MAX - 1 - pick(1u << 20),                                // huge
        after(pick(uint64_t{1} << 20)),
        after((uint64_t{1} << (6 * pick(11))) + pick(3) - 1),           // level edges
        expires_[other] != kIdle ? expires_[other] : after(pick(5000)),  // another link's tick, on a higher level by now
        after(pick(300)),                                               // near, 4 times in 10
    };
    const uint64_t tick = ticks[std::min<uint64_t>(pick(10), 6)];
    const bool absolute = pick(2) != 0 || tick < cur_;
    links_[i].flags = flags_[i] = (flags_[i] & ~TIMEOUT_ABS) | (absolute ? TIMEOUT_ABS : 0);
    timeouts_add(T_, &links_[i], absolute ? tick : tick - cur_);
    forget(i);
    ref_.insert({expires_[i] = tick, i});
    addSeq_[i] = ++seq_;
    EXPECT_TRUE(timeout_pending(&links_[i]));
  }

  void forget(size_t i) {
    if (expires_[i] != kIdle) ref_.erase({expires_[i], i});
    expires_[i] = kIdle;
  }

  // Fetches up to `max` expired links; each must be due and held, and links
  // of one tick must come out in the order they were added.
  void drain(size_t max) {
    for (size_t n = 0; n < max; ++n) {
      timeout* link = timeouts_get(T_);
      if (!link) return;
      const size_t i = static_cast<size_t>(link - links_.data());
      ASSERT_LT(i, links_.size()) << "foreign link returned";
      ASSERT_NE(expires_[i], kIdle) << "link " << i << " returned but not held (twice?)";
      ASSERT_LE(expires_[i], cur_) << "link " << i << " returned before its tick";
      EXPECT_FALSE(timeout_pending(link));
      uint64_t& last = lastSeqOfTick_[expires_[i]];
      EXPECT_GT(addSeq_[i], last) << "link " << i << " overtook a link of the same tick added before it";
      last = addSeq_[i];
      if (lastSeqOfTick_.size() > 100000) lastSeqOfTick_.clear();
      forget(i);
      ++fired_;
    }
  }

  void advanceTo(uint64_t tick) {
    timeouts_update(T_, tick);
    cur_ = std::max(cur_, tick);
    EXPECT_EQ(timeouts_current(T_), cur_);
  }

  // Waiting as an event loop would, by timeouts_timeout(), must reach the
  // earliest link exactly, within one refinement per level.
  void advanceByTimeout() {
    drain(SIZE_MAX);
    if (ref_.empty()) return;
    for (int steps = 0; !timeouts_expired(T_); ++steps) {
      ASSERT_LT(steps, 12) << "timeouts_timeout() makes no progress towards " << ref_.begin()->first;
      advanceTo(cur_ + timeouts_timeout(T_));
    }
    EXPECT_EQ(cur_, ref_.begin()->first) << "woke later than the earliest link";
    drain(SIZE_MAX);
  }

  void check() {
    const bool due = !ref_.empty() && ref_.begin()->first <= cur_;
    EXPECT_EQ(timeouts_expired(T_), due);
    EXPECT_EQ(timeouts_pending(T_), !ref_.empty() && ref_.rbegin()->first > cur_);
    const uint64_t t = timeouts_timeout(T_);
    if (due || ref_.empty()) {
      EXPECT_EQ(t, due ? 0u : TIMEOUT_NEVER);
    } else {
      EXPECT_GE(t, 1u);
      EXPECT_LE(t, ref_.begin()->first - cur_) << "timeouts_timeout() overshoots the earliest link";
    }
  }

  void step() {
    if (cur_ > UINT64_MAX / 2) reopen(pick(uint64_t{1} << 50));
    const size_t i = pick(links_.size());
    const uint64_t op = pick(100);
    if (op < 40) {
      add(i);
    } else if (op < 55) {
      timeouts_del(T_, &links_[i]);
      forget(i);
      EXPECT_FALSE(timeout_pending(&links_[i]));
    } else if (op < 70) {
      advanceTo(cur_ + 1 + pick(70));
      drain(pick(2) ? SIZE_MAX : pick(4));  // sometimes leave expired links behind
    } else if (op < 84) {
      advanceTo(op < 80 ? cur_ + 1 + pick(5000) : cur_ + pick(uint64_t{1} << (1 + pick(40))));
      drain(SIZE_MAX);
    } else if (op < 86) {
      advanceTo(cur_ - std::min(cur_, pick(10)));  // backwards: ignored
    } else if (op < 96) {
      advanceByTimeout();
    } else if (op < 97) {
      drain(SIZE_MAX);
      if (pick(8) == 0) advanceTo(UINT64_MAX - 1 - pick(1000));  // end of time: everything falls due
      drain(SIZE_MAX);
    } else if (op < 98 && pick(links_.size()) < 256) {  // reopening visits every link
      reopen(pick(2) ? 0 : pick(uint64_t{1} << 50));
    }
    EXPECT_EQ(links_[i].flags, flags_[i]) << "the wheel changed the caller's flags";
    check();
  }

  std::vector<timeout> links_;
  std::vector<uint64_t> expires_, addSeq_;
  std::vector<int> flags_;
  std::map<uint64_t, uint64_t> lastSeqOfTick_;  // tick -> add sequence of the last link returned there
  uint64_t seq_ = 0, cur_ = 0;
  std::set<std::pair<uint64_t, size_t>> ref_;
  std::mt19937_64 rng_;
  timeouts* T_ = nullptr;
  size_t fired_ = 0;
};

}  // namespace TolanTest
