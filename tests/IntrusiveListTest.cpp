// Intrusive lists: the run-queue list and the bookmark list of all tasks.
#include <list>

#include "Tolan/IntrusiveBookmarkLinkedList.h"
#include "Tolan/IntrusiveLinkedListBase.h"
#include "support/Support.h"

using namespace TolanTest;
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

TEST(IntrusiveList, QueueOperationsKeepOrderAndElementsUnlinkThemselves) {
  Item a(1), b(2), c(3), d(4);
  Queue q, other;
  EXPECT_EQ(q.popFront(), nullptr);
  q.pushBack(b);
  q.pushBack(c);
  q.pushFront(a);
  EXPECT_EQ(ids(q), (std::vector<int>{1, 2, 3}));
  Queue::unlinkElement(b);
  Queue::unlinkElement(b);  // harmless twice
  other.pushBack(d);
  other.pushBack(b);
  q.spliceBack(other);
  EXPECT_TRUE(other.empty());
  EXPECT_EQ(ids(q), (std::vector<int>{1, 3, 4, 2}));
  EXPECT_EQ(q.popFront(), &a);
  EXPECT_FALSE(Queue::isLinked(a));
  EXPECT_EQ(q.front(), &c);
  {
    Item gone(5);
    q.pushBack(gone);
    AllList all;
    all.pushBack(gone);  // on both lists at once
  }
  EXPECT_EQ(ids(q), (std::vector<int>{3, 4, 2}));
  // A bookmark alone makes a list non-empty, yet it has no elements.
  AllList all;
  AllList::Bookmark lone;
  lone.insertBefore(all.end());
  EXPECT_FALSE(all.empty() || all.hasElements());
  EXPECT_EQ(all.begin(), all.end());
  all.pushFront(a);
  EXPECT_EQ(ids(all), std::vector<int>{1});
}

TEST(IntrusiveListDeathTest, LinkingALinkedNodeAborts) {
  Item a(1);
  Queue q1, q2;
  q1.pushBack(a);
  EXPECT_ABORTS(q2.pushBack(a), "IntrusiveLinkedListBase.*beingLinked.*!\\( element\\.\\*ptrToLinkNode \\)\\.isLinked\\(\\)");
  EXPECT_ABORTS(q1.pushFront(a), "beingLinked");
  AllList all;
  AllList::Bookmark mark;
  mark.insertBefore(all.end());
  EXPECT_ABORTS(mark.insertBefore(all.end()), "IntrusiveBookmarkLinkedList.*Bookmark::insertBefore.*!link\\.isLinked\\(\\)");
}

// The resumable walk against a reference model: the list is walked a few
// elements at a time; while the walk is paused on its bookmark, elements are
// added at either end and removed (unlinked or destroyed) anywhere, often right
// after the bookmark. The model is the list of ids still ahead of the walk:
// elements pushed at the back join it, those pushed at the front never do.
TEST(IntrusiveList, PausedWalkMatchesReferenceModel) {
  for (unsigned seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    AllList all;
    std::vector<std::unique_ptr<Item>> items;  // index == id; null once destroyed
    std::vector<int> live;                     // ids on the list
    std::list<int> ahead;                      // ids the walk has yet to visit, in order
    auto add = [&](bool back) {
      items.push_back(std::make_unique<Item>(static_cast<int>(items.size())));
      live.push_back(items.back()->id);
      if (back) ahead.push_back(live.back());
      back ? all.pushBack(*items.back()) : all.pushFront(*items.back());
    };
    for (int i = rng() % 12; i > 0; --i) add(true);
    AllList::Bookmark other, mark;  // other: a second walker's, never resumed
    if (rng() % 2) other.insertBefore(std::next(all.begin(), rng() % (items.size() + 1)));
    for (auto it = all.resumeFrom(mark); it != all.end(); it = all.resumeFrom(mark)) {
      for (unsigned budget = 1 + rng() % 4; it != all.end() && budget > 0; ++it, --budget) {
        ASSERT_FALSE(ahead.empty()) << "visited " << it->id;
        ASSERT_EQ(it->id, ahead.front());
        ahead.pop_front();
      }
      if (it == all.end()) break;
      mark.insertBefore(it);
      for (unsigned ops = rng() % 5; ops > 0; --ops) {
        const unsigned kind = rng() % 4;
        if (kind < 2) {
          add(kind == 0);
        } else if (!live.empty()) {
          // Favour the element the walk resumes at.
          const int victim = !ahead.empty() && rng() % 100 < 40 ? ahead.front() : live[rng() % live.size()];
          kind == 2 ? AllList::unlinkElement(*items[victim]) : items[victim].reset();  // destruction auto-unlinks
          live.erase(std::find(live.begin(), live.end(), victim));
          ahead.remove(victim);
        }
      }
    }
    EXPECT_TRUE(ahead.empty());
    EXPECT_FALSE(mark.isLinked());
  }
}

