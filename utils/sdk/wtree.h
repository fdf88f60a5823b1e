// SPDX-License-Identifier: MIT
// An intrusive search tree balanced by weight.
//
// A tree of bounded balance (J. Nievergelt and E. M. Reingold, "Binary search trees of bounded
// balance", SIAM J. Comput. 2, 1973) with a balance of about 1 - 1/sqrt(2), kept by ratios of whole
// numbers. Not a container: it allocates nothing, owns no nodes and knows no keys. The caller
// embeds a node in its own memory, with the key directly after the node, and passes a comparison to
// each operation that needs an order. A node has no parent link, colour or height, and may be
// overwritten as soon as it is removed.
//
//   bytes, 32-bit   0 weight_   4 left_   8 right_   12 key
//   bytes, 64-bit   0 weight_   8 left_  16 right_   24 key
//
// A node's weight is the number of nodes in its subtree plus one; the empty subtree weighs 1. If a
// and b are the weights of a node's left and right subtree, then
//
//   a * 29 <= b * 70   and   a * 239 >= b * 99
//
// Up to 237 nodes this holds without exception; in larger trees one case at the exact limit can
// leave a node one step outside, and the depth stays logarithmic. Example: after the insertion of 1
// to 7 in order, 4 is the root with weight 8, above 2 and 6 with weight 4.
//
// Thread safety: the caller serialises all operations on a tree.
#pragma once

#include "utils/sdk/export.h"

namespace Utils {

// Returns > 0 if the key at `a` is before the key at `b`, < 0 if it is after it, 0 if they are
// equal: the opposite sign of strcmp. Requires: a strict total order, the same one for all
// operations on a tree. The public operations of WTreeBase pass a key of the tree first, the sought
// key second.
using WTreeCompare = int (*)(const void* a, const void* b);

struct YUTILS_EXPORT WTreeNodeBase {
  WTreeNodeBase() { init(); }

  WTreeNodeBase* left() const { return left_; }
  WTreeNodeBase* right() const { return right_; }
  unsigned depth() const;  // of the subtree: 1 for a leaf

 protected:
  friend struct WTreeBase;
  friend struct WTreeSteps;

  void init() {
    weight_ = 0;
    left_ = right_ = nullptr;
  }

  unsigned weight_;
  WTreeNodeBase* left_;  // in the list of a range removal: the next node
  WTreeNodeBase* right_;
};

static_assert(sizeof(WTreeNodeBase) == 3 * sizeof(void*), "the key lies directly after right_");

// Operations take time logarithmic in the number of nodes, with two exceptions: size() and depth()
// visit every node, and a range removal also visits every node that it removes. A copy shares the
// nodes of the original. Requires: only one of the two is changed from then on.
struct YUTILS_EXPORT WTreeBase {
  WTreeBase() : top_(nullptr) {}

  // Inserts a node. Borrows it until it is removed. Returns false, and inserts nothing, if the tree
  // has an equal key.
  bool insert(WTreeNodeBase* node, WTreeCompare before);

  // Removes the node whose key equals that of `node`, which may be the node itself or a probe of
  // which only the key is read. Returns the removed node, null if there is none.
  WTreeNodeBase* remove(WTreeNodeBase* node, WTreeCompare before);

  // Removes and returns the first node whose key is not before that of `node`: the best fit. Null
  // if there is none.
  WTreeNodeBase* removesup(WTreeNodeBase* node, WTreeCompare before);

  // Returns the first node after the key of `node`, which need not be in the tree; null if there is
  // none.
  WTreeNodeBase* nextNode(const WTreeNodeBase* node, WTreeCompare before) const;

  WTreeNodeBase* top() const { return top_; }
  WTreeNodeBase* minNode() const;  // the first node, null for an empty tree
  unsigned size() const;
  unsigned depth() const;  // 0 for an empty tree

 protected:
  friend struct WTreeSteps;

  // Operations with a `link` work on the subtree there: it is the address of top_ or a child link.

  static unsigned wt(const WTreeNodeBase* node) { return node ? node->weight_ : 1; }

  // Restores the weight and the balance of the node at `link`, by at most one single or double
  // rotation, after one node was inserted or removed below it. Requires: *link is not null.
  static void adjust(WTreeNodeBase** link);
  static void lrot(WTreeNodeBase** link);  // raises the right child; Requires: there is one
  static void rrot(WTreeNodeBase** link);  // raises the left child; Requires: there is one
  // Does the same as adjust after any number of removals, with as many rotations as needed.
  static void checkrots(WTreeNodeBase** link);

  static bool insert(WTreeNodeBase* node, WTreeNodeBase** link, WTreeCompare before);
  static WTreeNodeBase* remove(const void* key, WTreeNodeBase** link, WTreeCompare before);
  static WTreeNodeBase* removesup(const void* key, WTreeNodeBase** link, WTreeCompare before);

  // remove removes all nodes with low <= key < high, removeC those with low <= key <= high.
  // Requires: all keys of the subtree are from `lower` to `upper`; the closer these are, the sooner
  // whole subtrees are removed at once. Return the list of the removed nodes in no particular
  // order, linked by left(), with right() null.
  static WTreeNodeBase* remove(const void* low, const void* high, const void* lower,
                               const void* upper, WTreeNodeBase** link, WTreeCompare before);
  static WTreeNodeBase* removeC(const void* low, const void* high, const void* lower,
                                const void* upper, WTreeNodeBase** link, WTreeCompare before);
  // Removes the whole subtree and returns it as such a list, its root first.
  static WTreeNodeBase* prune(WTreeNodeBase** link);

  static WTreeNodeBase* nextNode(const WTreeNodeBase* node, WTreeNodeBase* subtree,
                                 WTreeCompare before);
  static unsigned sizeAux(const WTreeNodeBase* subtree);

  WTreeNodeBase* top_;
};

}  // namespace Utils
