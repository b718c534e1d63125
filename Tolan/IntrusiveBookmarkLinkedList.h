// IntrusiveBookmarkLinkedList.h - an intrusive list that can hold bookmarks.
//
// A BookmarkList is a List (see IntrusiveLinkedListBase.h) in which a
// Bookmark, a link node that belongs to no element, can be parked to remember
// a position. A long walk over the list can so stop (because the walker must
// yield) and resume later at the same place, even if elements were added or
// removed meanwhile. Iterators pass over bookmarks: users only see elements.
//
//   BookmarkList<Job, BookmarkListLinkNode<Job>, &Job::allLink_, void> all;
//   BookmarkList<...>::Bookmark mark;
//   ...
//   int done = 0;
//   for (auto it = all.resumeFrom(mark); it != all.end(); ++it) {
//     if (done++ > 0 && mustYield()) { mark.insertBefore(it); break; }   // pause
//     process(*it);
//   }
//
// While paused, removed elements simply disappear; added elements are seen by
// the walk exactly when they lie after the bookmark (pushBack: seen,
// pushFront: not). Any number of bookmarks may be parked at once.
//
// Same costs and threading as List: no allocation, constant-time link and
// unlink, one thread. Skipping bookmarks costs one flag test per node.
#pragma once

#include <cstdint>
#include <iterator>

#include "Tolan/IntrusiveLinkedListBase.h"

namespace Tolan {
namespace Impl {
// Aborts: a bookmark was parked while already parked somewhere.
[[noreturn]] TOLAN_EXPORT TOLAN_COLD void bookmarkAlreadyLinked(unsigned line) noexcept;
}  // namespace Impl

// The link an element embeds to be on a BookmarkList; also the node inside a
// Bookmark, where its bookmark flag is set.
template <typename ElementType>
class BookmarkListLinkNode {
 public:
  explicit BookmarkListLinkNode(bool bookmark = false) noexcept : bookmark_(bookmark) {}
  // A copy is unlinked and keeps the kind of node it is; assignment changes nothing.
  BookmarkListLinkNode(const BookmarkListLinkNode& other) noexcept : bookmark_(other.bookmark_) {}
  BookmarkListLinkNode& operator=(const BookmarkListLinkNode&) noexcept { return *this; }

  bool isLinked() const noexcept { return hook_.is_linked(); }
  void unlink() noexcept { hook_.unlink(); }
  bool isBookmark() const noexcept { return bookmark_ != 0; }

 private:
  template <typename E, typename N, N E::*, typename P>
  friend class ListImpl;
  Impl::ListHook hook_;
  uint8_t bookmark_;
};

template <typename ElementType, typename LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          typename ElementPtrType>
class BookmarkList : public ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType> {
  using Base = ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType>;
  using NodeList = typename Base::NodeList;

 public:
  // Iterates elements in list order, passing over every bookmark node when
  // created and whenever advanced.
  template <typename ListPtr, typename NodeIt, typename Value>
  class IteratorT {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = ElementType;
    using difference_type = std::ptrdiff_t;
    using pointer = Value*;
    using reference = Value&;

    IteratorT() = default;
    // Positioned at `start`, or at the first element after it if it is a bookmark.
    IteratorT(ListPtr list, NodeIt start) : list_(list), pos_(start) { skipBookmarks(); }
    // Iterator -> ConstIterator.
    template <typename L, typename N, typename V>
    IteratorT(const IteratorT<L, N, V>& other) : list_(other.list_), pos_(other.pos_) {}

    Value& operator*() const { return Base::elementOf(*pos_); }
    Value* operator->() const { return &Base::elementOf(*pos_); }
    IteratorT& operator++() {
      ++pos_;
      skipBookmarks();
      return *this;
    }
    IteratorT operator++(int) {
      IteratorT old = *this;
      ++*this;
      return old;
    }
    bool operator==(const IteratorT& o) const { return pos_ == o.pos_; }
    bool operator!=(const IteratorT& o) const { return pos_ != o.pos_; }

   private:
    template <typename L, typename N, typename V>
    friend class IteratorT;
    friend class BookmarkList;
    void skipBookmarks() {
      const auto end = list_->nodes_.end();
      while (pos_ != end && pos_->isBookmark()) ++pos_;
    }
    ListPtr list_ = nullptr;
    NodeIt pos_;
  };
  using Iterator = IteratorT<BookmarkList*, typename NodeList::iterator, ElementType>;
  using ConstIterator = IteratorT<const BookmarkList*, typename NodeList::const_iterator, const ElementType>;

  // A parked position, owned by the walker. Destroying a parked bookmark
  // unparks it.
  class Bookmark {
   public:
    Bookmark() noexcept : link(true) {}
    Bookmark(const Bookmark&) = delete;
    Bookmark& operator=(const Bookmark&) = delete;

    bool isLinked() const noexcept { return link.isLinked(); }
    void unlink() noexcept { link.unlink(); }
    // Parks the bookmark in front of `pos` (end() parks it at the tail).
    // Aborts if the bookmark is parked already.
    void insertBefore(const ConstIterator& pos) noexcept {
      if (TOLAN_UNLIKELY(link.isLinked())) Impl::bookmarkAlreadyLinked(__LINE__);
      NodeList::node_algorithms::link_before(pos.pos_.pointed_node(), NodeList::value_traits::to_node_ptr(link));
    }

   private:
    friend class BookmarkList;
    LinkNodeType link;
  };

  Iterator begin() noexcept { return Iterator(this, this->nodes_.begin()); }
  Iterator end() noexcept { return Iterator(this, this->nodes_.end()); }
  ConstIterator begin() const noexcept { return ConstIterator(this, this->nodes_.begin()); }
  ConstIterator end() const noexcept { return ConstIterator(this, this->nodes_.end()); }

  // Where a paused walk goes on: if `mark` is parked (it must be parked in
  // this list), the first element after it, and the mark is unparked;
  // otherwise the first element of the list.
  Iterator resumeFrom(Bookmark& mark) noexcept {
    if (!mark.isLinked()) return begin();
    auto next = std::next(this->nodes_.iterator_to(mark.link));
    mark.unlink();
    return Iterator(this, next);
  }

  // True when at least one element (not just bookmarks) is on the list.
  bool hasElements() const noexcept { return begin() != end(); }
};

}  // namespace Tolan
