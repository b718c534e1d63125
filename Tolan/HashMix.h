// HashMix.h - small, fast, non-cryptographic hashing of byte ranges.
//
// HashMix<W> is an FNV-1a style accumulator that folds one machine word
// (4 bytes for 32-bit, 8 bytes for 64-bit) per multiply instead of one byte,
// using the published FNV offset bases and primes. Its values therefore
// differ from byte-wise FNV-1a on purpose; do not compare them with hashes
// produced elsewhere, and do not persist them across byte orders (the words
// are read little-endian, the only order the library runs on).
//
// Use it for hash tables and fingerprints of keys held in memory; it is not
// resistant to chosen inputs. Cost: one xor and one multiply per word, no
// allocation, no locking. An accumulator is a plain value: use one per thread.
//
//   uint64_t h = Tolan::Util::hash64(key.data(), key.size());
//   Tolan::Impl::HashMix<uint32_t> m;               // starts at the offset basis
//   m.mixFixedLen<4>(&id); m.mix(name);             // fold several fields
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "Tolan/Common.h"

namespace Tolan {
namespace Impl {

template <typename W>
class TOLAN_EXPORT HashMix {
  static_assert(std::is_same<W, uint32_t>::value || std::is_same<W, uint64_t>::value,
                "HashMix is defined for 32- and 64-bit unsigned words only");
  static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "HashMix reads words little-endian");

 public:
  static constexpr size_t kWordSize = sizeof(W);
  static constexpr W kOffsetBasis = sizeof(W) == 4 ? W(0x811c9dc5u) : W(0xcbf29ce484222325ull);
  static constexpr W kPrime = sizeof(W) == 4 ? W(0x01000193u) : W(0x100000001b3ull);

  constexpr explicit HashMix(W initial = kOffsetBasis) noexcept : h_(initial) {}

  // Folds `len` bytes at `data` (null is fine when len is 0) and returns the
  // accumulator. Whole words are folded in order; a tail of 1 to kWordSize-1
  // bytes is folded as one word with those bytes at its high-order end.
  W mix(const void* data, size_t len) noexcept;
  W mix(const String& s) noexcept { return mix(s.data(), s.size()); }

  // The body of mix(), for callers that want it inlined into a hot loop.
  inline W mixInline(const void* data, size_t len) noexcept;

  // Folds exactly N (1, 2, 4 or 8) bytes at `p`, with the same result as
  // mix(p, N) but without a loop or a length test.
  template <size_t N>
  W mixFixedLen(const void* p) noexcept;

  W value() const noexcept { return h_; }

 private:
  static W load(const unsigned char* p) noexcept {
    W w;
    std::memcpy(&w, p, sizeof w);
    return w;
  }
  void fold(W w) noexcept { h_ = (h_ ^ w) * kPrime; }

  W h_;
};

template <typename W>
inline W HashMix<W>::mixInline(const void* data, size_t len) noexcept {
  const auto* p = static_cast<const unsigned char*>(data);
  const size_t total = len;
  W h = h_;
  while (len >= kWordSize) {
    h = (h ^ load(p)) * kPrime;
    p += kWordSize;
    len -= kWordSize;
  }
  if (len != 0) {
    const unsigned shift = static_cast<unsigned>(8 * (kWordSize - len));
    W w;
    if (total >= kWordSize) {
      // Read the last whole word of the input (overlapping bytes already
      // folded) and drop those bytes: the tail lands at the high-order end.
      w = (load(p + len - kWordSize) >> shift) << shift;
    } else {
      w = 0;
      for (size_t i = 0; i < len; ++i) w |= W(p[i]) << (shift + 8 * i);
    }
    h = (h ^ w) * kPrime;
  }
  h_ = h;
  return h;
}

template <typename W>
template <size_t N>
inline W HashMix<W>::mixFixedLen(const void* p) noexcept {
  static_assert(N == 1 || N == 2 || N == 4 || N == 8, "mixFixedLen takes 1, 2, 4 or 8 bytes");
  const auto* b = static_cast<const unsigned char*>(p);
  if constexpr (N >= kWordSize) {
    for (size_t i = 0; i < N; i += kWordSize) fold(load(b + i));
  } else if constexpr (N == 1) {
    fold(W(b[0]) << (8 * (kWordSize - 1)));
  } else if constexpr (N == 2) {
    uint16_t v;
    std::memcpy(&v, b, 2);
    fold(W(v) << (8 * (kWordSize - 2)));
  } else {
    uint32_t v;
    std::memcpy(&v, b, 4);
    fold(W(v) << 32);
  }
  return h_;
}

extern template class HashMix<uint32_t>;
extern template class HashMix<uint64_t>;

}  // namespace Impl

namespace Util {

// 32-bit hash of a byte range: HashMix<uint32_t> from its offset basis.
// An empty range hashes to 0x811c9dc5.
TOLAN_EXPORT uint32_t hash(const void* data, size_t len) noexcept;
// 64-bit hash of a byte range: HashMix<uint64_t> from its offset basis.
// An empty range hashes to 0xcbf29ce484222325.
TOLAN_EXPORT uint64_t hash64(const void* data, size_t len) noexcept;

}  // namespace Util
}  // namespace Tolan
