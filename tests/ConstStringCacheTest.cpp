#include <gtest/gtest.h>

#include <memory>
#include <unordered_map>

#include "Tolan/Assert.h"
#include "Tolan/ConstStringCache.h"
#include "Tolan/Exception.h"

namespace {

using namespace Tolan;

class ConstStringCacheTest : public ::testing::Test {
 protected:
  void SetUp() override { throwOnAssertFailIs(true); }
};

TEST_F(ConstStringCacheTest, InterningCountsAndReleasingToZeroRemoves) {
  ConstStringCache cache;
  ConstStringRef a1 = cache.intern("a");
  ConstStringRef a2 = cache.intern(std::string("a"));
  EXPECT_EQ(a1.elem(), a2.elem());
  EXPECT_EQ(a1, a2);
  EXPECT_EQ(cache.refCount("a"), 2u);
  EXPECT_EQ(cache.size(), 1u);
  EXPECT_EQ(a1.str(), "a");

  a1.reset();
  EXPECT_TRUE(a1.empty());
  EXPECT_EQ(a1.str(), "");
  EXPECT_EQ(cache.refCount("a"), 1u);
  a2 = ConstStringRef();
  EXPECT_EQ(cache.size(), 0u);
  EXPECT_EQ(cache.refCount("a"), 0u);

  // A fresh element, count 1, found again by later interning.
  ConstStringRef again = cache.intern("a");
  EXPECT_EQ(cache.refCount("a"), 1u);
  EXPECT_EQ(cache.intern("a").elem(), again.elem());
}

TEST_F(ConstStringCacheTest, CopiesMovesAndAssignmentKeepCountsExact) {
  ConstStringCache cache;
  ConstStringRef x = cache.intern("x");
  {
    ConstStringRef copy(x);
    ConstStringRef assigned;
    assigned = copy;
    EXPECT_EQ(cache.refCount("x"), 3u);
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
  x = x;
  EXPECT_EQ(cache.refCount("x"), 1u);
  const void* elem = x.elem();
  x = ConstStringRef(x);
  EXPECT_EQ(x.elem(), elem);
  EXPECT_EQ(cache.refCount("x"), 1u);
  x = cache.intern("x");
  EXPECT_EQ(x.elem(), elem);
  EXPECT_EQ(cache.refCount("x"), 1u);
  EXPECT_EQ(x.str(), "x");
}

TEST_F(ConstStringCacheTest, ReferencesKeyHashMapsByElement) {
  ConstStringCache cache;
  std::unordered_map<ConstStringRef, int> table;
  table[cache.intern("w")] += 1;
  table[cache.intern("w")] += 1;
  table[cache.intern("v")] += 1;
  EXPECT_EQ(table.size(), 2u);
  EXPECT_EQ(table[cache.intern("w")], 2);
  table.clear();
  EXPECT_EQ(cache.size(), 0u);
}

TEST_F(ConstStringCacheTest, ReleasingAnElementAtZeroIsAnAssertion) {
  ConstStringCache cache;
  ConstStringRef::Elem stray(&cache, "s");
  try {
    stray.refCountDec();
    FAIL() << "no assertion";
  } catch (const AssertException& e) {
    EXPECT_NE(e.message().find("ConstStringRef::refCountDec()"), std::string::npos) << e.message();
  }
  EXPECT_EQ(stray.refCount(), 0u);
}

TEST_F(ConstStringCacheTest, ReleasingAnElementItsCacheDoesNotHoldIsAnAssertion) {
  ConstStringCache cache;
  ConstStringRef real = cache.intern("s");
  // Same text, but not the element the cache holds: must not erase the real one.
  ConstStringRef::Elem impostor(&cache, "s");
  impostor.refCountInc();
  EXPECT_THROW(impostor.refCountDec(), AssertException);
  EXPECT_EQ(cache.refCount("s"), 1u);
  EXPECT_EQ(cache.intern("s").elem(), real.elem());

  ConstStringRef::Elem unknown(&cache, "not there");
  unknown.refCountInc();
  try {
    unknown.refCountDec();
    FAIL() << "no assertion";
  } catch (const AssertException& e) {
    EXPECT_NE(e.message().find("ConstStringCache::eraseElem()"), std::string::npos) << e.message();
  }
}

TEST_F(ConstStringCacheTest, DestroyingACacheWithOpenReferencesIsAnAssertion) {
  // A plain delete: unique_ptr's deleter is noexcept and would end the test.
  auto* cache = new ConstStringCache;
  ConstStringRef open = cache->intern("open");
  ConstStringRef copy = open;
  try {
    delete cache;
    FAIL() << "no assertion";
  } catch (const AssertException& e) {
    EXPECT_NE(e.message().find("Destroying ConstStringCache with open references"), std::string::npos)
        << e.message();
  }
  // The surviving references still read their string and free it when they
  // go (the sanitizer build checks there is neither a leak nor a stray access).
  EXPECT_EQ(open.str(), "open");
  EXPECT_EQ(copy.elem()->refCount(), 2u);
  EXPECT_EQ(copy.elem()->cache(), nullptr);
}

}  // namespace
