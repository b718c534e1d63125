// Interned strings with counted references.
#include "Tolan/ConstStringCache.h"
#include "support/Support.h"

using namespace TolanTest;
using namespace Tolan;

TEST(ConstStringCache, CountsEveryReferenceAndReleasingToZeroRemoves) {
  ConstStringCache cache;
  ConstStringRef a1 = cache.intern("a"), a2 = cache.intern(std::string("a"));
  EXPECT_EQ(a1.elem(), a2.elem());
  EXPECT_EQ(cache.refCount("a"), 2u);
  a1.reset();
  EXPECT_EQ(a1.str(), "");
  {
    ConstStringRef copy(a2), assigned, y = cache.intern("y");
    assigned = copy;
    ConstStringRef moved(std::move(copy));
    EXPECT_TRUE(copy.empty());
    EXPECT_EQ(cache.refCount("a"), 3u);
    assigned = std::move(y);  // releases a's count, takes y's
    EXPECT_TRUE(y.empty());
    EXPECT_EQ(cache.refCount("a"), 2u);
    EXPECT_EQ(cache.refCount("y"), 1u);
  }
  EXPECT_EQ(cache.refCount("y"), 0u);
  // Re-assigning the only reference, or a copy of itself, never drops it.
  const void* elem = a2.elem();
  a2 = a2;
  a2 = ConstStringRef(a2);
  a2 = cache.intern("a");
  EXPECT_EQ(a2.elem(), elem);
  EXPECT_EQ(cache.refCount("a"), 1u);
  EXPECT_EQ(a2.str(), "a");
  a2 = ConstStringRef();
  EXPECT_EQ(cache.size(), 0u);
  ConstStringRef again = cache.intern("a");  // a fresh element, found again by later interning
  EXPECT_EQ(cache.refCount("a"), 1u);
  EXPECT_EQ(cache.intern("a").elem(), again.elem());
}

TEST(ConstStringCache, ReleasingWhatWasNotTakenOrDestroyingWithOpenReferencesAsserts) {
  auto* cache = new ConstStringCache;  // a plain delete: unique_ptr's deleter is noexcept
  ConstStringRef::Elem stray(cache, "s");
  EXPECT_ASSERTS(stray.refCountDec(), "ConstStringRef::refCountDec()");
  EXPECT_EQ(stray.refCount(), 0u);
  // Same text, but not the element the cache holds: must not erase the real one.
  ConstStringRef real = cache->intern("s"), copy = real;
  ConstStringRef::Elem impostor(cache, "s"), unknown(cache, "not there");
  impostor.refCountInc();
  unknown.refCountInc();
  EXPECT_ASSERTS(impostor.refCountDec(), "");
  EXPECT_EQ(cache->intern("s").elem(), real.elem());
  EXPECT_ASSERTS(unknown.refCountDec(), "ConstStringCache::eraseElem()");
  EXPECT_ASSERTS(delete cache, "Destroying ConstStringCache with open references");
  // The surviving references still read their string and free it when they
  // go (the sanitizer build checks there is neither a leak nor a stray access).
  EXPECT_EQ(real.str(), "s");
  EXPECT_EQ(copy.elem()->refCount(), 2u);
  EXPECT_EQ(copy.elem()->cache(), nullptr);
}
