/* Impl/Timeouts.h - a hierarchical timing wheel with a C interface.
 *
 * Keeps any number of timeouts, each an intrusive `struct timeout` link that
 * the caller embeds in its own object, and reports which have fallen due as
 * the caller advances the wheel's clock. Time is counted in whole ticks (an
 * unsigned 64-bit count; the wheel only remembers the rate it was opened
 * with, the caller converts). Use it when a thread holds many timers and an
 * ordered heap of them costs too much: this is what TimerWheel sits on.
 *
 * Cost: add and delete are constant time and touch only the neighbouring
 * links; timeouts_update() costs in proportion to the slots it passes and the
 * links it moves (each link moves down at most once per level in its life);
 * timeouts_timeout() looks at one occupancy word per level. Moving links
 * keeps several cache misses in flight, so a million timers cost about what
 * a thousand do. Nothing is allocated after timeouts_open(); a link is 40
 * bytes and the wheel itself about 90 KiB, mostly list heads.
 *
 * Order: links of one tick come out of timeouts_get() in the order of their
 * last timeouts_add(); links of different ticks that fall due in one update
 * come out in no particular order (TimerWheel sorts by exact time).
 *
 * Not thread safe: a wheel and its links belong to one thread at a time.
 * Usable from C and C++.
 *
 * Internal to the library (TimerWheel is the public face) and not installed.
 * The functions are exported all the same, so that the in-tree tests, the
 * fuzzer and the benchmark can drive the wheel as a unit.
 */
#pragma once

#ifdef __cplusplus
#include <cstdint>

#include "Tolan/Common.h"
extern "C" {
#else
#include <stdbool.h>
#include <stdint.h>
/* C callers only import these functions. */
#define TOLAN_EXPORT
#endif

typedef uint64_t timeout_t;

/* In a link's flags: the tick given to timeouts_add() is absolute. Without
 * it the tick counts from the wheel's current tick (saturating). */
#define TIMEOUT_ABS 0x02

/* Returned by timeouts_timeout() when the wheel holds nothing. */
#define TIMEOUT_NEVER UINT64_MAX

struct timeout_list;
struct timeouts;

/* One timeout. Initialise it with timeout_init() before first use; the
 * library reads bit TIMEOUT_ABS of `flags` and never writes `flags`, so the
 * other bits are the caller's. The remaining fields are the wheel's. A link
 * is on at most one wheel at a time and must be deleted (or the wheel
 * closed) before its memory goes away. */
struct timeout {
  int flags;
  timeout_t expires;            /* absolute tick, valid while pending */
  struct timeout_list* pending; /* the wheel list holding the link, or null */
  struct timeout* next;
  struct timeout* prev;
};

/* A new, empty wheel at current tick 0 running at `hz` ticks per second.
 * Null on failure with *error set (EINVAL for hz 0, ENOMEM); `error` may be
 * null. */
TOLAN_EXPORT struct timeouts* timeouts_open(timeout_t hz, int* error);

/* Detaches every link still held (they read as not pending afterwards) and
 * frees the wheel. Null is ignored. */
TOLAN_EXPORT void timeouts_close(struct timeouts* T);

/* Sets the flags and marks the link as held by no wheel. Returns `link`. */
TOLAN_EXPORT struct timeout* timeout_init(struct timeout* link, int flags);

/* True while the link is held by a wheel (waiting or already expired). */
TOLAN_EXPORT bool timeout_pending(const struct timeout* link);

/* Arms `link` for `tick` (absolute with TIMEOUT_ABS, else relative to the
 * current tick). A link already held by this wheel is moved, never doubled.
 * A tick at or before the current one makes the link expired at once. */
TOLAN_EXPORT void timeouts_add(struct timeouts* T, struct timeout* link, timeout_t tick);

/* Disarms `link`, whether waiting or expired but not yet fetched. A link that
 * is not held does nothing. A link held by another wheel is a library
 * assertion. */
TOLAN_EXPORT void timeouts_del(struct timeouts* T, struct timeout* link);

/* Advances the wheel to `curtick`; links whose tick is at or before it become
 * expired. A tick earlier than the current one is ignored (the clock never
 * runs backwards). */
TOLAN_EXPORT void timeouts_update(struct timeouts* T, timeout_t curtick);

/* Removes and returns one expired link, or null when none is left. */
TOLAN_EXPORT struct timeout* timeouts_get(struct timeouts* T);

/* True when timeouts_get() would return a link. */
TOLAN_EXPORT bool timeouts_expired(struct timeouts* T);

/* True when links are waiting for a later tick. */
TOLAN_EXPORT bool timeouts_pending(struct timeouts* T);

/* Ticks the caller may wait before the next update can expire something:
 * 0 when links are already expired, TIMEOUT_NEVER when nothing is held.
 * Never more than the distance to the earliest waiting link; it may be less
 * when that link sits on a coarse level, in which case the update at that
 * point refines it (a link needs at most one such step per level). */
TOLAN_EXPORT timeout_t timeouts_timeout(struct timeouts* T);

/* The current tick (the last value given to timeouts_update(), or 0). */
TOLAN_EXPORT timeout_t timeouts_current(const struct timeouts* T);

#ifdef __cplusplus
}
#endif
