#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tolan/ConstStringCache.h"
#include "Tolan/Exception.h"

namespace {

using namespace Tolan;

// Switches assertions to throwing, so that the test can catch them.
auto raisesAssertion(const char* text) {
  throwOnAssertFailIs(true);
  return ::testing::ThrowsMessage<AssertException>(::testing::HasSubstr(text));
}

TEST(ConstStringCacheTest, InterningCountsAndReleasingToZeroRemoves) {
  ConstStringCache cache;
  ConstStringRef a1 = cache.intern("a");
  ConstStringRef a2 = cache.intern(std::string("a"));
  EXPECT_EQ(a1.elem(), a2.elem());
  EXPECT_EQ(cache.refCount("a"), 2u);
  EXPECT_EQ(cache.size(), 1u);
  EXPECT_EQ(a1.str(), "a");
  a1.reset();
  EXPECT_EQ(a1.str(), "");
  EXPECT_EQ(cache.refCount("a"), 1u);
  a2 = ConstStringRef();
  EXPECT_EQ(cache.size(), 0u);
  // A fresh element, count 1, found again by later interning.
  ConstStringRef again = cache.intern("a");
  EXPECT_EQ(cache.refCount("a"), 1u);
  EXPECT_EQ(cache.intern("a").elem(), again.elem());
}

TEST(ConstStringCacheTest, CopiesMovesAndAssignmentKeepCountsExact) {
  ConstStringCache cache;
  ConstStringRef x = cache.intern("x");
  {
    ConstStringRef copy(x), assigned;
    assigned = copy;
    ConstStringRef moved(std::move(copy));
    EXPECT_TRUE(copy.empty());
    EXPECT_EQ(cache.refCount("x"), 3u);
    ConstStringRef y = cache.intern("y");
    assigned = std::move(y);  // releases x's count, takes y's
    EXPECT_TRUE(y.empty());
    EXPECT_EQ(cache.refCount("x"), 2u);
    EXPECT_EQ(cache.refCount("y"), 1u);
  }
  EXPECT_EQ(cache.refCount("x"), 1u);
  EXPECT_EQ(cache.refCount("y"), 0u);

  // Re-assigning the only reference, or a copy of itself, never drops it.
  const void* elem = x.elem();
  x = x;
  x = ConstStringRef(x);
  x = cache.intern("x");
  EXPECT_EQ(x.elem(), elem);
  EXPECT_EQ(cache.refCount("x"), 1u);
  EXPECT_EQ(x.str(), "x");
}

TEST(ConstStringCacheTest, ReleasingWhatWasNotTakenIsAnAssertion) {
  ConstStringCache cache;
  ConstStringRef::Elem stray(&cache, "s");
  EXPECT_THAT([&] { stray.refCountDec(); }, raisesAssertion("ConstStringRef::refCountDec()"));
  EXPECT_EQ(stray.refCount(), 0u);

  // Same text, but not the element the cache holds: must not erase the real one.
  ConstStringRef real = cache.intern("s");
  ConstStringRef::Elem impostor(&cache, "s"), unknown(&cache, "not there");
  impostor.refCountInc();
  unknown.refCountInc();
  EXPECT_THAT([&] { impostor.refCountDec(); }, raisesAssertion(""));
  EXPECT_EQ(cache.refCount("s"), 1u);
  EXPECT_EQ(cache.intern("s").elem(), real.elem());
  EXPECT_THAT([&] { unknown.refCountDec(); }, raisesAssertion("ConstStringCache::eraseElem()"));
}

TEST(ConstStringCacheTest, DestroyingACacheWithOpenReferencesIsAnAssertion) {
  // A plain delete: unique_ptr's deleter is noexcept and would end the test.
  auto* cache = new ConstStringCache;
  ConstStringRef open = cache->intern("open");
  ConstStringRef copy = open;
  EXPECT_THAT([&] { delete cache; }, raisesAssertion("Destroying ConstStringCache with open references"));
  // The surviving references still read their string and free it when they
  // go (the sanitizer build checks there is neither a leak nor a stray access).
  EXPECT_EQ(open.str(), "open");
  EXPECT_EQ(copy.elem()->refCount(), 2u);
  EXPECT_EQ(copy.elem()->cache(), nullptr);
}

}  // namespace
