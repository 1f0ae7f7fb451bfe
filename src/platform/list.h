// The container library's list: a doubly linked list of pointers that it does not own.
#pragma once

#include <cstddef>

struct _ListNode {
  _ListNode *next;
  _ListNode *prev;
};

// Elements are pointers and are told apart by their address. A plain list allocates a node for each
// element and searches for it on removal. A derived class whose elements carry their own nodes says
// where in them the node lies, and then no operation depends on the list's length. Such a node must
// be null while its element is in no list, and removal leaves it so.
class _List {
 public:
  _List() = default;
  virtual ~_List();  // frees the list's own nodes, never the elements
  _List(const _List &) = delete;
  _List &operator=(const _List &) = delete;

  void insert(const void *element);                                // at the end
  void insert(const void *element, const void *after);             // directly after that element
  void insert(const void *element, const void *after, int front);  // null and 1: at the front
  void remove(const void *element);                                // absent: nothing happens
  int size() const { return size_; }
  // Starts to fetch what the next insertion at the end will change.
  void prefetchEnd() const { __builtin_prefetch(last_, 1); }

 protected:
  explicit _List(size_t nodeOffset) : nodeOffset_(static_cast<int>(nodeOffset)) {}

  // Forgets all elements, which carry their nodes and are about to be inserted again.
  void forget() {
    first_ = last_ = nullptr;
    size_ = 0;
  }

 private:
  friend class _ListIter;

  static constexpr int ownNodes = -1;

  _ListNode *newNode(const void *element);
  _ListNode *nodeOf(const void *element);  // null when the element is not in the list
  const void *elementOf(const _ListNode *node) const;
  void link(const void *element, _ListNode *before);

  int nodeOffset_ = ownNodes;  // bytes from an element to its node
  int size_ = 0;
  _ListNode *first_ = nullptr;
  _ListNode *last_ = nullptr;
};

// Walks from the front. The current element may be removed once the walk has moved on.
class _ListIter {
 public:
  explicit _ListIter(const _List *list) : list_(list), node_(list->first_) {}

  // The current element, or null.
  void *operator()() const {
    return node_ == nullptr ? nullptr : const_cast<void *>(list_->elementOf(node_));
  }
  void *operator++(int) {  // advances; the new current one, or null
    if (node_ != nullptr) node_ = node_->next;
    return operator()();
  }

 private:
  const _List *list_;
  const _ListNode *node_;
};

// The node of an element that carries none.
struct _ElementNode : _ListNode {
  const void *element;
};

inline const void *_List::elementOf(const _ListNode *node) const {
  return nodeOffset_ == ownNodes ? static_cast<const _ElementNode *>(node)->element
                                 : reinterpret_cast<const char *>(node) - nodeOffset_;
}
