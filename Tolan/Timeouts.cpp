#include "Tolan/Impl/Timeouts.h"

#include <cerrno>
#include <cstdlib>

#include "Tolan/Assert.h"

// Layout. A tick is read as eleven base-64 digits (the top one has 4 bits).
// A waiting link lives on the level of the highest digit in which its expiry
// differs from the current tick, in the slot named by its own digit there.
// So every link on level L shares all digits above L with the current tick
// and has a larger digit at L; it follows that
//  - all links on a lower level expire before any link on a higher level,
//  - on one level, slot order is expiry order (no wrap-around is possible),
//  - advancing the clock only has to look at the slots whose digit it passes.
// Passed slots are emptied and their links re-placed against the new tick:
// they go to a lower level or to the expired list, never back up.
//
// A link always sits on the level its tick has relative to the current tick
// (the update that changes that level moves it), so links of one tick share
// one slot, kept in the order they were added; that order survives every
// move and the expired list.
//
// Each level has a 64-bit occupancy word, so finding passed non-empty slots
// and the earliest slot is a mask and a count-trailing-zeros, not a scan.
//
// Each slot is split into kWays lists by the low bits of the expiry tick.
// Moving a slot is a walk along linked links, and once the links no longer
// fit in the cache every step of one walk is a memory round trip that waits
// for the one before. Walking kWays lists side by side keeps that many
// misses in flight: at a million timers this is what keeps start+expire
// close to its cost at a thousand. Links of one tick share a way, so their
// order is kept.

struct timeout_list {
  struct timeout* first;
  struct timeout* last;
};

namespace {

constexpr unsigned kSlotBits = 6;
constexpr unsigned kSlots = 1u << kSlotBits;
constexpr unsigned kLevels = (64 + kSlotBits - 1) / kSlotBits;  // 11
constexpr unsigned kWays = 8;  // the bits of one uint8_t

}  // namespace

struct timeouts {
  timeout_t hz;
  timeout_t current;
  uint64_t occupied[kLevels];
  uint8_t ways[kLevels * kSlots];  // per slot, a bit for each non-empty way
  timeout_list expired;
  timeout_list slots[kLevels * kSlots * kWays];  // [level][slot][way]
};

namespace {

inline void listAppend(timeout_list* list, timeout* link) {
  link->next = nullptr;
  link->prev = list->last;
  if (list->last)
    list->last->next = link;
  else
    list->first = link;
  list->last = link;
  link->pending = list;
}

inline void listUnlink(timeout_list* list, timeout* link) {
  if (link->prev)
    link->prev->next = link->next;
  else
    list->first = link->next;
  if (link->next)
    link->next->prev = link->prev;
  else
    list->last = link->prev;
  link->next = link->prev = nullptr;
  link->pending = nullptr;
}

inline unsigned levelOf(timeout_t expires, timeout_t current) {
  return (63u - static_cast<unsigned>(__builtin_clzll(expires ^ current))) / kSlotBits;
}

inline void place(timeouts* T, timeout* link) {
  if (link->expires <= T->current) {
    listAppend(&T->expired, link);
    return;
  }
  const unsigned level = levelOf(link->expires, T->current);
  const unsigned slot = static_cast<unsigned>(link->expires >> (level * kSlotBits)) & (kSlots - 1);
  const unsigned way = static_cast<unsigned>(link->expires) & (kWays - 1);
  const unsigned index = level * kSlots + slot;
  listAppend(&T->slots[index * kWays + way], link);
  T->ways[index] |= static_cast<uint8_t>(1u << way);
  T->occupied[level] |= uint64_t{1} << slot;
}

// The list must belong to T; anything else means a link shared between
// wheels, which would corrupt both.
inline bool ownsList(const timeouts* T, const timeout_list* list) {
  return list == &T->expired || (list >= T->slots && list < T->slots + kLevels * kSlots * kWays);
}

void detachAll(timeout_list* list) {
  for (timeout* link = list->first; link;) {
    timeout* next = link->next;
    link->next = link->prev = nullptr;
    link->pending = nullptr;
    link = next;
  }
  list->first = list->last = nullptr;
}

}  // namespace

