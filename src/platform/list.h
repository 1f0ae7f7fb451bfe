// The container library's list: a doubly linked list of pointers that it does not own.
#pragma once

struct _ListNode {
  _ListNode *next;
  _ListNode *prev;
  const void *element;
};

// Elements are pointers and are told apart by their address. A plain list allocates a node for each
// element and searches for it on removal. A derived class whose elements carry their own nodes
// overrides newNode and nodeOf, and then no operation depends on the list's length.
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

 protected:
  enum class Nodes { ownedByList, partOfElement };
  explicit _List(Nodes nodes) : nodes_(nodes) {}

  virtual _ListNode *newNode(const void *element);
  virtual _ListNode *nodeOf(const void *element);  // null when the element is not in the list

 private:
  friend class _ListIter;

  void link(const void *element, _ListNode *before);

  Nodes nodes_ = Nodes::ownedByList;
  int size_ = 0;
  _ListNode *first_ = nullptr;
  _ListNode *last_ = nullptr;
};

// Walks from the front. The current element may be removed once the walk has moved on.
class _ListIter {
 public:
  explicit _ListIter(const _List *list) : node_(list->first_) {}

  void *operator()() const { return elementOf(node_); }  // the current element, or null
  void *operator++(int) {                                // advances; the new current one, or null
    if (node_ != nullptr) node_ = node_->next;
    return elementOf(node_);
  }

 private:
  static void *elementOf(const _ListNode *node) {
    return node == nullptr ? nullptr : const_cast<void *>(node->element);
  }

  const _ListNode *node_;
};
