// TimeoutsModel.h - the timing wheel (Tolan/Timeouts.h) beside an ordered
// reference of the links it must hold, checked after every operation:
// expired links come out only once due, once each, and in the order of
// their last add within one tick; timeouts_expired/pending/timeout agree with
// the reference; the caller's flag bits survive; closing frees every link.
//
// The one model of the wheel: the unit tests drive it with random operations
// (randomStep) and fuzz/TimeoutsFuzz.cpp with operations read from its input.
// So it uses no test framework: a failed check calls `fail` (the tests report
// it and stop, the fuzzer aborts).
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "Tolan/Impl/Timeouts.h"

namespace TolanTest {

class TimeoutsModel {
 public:
  using Fail = std::function<void(const char* what, size_t link)>;

  TimeoutsModel(size_t links, Fail fail)
      : links_(links), held_(links), expires_(links), addSeq_(links), flags_(links), fail_(std::move(fail)) {
    reopen(0);
  }
  ~TimeoutsModel() { timeouts_close(T_); }

  size_t links() const { return links_.size(); }
  uint64_t now() const { return cur_; }
  size_t fired() const { return fired_; }
  bool failed() const { return failed_; }
  timeouts* wheel() const { return T_; }

  // Closes the wheel, which must free every link, and opens a new one at `start`.
  void reopen(uint64_t start) {
    timeouts_close(T_);
    for (size_t i = 0; i < links_.size(); ++i) {
      expect(!T_ || !timeout_pending(&links_[i]), "link still held after close", i);
      flags_[i] = static_cast<int>((i + start + fired_) & 0x1d);  // the caller's bits: all but TIMEOUT_ABS
      timeout_init(&links_[i], flags_[i]);
      held_[i] = false;
    }
    ref_.clear();
    lastSeqOfTick_.clear();
    T_ = timeouts_open(100, nullptr);
    timeouts_update(T_, cur_ = start);
  }

  // timeouts_add of link i with `tick`, absolute or relative to now.
  void add(size_t i, uint64_t tick, bool absolute) {
    links_[i].flags = flags_[i] = (flags_[i] & ~TIMEOUT_ABS) | (absolute ? TIMEOUT_ABS : 0);
    timeouts_add(T_, &links_[i], tick);
    forget(i);
    expires_[i] = absolute ? tick : cur_ + std::min(tick, UINT64_MAX - cur_);
    ref_.insert({expires_[i], i});
    held_[i] = true;
    addSeq_[i] = ++seq_;
    expect(timeout_pending(&links_[i]), "an added link is not pending", i);
  }

  void del(size_t i) {
    timeouts_del(T_, &links_[i]);
    forget(i);
    expect(!timeout_pending(&links_[i]), "a deleted link is still pending", i);
  }

  // Earlier ticks are ignored by the wheel.
  void advanceTo(uint64_t tick) {
    timeouts_update(T_, tick);
    cur_ = std::max(cur_, tick);
    expect(timeouts_current(T_) == cur_, "timeouts_current()", 0);
  }

  // Fetches up to `max` expired links.
  void drain(size_t max = SIZE_MAX) {
    for (size_t n = 0; n < max; ++n) {
      timeout* link = timeouts_get(T_);
      if (!link) return;
      const size_t i = static_cast<size_t>(link - links_.data());
      if (!expect(i < links_.size() && held_[i], "returned a link it does not hold", i)) return;
      expect(expires_[i] <= cur_, "returned a link before its tick", i);
      expect(!timeout_pending(link), "a returned link is still pending", i);
      uint64_t& last = lastSeqOfTick_[expires_[i]];
      expect(addSeq_[i] > last, "a link overtook one of its tick added before it", i);
      last = addSeq_[i];
      if (lastSeqOfTick_.size() > 100000) lastSeqOfTick_.clear();
      forget(i);
      ++fired_;
    }
  }