extern "C" {

struct timeouts* timeouts_open(timeout_t hz, int* error) {
  if (hz == 0) {
    if (error) *error = EINVAL;
    return nullptr;
  }
  // calloc: all lists empty, all occupancy words zero, current tick 0.
  auto* T = static_cast<timeouts*>(std::calloc(1, sizeof(timeouts)));
  if (!T) {
    if (error) *error = ENOMEM;
    return nullptr;
  }
  T->hz = hz;
  if (error) *error = 0;
  return T;
}

void timeouts_close(struct timeouts* T) {
  if (!T) return;
  detachAll(&T->expired);
  for (unsigned level = 0; level < kLevels; ++level) {
    for (uint64_t bits = T->occupied[level]; bits; bits &= bits - 1) {
      const unsigned index = level * kSlots + static_cast<unsigned>(__builtin_ctzll(bits));
      for (unsigned way = 0; way < kWays; ++way) detachAll(&T->slots[index * kWays + way]);
    }
  }
  std::free(T);
}

struct timeout* timeout_init(struct timeout* link, int flags) {
  link->flags = flags;
  link->expires = 0;
  link->pending = nullptr;
  link->next = link->prev = nullptr;
  return link;
}

bool timeout_pending(const struct timeout* link) { return link->pending != nullptr; }

void timeouts_add(struct timeouts* T, struct timeout* link, timeout_t tick) {
  if (link->pending) timeouts_del(T, link);
  if (link->flags & TIMEOUT_ABS) {
    link->expires = tick;
  } else {
    timeout_t sum;
    link->expires = __builtin_add_overflow(T->current, tick, &sum) ? UINT64_MAX : sum;
  }
  place(T, link);
}

void timeouts_del(struct timeouts* T, struct timeout* link) {
  timeout_list* list = link->pending;
  if (!list) return;
  TOLAN_ASSERT(ownsList(T, list), "timeout {} is held by another wheel than {}", static_cast<void*>(link),
               static_cast<void*>(T));
  listUnlink(list, link);
  if (list != &T->expired && !list->first) {
    const auto position = static_cast<unsigned>(list - T->slots);
    const unsigned index = position / kWays;  // level * kSlots + slot
    T->ways[index] &= static_cast<uint8_t>(~(1u << (position % kWays)));
    if (!T->ways[index]) T->occupied[index / kSlots] &= ~(uint64_t{1} << (index % kSlots));
  }
}

void timeouts_update(struct timeouts* T, timeout_t curtick) {
  if (curtick <= T->current) return;
  // Gather the passed slots first and re-place afterwards, so that a link
  // moved down is not met again by this same update.
  timeout_list moving[kWays];
  unsigned movingWays = 0;  // a bit for each way of `moving` in use
  for (unsigned level = 0; level < kLevels; ++level) {
    const unsigned shift = level * kSlotBits;
    const timeout_t from = T->current >> shift;
    const timeout_t to = curtick >> shift;
    if (from == to) break;  // higher digits are unchanged too
    // Digits from+1 .. from+steps. Occupied slots all lie above `from`, so
    // when the run wraps past 63 every one of them is passed and the wrapped
    // part (slots up to `from`) is empty anyway.
    uint64_t passed = ~uint64_t{0};
    const timeout_t steps = to - from;
    if (steps < kSlots) {
      const unsigned start = static_cast<unsigned>(from + 1) & (kSlots - 1);
      passed = ((uint64_t{1} << steps) - 1) << start;
    }
    uint64_t hit = T->occupied[level] & passed;
    T->occupied[level] &= ~hit;
    for (; hit; hit &= hit - 1) {
      const unsigned index = level * kSlots + static_cast<unsigned>(__builtin_ctzll(hit));
      for (unsigned bits = T->ways[index]; bits; bits &= bits - 1) {
        const unsigned way = static_cast<unsigned>(__builtin_ctz(bits));
        timeout_list* src = &T->slots[index * kWays + way];
        timeout_list* dst = &moving[way];
        if (movingWays & (1u << way)) {
          dst->last->next = src->first;
          src->first->prev = dst->last;
        } else {
          dst->first = src->first;
          movingWays |= 1u << way;
        }
        dst->last = src->last;
        src->first = src->last = nullptr;
      }
      T->ways[index] = 0;
    }
  }
  T->current = curtick;
  // One step of every way per round: the next links of different ways do
  // not depend on each other, so their cache misses overlap. Each way's
  // `first` serves as its cursor.
  while (movingWays) {
    for (unsigned bits = movingWays; bits; bits &= bits - 1) {
      const unsigned way = static_cast<unsigned>(__builtin_ctz(bits));
      timeout* link = moving[way].first;
      timeout* next = link->next;
      if (next)
        __builtin_prefetch(next, 1);
      else
        movingWays &= ~(1u << way);
      moving[way].first = next;
      place(T, link);
    }
  }
}

struct timeout* timeouts_get(struct timeouts* T) {
  timeout* link = T->expired.first;
  if (link) listUnlink(&T->expired, link);
  return link;
}

bool timeouts_expired(struct timeouts* T) { return T->expired.first != nullptr; }

bool timeouts_pending(struct timeouts* T) {
  for (unsigned level = 0; level < kLevels; ++level)
    if (T->occupied[level]) return true;
  return false;
}

timeout_t timeouts_timeout(struct timeouts* T) {
  if (T->expired.first) return 0;
  for (unsigned level = 0; level < kLevels; ++level) {
    if (!T->occupied[level]) continue;
    // The earliest occupied slot; its first possible tick has the lower
    // digits zero, exact on level 0 and a lower bound above.
    const unsigned shift = level * kSlotBits;
    const timeout_t slot = static_cast<timeout_t>(__builtin_ctzll(T->occupied[level]));
    const timeout_t start = (((T->current >> shift) & ~timeout_t{kSlots - 1}) | slot) << shift;
    return start - T->current;
  }
  return TIMEOUT_NEVER;
}

timeout_t timeouts_current(const struct timeouts* T) { return T->current; }

}  // extern "C"
