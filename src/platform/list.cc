#include "platform/list.h"

_List::~_List() {
  if (nodes_ == Nodes::partOfElement) return;
  while (first_ != nullptr) {
    _ListNode *next = first_->next;
    delete first_;
    first_ = next;
  }
}

// A null `before` links at the end.
void _List::link(const void *element, _ListNode *before) {
  _ListNode *node = newNode(element);
  node->element = element;
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
  if (node == nullptr) return;
  (node->prev == nullptr ? first_ : node->prev->next) = node->next;
  (node->next == nullptr ? last_ : node->next->prev) = node->prev;
  --size_;
  if (nodes_ == Nodes::ownedByList) delete node;
}

_ListNode *_List::newNode(const void *) {
  return new _ListNode;
}

_ListNode *_List::nodeOf(const void *element) {
  for (_ListNode *node = first_; node != nullptr; node = node->next) {
    if (node->element == element) return node;
  }
  return nullptr;
}
