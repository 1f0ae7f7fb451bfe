#include "platform/list.h"

_List::~_List() {
  if (nodeOffset_ != ownNodes) return;
  while (first_ != nullptr) {
    _ListNode *next = first_->next;
    delete static_cast<_ElementNode *>(first_);
    first_ = next;
  }
}

// A null `before` links at the end.
void _List::link(const void *element, _ListNode *before) {
  _ListNode *node = newNode(element);
  node->next = before;
  node->prev = before == nullptr ? last_ : before->prev;
  (node->prev == nullptr ? first_ : node->prev->next) = node;
  (before == nullptr ? last_ : before->prev) = node;
  ++size_;
}

void _List::insert(const void *element) {
  link(element, nullptr);
}

void _List::insert(const void *element, const void *after) {
  _ListNode *node = after == nullptr ? nullptr : nodeOf(after);
  link(element, node == nullptr ? nullptr : node->next);
}

void _List::insert(const void *element, const void *after, int front) {
  if (after == nullptr && front == 1) {
    link(element, first_);
  } else {
    insert(element, after);
  }
}

void _List::remove(const void *element) {
  _ListNode *node = nodeOf(element);
  // An element with a node of its own is in no list when the node has no neighbour before it and is
  // not the first one either.
  if (node == nullptr || (node->prev == nullptr && first_ != node)) return;
  (node->prev == nullptr ? first_ : node->prev->next) = node->next;
  (node->next == nullptr ? last_ : node->next->prev) = node->prev;
  --size_;
  if (nodeOffset_ == ownNodes) {
    delete static_cast<_ElementNode *>(node);
  } else {
    *node = {};
  }
}

_ListNode *_List::newNode(const void *element) {
  if (nodeOffset_ != ownNodes) return nodeOf(element);
  return new _ElementNode{{}, element};
}

_ListNode *_List::nodeOf(const void *element) {
  if (nodeOffset_ != ownNodes) {
    char *bytes = static_cast<char *>(const_cast<void *>(element));
    return reinterpret_cast<_ListNode *>(bytes + nodeOffset_);
  }
  _ListNode *node = first_;
  while (node != nullptr && elementOf(node) != element) node = node->next;
  return node;
}
