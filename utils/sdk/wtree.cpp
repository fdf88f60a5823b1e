// SPDX-License-Identifier: MIT
// The exported operations of the weight-balanced tree.
//
// Insertions and removals of single nodes are those of wtree_steps.h with the caller's comparison.
// Rotations, balancing and the range removals are implemented here. The tests of the balance
// compare products of whole numbers in 64 bits, so that no weight overflows.
#include "utils/sdk/wtree.h"

#include "utils/sdk/trees/wtree_steps.h"

namespace Utils {

namespace {

using Node = WTreeNodeBase;

const void* keyOf(const Node* node) { return node + 1; }

// The place of a key, by a comparison that is called by its address.
struct PlaceOfKey {
  int operator()(const Node* node) const { return before_(keyOf(node), key_); }

  const void* key_;
  WTreeCompare before_;
};

// True if the left child's left subtree is too light for a single rotation to the right.
bool innerLeftHeavy(unsigned long long outer, unsigned long long a) { return outer * 169 < a * 70; }
// True if the right child's left subtree is too heavy for a single rotation to the left.
bool innerRightHeavy(unsigned long long inner, unsigned long long b) {
  return inner * 169 > b * 99;
}

unsigned deeper(const Node* left, const Node* right) {
  const unsigned l = left ? left->depth() : 0;
  const unsigned r = right ? right->depth() : 0;
  return l > r ? l : r;
}

}  // namespace

unsigned WTreeNodeBase::depth() const { return 1 + deeper(left_, right_); }

// --- Public operations: the whole tree ---

bool WTreeBase::insert(WTreeNodeBase* node, WTreeCompare before) {
  return insert(node, &top_, before);
}

WTreeNodeBase* WTreeBase::remove(WTreeNodeBase* node, WTreeCompare before) {
  return remove(keyOf(node), &top_, before);
}

WTreeNodeBase* WTreeBase::removesup(WTreeNodeBase* node, WTreeCompare before) {
  return removesup(keyOf(node), &top_, before);
}

WTreeNodeBase* WTreeBase::nextNode(const WTreeNodeBase* node, WTreeCompare before) const {
  return nextNode(node, top_, before);
}

WTreeNodeBase* WTreeBase::minNode() const { return top_ ? WTreeSteps::leftmost(top_) : nullptr; }

unsigned WTreeBase::size() const { return sizeAux(top_); }

unsigned WTreeBase::depth() const { return top_ ? top_->depth() : 0; }

// --- Balance ---

void WTreeBase::adjust(WTreeNodeBase** link) {
  Node* n = *link;
  const unsigned a = wt(n->left_);
  const unsigned b = wt(n->right_);
  n->weight_ = a + b;
  if (WTreeSteps::leftTooHeavy(a, b)) {
    if (innerLeftHeavy(wt(n->left_->left_), a)) lrot(&n->left_);
    rrot(link);
  } else if (WTreeSteps::rightTooHeavy(a, b)) {
    if (innerRightHeavy(wt(n->right_->left_), b)) rrot(&n->right_);
    lrot(link);
  }
}

void WTreeBase::lrot(WTreeNodeBase** link) {
  Node* n = *link;
  Node* r = n->right_;
  *link = r;
  n->right_ = r->left_;
  r->left_ = n;
  n->weight_ = wt(n->left_) + wt(n->right_);
  r->weight_ = wt(r->right_) + n->weight_;
}

void WTreeBase::rrot(WTreeNodeBase** link) {
  Node* n = *link;
  Node* l = n->left_;
  *link = l;
  n->left_ = l->right_;
  l->right_ = n;
  n->weight_ = wt(n->left_) + wt(n->right_);
  l->weight_ = wt(l->left_) + n->weight_;
}

// Each pass rotates once and then rebalances the subtree that the rotation moved down on the
// lighter side; a double rotation moves one down on each side.
void WTreeBase::checkrots(WTreeNodeBase** link) {
  Node* n = *link;
  unsigned a = wt(n->left_);
  unsigned b = wt(n->right_);
  n->weight_ = a + b;
  if (WTreeSteps::leftTooHeavy(a, b)) {
    do {
      const bool twice = innerLeftHeavy(wt(n->left_->left_), a);
      if (twice) lrot(&n->left_);
      rrot(link);
      n = *link;
      if (twice) checkrots(&n->left_);
      checkrots(&n->right_);
      a = wt(n->left_);
      b = wt(n->right_);
    } while (WTreeSteps::leftTooHeavy(a, b));
  } else if (WTreeSteps::rightTooHeavy(a, b)) {
    do {
      const bool twice = innerRightHeavy(wt(n->right_->left_), b);
      if (twice) rrot(&n->right_);
      lrot(link);
      n = *link;
      if (twice) checkrots(&n->right_);
      checkrots(&n->left_);
      a = wt(n->left_);
      b = wt(n->right_);
    } while (WTreeSteps::rightTooHeavy(a, b));
  }
}

// --- Single nodes ---

// A search that ends without a change still rebalances its path: the next operation that passes a
// node outside the limits restores its balance.

bool WTreeBase::insert(WTreeNodeBase* node, WTreeNodeBase** link, WTreeCompare before) {
  WTreePath path(link);
  const auto end = WTreeSteps::descend(path, PlaceOfKey{keyOf(node), before});
  if (end.found_) {
    WTreeSteps::rebalanceAfterSearch(path, 0, wt(end.found_));
    return false;
  }
  WTreeSteps::attach(path, end, node);
  return true;
}

WTreeNodeBase* WTreeBase::remove(const void* key, WTreeNodeBase** link, WTreeCompare before) {
  WTreePath path(link);
  const auto end = WTreeSteps::descend(path, PlaceOfKey{key, before});
  if (end.found_) {
    WTreeSteps::detach(path, end.found_);
  } else {
    WTreeSteps::rebalanceAfterSearch(path, 0, 1);
  }
  return end.found_;
}

WTreeNodeBase* WTreeBase::removesup(const void* key, WTreeNodeBase** link, WTreeCompare before) {
  WTreePath path(link);
  const auto end = WTreeSteps::descend(path, PlaceOfKey{key, before});
  Node* fit = end.found_;
  if (!fit) {
    WTreeSteps::rebalanceAfterSearch(path, end.upper_, 1);
    if (end.upper_ == 0) return nullptr;
    path.depth_ = end.upper_ - 1;
    fit = path.nodes_[path.depth_];
  }
  WTreeSteps::detach(path, fit);
  return fit;
}

WTreeNodeBase* WTreeBase::nextNode(const WTreeNodeBase* node, WTreeNodeBase* subtree,
                                   WTreeCompare before) {
  Node* next = nullptr;
  while (subtree) {
    const int order = before(keyOf(subtree), keyOf(node));
    if (order == 0) return subtree->right_ ? WTreeSteps::leftmost(subtree->right_) : next;
    if (order < 0) next = subtree;
    subtree = order > 0 ? subtree->right_ : subtree->left_;
  }
  return next;
}

unsigned WTreeBase::sizeAux(const WTreeNodeBase* subtree) {
  unsigned count = 0;
  for (; subtree; subtree = subtree->right_) count += 1 + sizeAux(subtree->left_);
  return count;
}

// --- Ranges ---

WTreeNodeBase* WTreeBase::prune(WTreeNodeBase** link) {
  Node* head = *link;
  *link = nullptr;
  if (!head) return nullptr;
  // The left links are the list; each right subtree is appended to its end.
  Node* last = head;
  while (last->left_) last = last->left_;
  for (Node* node = head; node; node = node->left_) {
    if (!node->right_) continue;
    last->left_ = node->right_;
    node->right_ = nullptr;
    while (last->left_) last = last->left_;
  }
  return head;
}

// One range removal: its bounds, and the list of the removed nodes.
struct WTreeSteps::RangeRemoval {
  // Removes the range from the subtree at `link`, whose keys are from `lower` to `upper`. A subtree
  // that these bounds show to be in the range is pruned; any other node in the range is removed
  // singly, after the nodes of the range below it.
  void removeFrom(Node** link, const void* lower, const void* upper) {
    Node* node = *link;
    if (!node) return;
    const void* key = keyOf(node);
    if (!notBeforeLow(key)) {
      removeFrom(&node->right_, key, upper);
    } else if (!endsBefore(key)) {
      removeFrom(&node->left_, lower, key);
    } else if (notBeforeLow(lower) && endsBefore(upper)) {
      append(WTreeBase::prune(link));
    } else {
      removeFrom(&node->left_, lower, key);
      removeFrom(&node->right_, key, upper);
      WTreeBase::checkrots(link);
      append(WTreeBase::remove(key, link, before_));
    }
    if (*link) WTreeBase::checkrots(link);
  }

  bool notBeforeLow(const void* key) const { return before_(low_, key) >= 0; }
  bool endsBefore(const void* key) const { return before_(key, high_) >= (closed_ ? 0 : 1); }

  void append(Node* list) {
    *end_ = list;
    while (*end_) end_ = &(*end_)->left_;
  }

  const void* low_;
  const void* high_;
  WTreeCompare before_;
  bool closed_;
  Node* list_ = nullptr;
  Node** end_ = &list_;
};

WTreeNodeBase* WTreeBase::remove(const void* low, const void* high, const void* lower,
                                 const void* upper, WTreeNodeBase** link, WTreeCompare before) {
  WTreeSteps::RangeRemoval range{low, high, before, false};
  range.removeFrom(link, lower, upper);
  return range.list_;
}

WTreeNodeBase* WTreeBase::removeC(const void* low, const void* high, const void* lower,
                                  const void* upper, WTreeNodeBase** link, WTreeCompare before) {
  WTreeSteps::RangeRemoval range{low, high, before, true};
  range.removeFrom(link, lower, upper);
  return range.list_;
}

}  // namespace Utils
