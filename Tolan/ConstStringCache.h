// ConstStringCache.h - interned, reference-counted constant strings.
//
// Names that are recorded over and over (task names in every statistics
// record and history event) are stored once in a ConstStringCache; holders
// keep a ConstStringRef, one pointer wide. Copying a reference costs one
// increment and no allocation; the string is hashed only when it is interned
// and when its last reference goes, at which point it leaves the cache.
//
//   ConstStringCache cache;
//   ConstStringRef a = cache.intern("worker");   // count 1
//   ConstStringRef b = a;                        // count 2, no allocation
//   a.str();                                     // "worker"
//
// A cache must outlive every reference into it: destroying one that still has
// elements is a library assertion ("Destroying ConstStringCache with open
// references"). Releasing more references than were taken is one too.
//
// Not thread-safe: a cache and all references into it belong to one thread
// (counts are plain integers).
#pragma once

#include <fmt/core.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Tolan/Assert.h"
#include "Tolan/Common.h"

namespace Tolan {

class ConstStringCache;

class TOLAN_EXPORT ConstStringRef {
 public:
  // One interned string: its cache, the text and the count of references.
  class Elem {
   public:
    // Elements are made by ConstStringCache::intern(); a free-standing one
    // (count 0, in no cache's set) is only good for exercising the checks.
    Elem(ConstStringCache* cache, std::string text) : cache_(cache), str_(std::move(text)) {}
    Elem(const Elem&) = delete;
    Elem& operator=(const Elem&) = delete;

    const std::string& str() const noexcept { return str_; }
    uint32_t refCount() const noexcept { return refCount_; }
    const ConstStringCache* cache() const noexcept { return cache_; }

    void refCountInc() const noexcept { ++refCount_; }
    // Drops one reference; the last one removes the element from its cache
    // and frees it. Library assertion when the count is already 0, or when
    // the element is not the one its cache holds for its string.
    void refCountDec() const {
      if (TOLAN_LIKELY(refCount_ > 1)) {
        --refCount_;
        return;
      }
      TOLAN_ASSERT_C(refCount_ != 0, ConstStringRef, "refCount already 0 for \"{}\"", str_);
      refCount_ = 0;
      release();
    }

   private:
    friend class ConstStringCache;
    // The last reference went: leave the cache and free the element.
    void release() const;

    ConstStringCache* cache_;  // null once the cache is gone (see ~ConstStringCache)
    const std::string str_;
    mutable uint32_t refCount_ = 0;
  };

  constexpr ConstStringRef() noexcept = default;
  ConstStringRef(const ConstStringRef& other) noexcept : elem_(other.elem_) {
    if (elem_) elem_->refCountInc();
  }
  ConstStringRef(ConstStringRef&& other) noexcept : elem_(other.elem_) { other.elem_ = nullptr; }
  // Takes the new reference before releasing the old one, so assigning a
  // reference to the same string never drops the element.
  ConstStringRef& operator=(const ConstStringRef& other) {
    const Elem* old = elem_;
    elem_ = other.elem_;
    if (elem_) elem_->refCountInc();
    if (old) old->refCountDec();
    return *this;
  }
  ConstStringRef& operator=(ConstStringRef&& other) {
    if (this != &other) {
      const Elem* old = elem_;
      elem_ = other.elem_;
      other.elem_ = nullptr;
      if (old) old->refCountDec();
    }
    return *this;
  }
  // A failed release check here ends the process (destructors do not throw).
  ~ConstStringRef() {
    if (elem_) elem_->refCountDec();
  }

  // Releases the reference; the reference becomes empty.
  void reset() {
    const Elem* old = elem_;
    elem_ = nullptr;
    if (old) old->refCountDec();
  }

  // The string, or an empty string for an empty reference.
  const std::string& str() const noexcept { return elem_ ? elem_->str() : emptyString(); }
  bool empty() const noexcept { return elem_ == nullptr; }
  explicit operator bool() const noexcept { return elem_ != nullptr; }
  const Elem* elem() const noexcept { return elem_; }

  // References compare and hash by element: within one cache, equal
  // elements mean equal strings. References from different caches to the
  // same text are different keys.
  friend bool operator==(const ConstStringRef& a, const ConstStringRef& b) noexcept { return a.elem_ == b.elem_; }
  friend bool operator!=(const ConstStringRef& a, const ConstStringRef& b) noexcept { return a.elem_ != b.elem_; }

 private:
  friend class ConstStringCache;
  // Adopts a count already taken on `elem`.
  explicit ConstStringRef(const Elem* elem) noexcept : elem_(elem) {}
  static const std::string& emptyString() noexcept;

  const Elem* elem_ = nullptr;
};

class TOLAN_EXPORT ConstStringCache {
 public:
  ConstStringCache() = default;
  ConstStringCache(const ConstStringCache&) = delete;
  ConstStringCache& operator=(const ConstStringCache&) = delete;
  // Library assertion when references are still open. The elements they hold
  // are then detached from the cache, so those references stay readable and
  // free their element when they go. The destructor may throw; a class whose
  // destructor must not (one overriding a noexcept virtual destructor) holds
  // its cache through a unique_ptr, which turns the assertion into an abort.
  ~ConstStringCache() noexcept(false);

  // A counted reference to `text`, interned on first use. Allocates only
  // when the string is new to the cache.
  ConstStringRef intern(std::string_view text);

  // Room for `n` distinct strings without rehashing, for a caller that is
  // about to intern many at once.
  void reserve(size_t n) { elems_.reserve(n); }

  // Number of distinct strings held.
  size_t size() const noexcept { return elems_.size(); }
  // The count of `text`, 0 when it is not interned. For diagnostics and tests.
  uint32_t refCount(std::string_view text) const noexcept;

 private:
  friend class ConstStringRef::Elem;
  void eraseElem(const ConstStringRef::Elem& elem);

  // Keyed by a view of the element's own, immutable string.
  std::unordered_map<std::string_view, ConstStringRef::Elem*> elems_;
};

}  // namespace Tolan

namespace std {
template <>
struct hash<Tolan::ConstStringRef> {
  size_t operator()(const Tolan::ConstStringRef& ref) const noexcept {
    return std::hash<const void*>()(ref.elem());
  }
};
}  // namespace std

template <>
struct fmt::formatter<Tolan::ConstStringRef> : fmt::formatter<fmt::string_view> {
  TOLAN_EXPORT format_context::iterator format(const Tolan::ConstStringRef& ref, format_context& ctx) const;
};
