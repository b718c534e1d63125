#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "Tolan/IntrusiveBookmarkLinkedList.h"
#include "Tolan/IntrusiveLinkedListBase.h"

namespace {

using namespace Tolan;

// An element that can be on a plain list and a bookmark list at once, as a
// task is on a run queue and on its scheduler's list of all tasks.
struct Item {
  explicit Item(int i) : id(i) {}
  int id;
  ListLinkNode<Item> queueLink;
  BookmarkListLinkNode<Item> allLink;
};
using Queue = List<Item, ListLinkNode<Item>, &Item::queueLink, void>;
using AllList = BookmarkList<Item, BookmarkListLinkNode<Item>, &Item::allLink, void>;

template <typename L>
std::vector<int> ids(const L& list) {
  std::vector<int> out;
  for (const Item& item : list) out.push_back(item.id);
  return out;
}

TEST(IntrusiveListTest, QueueOperationsKeepOrderAndUnlinkInConstantTime) {
  Item a(1), b(2), c(3), d(4);
  Queue q;
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.front(), nullptr);
  EXPECT_EQ(q.popFront(), nullptr);

  q.pushBack(b);
  q.pushBack(c);
  q.pushFront(a);
  EXPECT_EQ(ids(q), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(q.front(), &a);

  // An element leaves its list without the list being named.
  Queue::unlinkElement(b);
  EXPECT_FALSE(Queue::isLinked(b));
  EXPECT_EQ(ids(q), (std::vector<int>{1, 3}));
  Queue::unlinkElement(b);  // unlinking twice is harmless

  Queue other;
  other.pushBack(d);
  other.pushBack(b);
  q.spliceBack(other);
  EXPECT_TRUE(other.empty());
  EXPECT_EQ(ids(q), (std::vector<int>{1, 3, 4, 2}));

  EXPECT_EQ(q.popFront(), &a);
  EXPECT_FALSE(Queue::isLinked(a));
  EXPECT_EQ(ids(q), (std::vector<int>{3, 4, 2}));
  // The same element may be on a queue and on the all-tasks list.
  AllList all;
  all.pushBack(c);
  EXPECT_TRUE(Queue::isLinked(c));
  EXPECT_TRUE(AllList::isLinked(c));
}

TEST(IntrusiveListTest, DestroyedElementsAndListsUnlinkThemselves) {
  Queue q;
  Item a(1);
  {
    Item gone(2);
    q.pushBack(a);
    q.pushBack(gone);
  }
  EXPECT_EQ(ids(q), (std::vector<int>{1}));

  Item survivor(3);
  {
    AllList all;
    all.pushBack(survivor);
  }
  EXPECT_FALSE(AllList::isLinked(survivor));
  // Free again, so it may be linked anew.
  AllList again;
  again.pushBack(survivor);
  EXPECT_EQ(ids(again), (std::vector<int>{3}));
}

TEST(IntrusiveListTest, IteratorsPassOverBookmarks) {
  AllList all;
  AllList::Bookmark lone;
  lone.insertBefore(all.end());
  EXPECT_FALSE(all.empty());
  EXPECT_FALSE(all.hasElements());
  EXPECT_EQ(all.begin(), all.end());

  Item a(1), b(2), c(3);
  all.pushBack(a);
  all.pushFront(b);
  AllList::Bookmark inner, tail;
  inner.insertBefore(std::next(all.begin()));  // before a
  tail.insertBefore(all.end());
  EXPECT_EQ(ids(all), (std::vector<int>{2, 1}));
  all.pushBack(c);
  EXPECT_EQ(ids(all), (std::vector<int>{2, 1, 3}));
  EXPECT_TRUE(all.hasElements());
}

TEST(IntrusiveListTest, ResumeAfterTheBookmarkedElementWasRemoved) {
  AllList all;
  Item a(1), b(2), c(3);
  all.pushBack(a);
  all.pushBack(b);
  all.pushBack(c);
  AllList::Bookmark mark;
  auto it = all.resumeFrom(mark);  // not parked: starts at the head
  ASSERT_EQ(&*it, &a);
  ++it;
  mark.insertBefore(it);  // paused in front of b
  AllList::unlinkElement(b);
  auto resumed = all.resumeFrom(mark);
  EXPECT_FALSE(mark.isLinked());
  ASSERT_NE(resumed, all.end());
  EXPECT_EQ(&*resumed, &c);
  EXPECT_EQ(++resumed, all.end());
}

using IntrusiveListDeathTest = ::testing::Test;

TEST_F(IntrusiveListDeathTest, LinkingALinkedNodeAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Item a(1);
  Queue q1, q2;
  q1.pushBack(a);
  EXPECT_DEATH(q2.pushBack(a), "IntrusiveLinkedListBase.*beingLinked.*!\\( element\\.\\*ptrToLinkNode \\)\\.isLinked\\(\\)");
  EXPECT_DEATH(q1.pushFront(a), "beingLinked");
  AllList all;
  AllList::Bookmark mark;
  mark.insertBefore(all.end());
  EXPECT_DEATH(mark.insertBefore(all.end()),
               "IntrusiveBookmarkLinkedList.*Bookmark::insertBefore.*!link\\.isLinked\\(\\)");
}

// The resumable walk against a reference model. The list is walked a few
// elements at a time; between steps the walk is paused on a bookmark while
// elements are added at either end and removed (unlinked or destroyed)
// anywhere, including right after the bookmark. The reference is a plain
// std::list of ids in which kMark stands for the bookmark; a resumed walk
// must visit exactly what follows kMark in the reference, in order.
TEST(IntrusiveListTest, PausedWalkMatchesReferenceModel) {
  constexpr int kMark = -1;
  constexpr int kOtherMark = -2;  // a second walker's bookmark, never resumed
  for (unsigned seed = 1; seed <= 200; ++seed) {
    std::mt19937 rng(seed);
    auto chance = [&](unsigned percent) { return rng() % 100 < percent; };

    AllList all;
    std::list<int> reference;
    std::vector<std::unique_ptr<Item>> items;  // index == id; null once destroyed
    auto addItem = [&](bool back) {
      items.push_back(std::make_unique<Item>(static_cast<int>(items.size())));
      Item& item = *items.back();
      if (back) {
        all.pushBack(item);
        reference.push_back(item.id);
      } else {
        all.pushFront(item);
        reference.push_front(item.id);
      }
    };
    const int initial = static_cast<int>(rng() % 12);
    for (int i = 0; i < initial; ++i) addItem(true);

    AllList::Bookmark other;
    if (chance(50)) {
      // Park the other walker somewhere in the initial list.
      auto pos = all.begin();
      std::advance(pos, initial ? rng() % (initial + 1) : 0);
      auto refPos = std::find_if(reference.begin(), reference.end(),
                                 [&](int id) { return pos != all.end() && id == pos->id; });
      other.insertBefore(pos);
      reference.insert(refPos, kOtherMark);
    }

    std::set<int> initialIds(reference.begin(), reference.end());
    initialIds.erase(kOtherMark);
    std::set<int> removed, addedAfter, addedBefore;
    std::vector<int> visited;
    AllList::Bookmark mark;
    bool finished = false;
    while (!finished) {
      // Resume: the expected sequence is everything after kMark (or all).
      auto refIt = std::find(reference.begin(), reference.end(), kMark);
      refIt = refIt == reference.end() ? reference.begin() : std::next(refIt);
      if (mark.isLinked()) reference.remove(kMark);

      const unsigned budget = 1 + rng() % 4;
      unsigned done = 0;
      auto it = all.resumeFrom(mark);
      for (; it != all.end(); ++it) {
        while (refIt != reference.end() && *refIt < 0) ++refIt;
        ASSERT_NE(refIt, reference.end()) << "seed " << seed;
        ASSERT_EQ(it->id, *refIt) << "seed " << seed;
        if (done == budget) break;
        visited.push_back(it->id);
        ++done;
        ++refIt;
      }
      if (it == all.end()) {
        while (refIt != reference.end() && *refIt < 0) ++refIt;
        ASSERT_EQ(refIt, reference.end()) << "seed " << seed;
        finished = true;
        break;
      }
      mark.insertBefore(it);
      reference.insert(std::find(reference.begin(), reference.end(), it->id), kMark);

      // Meddle while paused.
      const unsigned ops = rng() % 5;
      for (unsigned op = 0; op < ops; ++op) {
        const unsigned kind = rng() % 4;
        if (kind == 0) {
          addItem(true);
          addedAfter.insert(items.back()->id);
        } else if (kind == 1) {
          addItem(false);
          addedBefore.insert(items.back()->id);
        } else {
          std::vector<int> live;
          for (int id : reference)
            if (id >= 0) live.push_back(id);
          if (live.empty()) continue;
          // Favour the element the walk resumes at.
          auto afterMark = std::next(std::find(reference.begin(), reference.end(), kMark));
          while (afterMark != reference.end() && *afterMark < 0) ++afterMark;
          int victim = (afterMark != reference.end() && chance(40)) ? *afterMark : live[rng() % live.size()];
          if (kind == 2) {
            AllList::unlinkElement(*items[victim]);
          } else {
            items[victim].reset();  // auto-unlink
          }
          reference.remove(victim);
          removed.insert(victim);
        }
      }
    }

    // Nothing twice; removed elements not after their removal is checked by
    // the sequence comparison above; here the overall accounting.
    std::multiset<int> counts(visited.begin(), visited.end());
    for (int id : visited) ASSERT_EQ(counts.count(id), 1u) << "seed " << seed << " id " << id;
    for (int id : initialIds) {
      if (removed.count(id)) continue;
      EXPECT_EQ(counts.count(id), 1u) << "seed " << seed << " initial " << id;
    }
    for (int id : addedAfter) {
      if (removed.count(id)) continue;
      EXPECT_EQ(counts.count(id), 1u) << "seed " << seed << " added after " << id;
    }
    for (int id : addedBefore) EXPECT_EQ(counts.count(id), 0u) << "seed " << seed << " added before " << id;
    EXPECT_FALSE(mark.isLinked());
  }
}

}  // namespace
