// IntrusiveLinkedListBase.h - intrusive doubly-linked lists whose links live
// inside the elements.
//
// An element embeds one link node per list it can be on, e.g.
//
//   struct Job { ListLinkNode<Job> queueLink_; ... };
//   List<Job, ListLinkNode<Job>, &Job::queueLink_, void> queue;
//
// Linking and unlinking allocate nothing and are constant time; an element
// can take itself off its list without knowing the list (unlinkElement), and
// a destroyed element unlinks itself (auto-unlink). No element count is kept:
// code that needs counts keeps its own.
//
// An element must not be linked twice through the same node: pushing one that
// is already on a list (this or another) aborts the process. A list never
// owns its elements; destroying a list unlinks whatever is still on it.
//
// Not thread-safe: a list and its elements belong to one thread.
#pragma once

#include <boost/intrusive/list.hpp>
#include <boost/intrusive/parent_from_member.hpp>

#include <type_traits>

#include "Tolan/Common.h"

namespace Tolan {
namespace Impl {

using ListHook = boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

}  // namespace Impl

template <typename ElementType, typename LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          typename ElementPtrType>
class ListImpl;

// The link an element embeds to be on a List. Copying an element gives the
// copy an unlinked node.
template <typename ElementType>
class ListLinkNode {
 public:
  bool isLinked() const noexcept { return hook_.is_linked(); }
  // Takes the element off whatever list it is on; no-op when unlinked.
  void unlink() noexcept { hook_.unlink(); }
  // A plain link is never a bookmark.
  bool isBookmark() const noexcept { return false; }

 private:
  template <typename E, typename N, N E::*, typename P>
  friend class ListImpl;
  Impl::ListHook hook_;
};

// Common base of List and BookmarkList: a boost::intrusive list of link
// nodes (member hook, auto-unlink, no constant-time size). `ptrToLinkNode`
// names the element's link; ElementPtrType is reserved and must be void
// (elements are handed out as plain ElementType pointers and references).
template <typename ElementType, typename LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          typename ElementPtrType>
class ListImpl {
  static_assert(std::is_void<ElementPtrType>::value, "lists hand out plain element pointers");

 public:
  using Element = ElementType;
  using LinkNode = LinkNodeType;

  ListImpl() = default;
  ListImpl(const ListImpl&) = delete;
  ListImpl& operator=(const ListImpl&) = delete;

  // True when no node at all is linked (a parked bookmark counts as a node).
  bool empty() const noexcept { return nodes_.empty(); }

  // Append / prepend an element that is on no list; aborts if it is.
  void pushBack(ElementType& element) {
    beingLinked(element);
    nodes_.push_back(element.*ptrToLinkNode);
  }
  void pushFront(ElementType& element) {
    beingLinked(element);
    nodes_.push_front(element.*ptrToLinkNode);
  }

  // Takes the element off the list it is on (any list of this kind); no-op
  // when it is on none. Constant time.
  static void unlinkElement(ElementType& element) noexcept { (element.*ptrToLinkNode).unlink(); }
  static bool isLinked(const ElementType& element) noexcept { return (element.*ptrToLinkNode).isLinked(); }

  // The check made before every link: the element's node must be free.
  // Linking a node twice would corrupt two lists at once; nothing downstream
  // can recover from that, so this aborts with the C library's report rather
  // than throw (which would leave the caller holding a half-linked element).
  static void beingLinked(const ElementType& element) noexcept {
    if (TOLAN_UNLIKELY((element.*ptrToLinkNode).isLinked()))
      Impl::processAssertFail("!( element.*ptrToLinkNode ).isLinked()", "IntrusiveLinkedListBase", __LINE__,
                              "beingLinked");
  }

  // The element that embeds `node`. The node must not be a bookmark.
  static ElementType& elementOf(LinkNodeType& node) noexcept {
    return *boost::intrusive::get_parent_from_member<ElementType>(&node, ptrToLinkNode);
  }
  static const ElementType& elementOf(const LinkNodeType& node) noexcept {
    return *boost::intrusive::get_parent_from_member<ElementType>(&node, ptrToLinkNode);
  }

 protected:
  using NodeList = boost::intrusive::list<
      LinkNodeType, boost::intrusive::member_hook<LinkNodeType, Impl::ListHook, &LinkNodeType::hook_>,
      boost::intrusive::constant_time_size<false>>;

  NodeList nodes_;
};

// A plain intrusive list (run queues): every node is an element.
template <typename ElementType, typename LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          typename ElementPtrType>
class List : public ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType> {
  using Base = ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType>;
  using NodeIterator = typename Base::NodeList::iterator;
  using NodeConstIterator = typename Base::NodeList::const_iterator;

 public:
  template <typename Node, typename Value>
  class IteratorT {
   public:
    using iterator_category = std::bidirectional_iterator_tag;
    using value_type = ElementType;
    using difference_type = std::ptrdiff_t;
    using pointer = Value*;
    using reference = Value&;

    IteratorT() = default;
    explicit IteratorT(Node pos) : pos_(pos) {}
    Value& operator*() const { return Base::elementOf(*pos_); }
    Value* operator->() const { return &Base::elementOf(*pos_); }
    IteratorT& operator++() { ++pos_; return *this; }
    IteratorT operator++(int) { IteratorT old = *this; ++pos_; return old; }
    IteratorT& operator--() { --pos_; return *this; }
    bool operator==(const IteratorT& o) const { return pos_ == o.pos_; }
    bool operator!=(const IteratorT& o) const { return pos_ != o.pos_; }

   private:
    Node pos_;
  };
  using Iterator = IteratorT<NodeIterator, ElementType>;
  using ConstIterator = IteratorT<NodeConstIterator, const ElementType>;

  Iterator begin() noexcept { return Iterator(this->nodes_.begin()); }
  Iterator end() noexcept { return Iterator(this->nodes_.end()); }
  ConstIterator begin() const noexcept { return ConstIterator(this->nodes_.begin()); }
  ConstIterator end() const noexcept { return ConstIterator(this->nodes_.end()); }

  // First element, or null when the list is empty.
  ElementType* front() noexcept { return this->empty() ? nullptr : &Base::elementOf(this->nodes_.front()); }
  const ElementType* front() const noexcept {
    return this->empty() ? nullptr : &Base::elementOf(this->nodes_.front());
  }
  // Unlinks and returns the first element, or null when the list is empty.
  ElementType* popFront() noexcept {
    if (this->empty()) return nullptr;
    ElementType* element = &Base::elementOf(this->nodes_.front());
    this->nodes_.pop_front();
    return element;
  }
  // Moves every element of `other`, in order, to the end of this list;
  // `other` is left empty. Constant time.
  void spliceBack(List& other) noexcept { this->nodes_.splice(this->nodes_.end(), other.nodes_); }
};

}  // namespace Tolan