  // Waiting as an event loop would, by timeouts_timeout(), must reach the
  // earliest link exactly, within one refinement per level.
  void advanceByTimeout() {
    drain();
    if (ref_.empty()) return;
    for (int steps = 0; !timeouts_expired(T_); ++steps) {
      if (!expect(steps < 12, "timeouts_timeout() makes no progress", ref_.begin()->second)) return;
      advanceTo(cur_ + timeouts_timeout(T_));
    }
    expect(cur_ == ref_.begin()->first, "woke later than the earliest link", ref_.begin()->second);
    drain();
  }

  // The wheel's answers against the reference, and link i's flags.
  void check(size_t i) {
    expect(links_[i].flags == flags_[i], "the wheel changed the caller's flags", i);
    const bool due = !ref_.empty() && ref_.begin()->first <= cur_;
    expect(timeouts_expired(T_) == due, "timeouts_expired()", i);
    expect(timeouts_pending(T_) == (!ref_.empty() && ref_.rbegin()->first > cur_), "timeouts_pending()", i);
    const uint64_t t = timeouts_timeout(T_);
    if (due || ref_.empty()) {
      expect(t == (due ? 0 : TIMEOUT_NEVER), "timeouts_timeout() when due or empty", i);
    } else {
      expect(t >= 1 && t <= ref_.begin()->first - cur_, "timeouts_timeout() beyond the earliest link", i);
    }
  }

  // One random operation, then check(). Ticks are near 4 times in 10, else
  // past, far, huge, on level edges or equal to another link's.
  void randomStep(std::mt19937_64& rng) {
    auto pick = [&rng](uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng); };
    auto after = [this](uint64_t ticks) { return cur_ + std::min(ticks, UINT64_MAX - cur_); };
    if (cur_ > UINT64_MAX / 2) reopen(pick(uint64_t{1} << 50));
    const size_t i = pick(links_.size()), other = pick(links_.size());
    const uint64_t op = pick(100);
    if (op < 40) {
      const uint64_t ticks[] = {
          cur_ - std::min(cur_, pick(1000)), after(pick(uint64_t{1} << 40)), UINT64_MAX - pick(1u << 20),
          after(pick(uint64_t{1} << 20)), after((uint64_t{1} << (6 * pick(11))) + pick(3) - 1),
          held_[other] ? expires_[other] : after(pick(5000)), after(pick(300))};
      const uint64_t tick = ticks[std::min<uint64_t>(pick(10), 6)];
      const bool absolute = pick(2) != 0 || tick < cur_;
      add(i, absolute ? tick : tick - cur_, absolute);
    } else if (op < 55) {
      del(i);
    } else if (op < 70) {
      advanceTo(cur_ + 1 + pick(70));
      drain(pick(2) ? SIZE_MAX : pick(4));  // sometimes leave expired links behind
    } else if (op < 84) {
      advanceTo(op < 80 ? cur_ + 1 + pick(5000) : after(pick(uint64_t{1} << (1 + pick(40)))));
      drain();
    } else if (op < 86) {
      advanceTo(cur_ - std::min(cur_, pick(10)));  // backwards: ignored
    } else if (op < 96) {
      advanceByTimeout();
    } else if (op < 97) {
      if (pick(8) == 0) advanceTo(UINT64_MAX - pick(1000));  // the end of time: everything falls due
      drain();
    } else if (op < 98 && pick(links_.size()) < 256) {  // reopening visits every link
      reopen(pick(2) ? 0 : pick(uint64_t{1} << 50));
    }
    check(i);
  }

 private:
  bool expect(bool ok, const char* what, size_t link) {
    if (!ok) {
      failed_ = true;
      fail_(what, link);
    }
    return ok;
  }

  void forget(size_t i) {
    if (held_[i]) ref_.erase({expires_[i], i});
    held_[i] = false;
  }

  std::vector<timeout> links_;
  std::vector<bool> held_;
  std::vector<uint64_t> expires_, addSeq_;
  std::vector<int> flags_;
  std::map<uint64_t, uint64_t> lastSeqOfTick_;  // tick -> add sequence of the last link returned for it
  std::set<std::pair<uint64_t, size_t>> ref_;   // (tick, link) of every link held
  uint64_t seq_ = 0, cur_ = 0;
  size_t fired_ = 0;
  bool failed_ = false;
  Fail fail_;
  timeouts* T_ = nullptr;
};

}  // namespace TolanTest
