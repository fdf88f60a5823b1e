// SPDX-License-Identifier: MIT
// An intrusive search tree balanced by weight.
//
// A tree of bounded balance (J. Nievergelt and E. M. Reingold, "Binary search trees of bounded
// balance", SIAM J. Comput. 2, 1973) with a balance of about 1 - 1/sqrt(2), kept by whole-number
// ratios alone. It is no container: it never allocates, owns nothing, and knows no keys. A node is
// embedded by its owner in memory of the owner's, the key lies directly behind it, and each
// operation that needs an order is given a comparison. No parent link, no colour, no height: a node
// that has left the tree may be overwritten at once.
//
//   bytes, 32-bit   0 weight_   4 left_   8 right_   12 key
//   bytes, 64-bit   0 weight_   8 left_  16 right_   24 key
//
// A node's weight is the number of nodes in its subtree plus one; the empty subtree weighs 1. With
// a and b the weights of a node's left and right subtree, the tree aims at a * 29 <= b * 70 and a *
// 239 >= b * 99. That holds without exception up to 237 nodes; in larger trees one case at the
// exact limit can leave a node a step outside of it, which changes no bound on the depth that
// matters. Example: after inserting 1 to 7 in order, 4 is at the top with weight 8, above 2 and 6
// with weight 4.
//
// The caller serialises.
#pragma once

#include "utils/sdk/export.h"

namespace Utils {

// Gives > 0 when the key at `a` stands before that at `b`, < 0 when it stands after it, 0 when both
// are the same place: the opposite sign of strcmp. Must be a strict total order, the same one for
// every operation on one tree. The operations below pass a key of the tree first, the sought key
// second.
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
  WTreeNodeBase* left_;  // in a list that a range removal gave: the next node
  WTreeNodeBase* right_;
};

static_assert(sizeof(WTreeNodeBase) == 3 * sizeof(void*), "the key lies directly behind right_");

// Every operation but size() takes time logarithmic in the number of nodes, range removals beside
// that time linear in the number of nodes they remove. A copy shares the nodes: only one of the two
// may be changed from then on.
struct YUTILS_EXPORT WTreeBase {
  WTreeBase() : top_(nullptr) {}

  // Adds a node, borrowed until it is removed. false, node and tree as they were, when a node with
  // an equal key is there.
  bool insert(WTreeNodeBase* node, WTreeCompare before);

  // Takes out the node whose key equals that of `node`, which may be that node or a probe of which
  // only the key is read. Gives the removed node, null when there is none.
  WTreeNodeBase* remove(WTreeNodeBase* node, WTreeCompare before);

  // The same for the first node that does not stand before the key of `node`: the best fit.
  WTreeNodeBase* removesup(WTreeNodeBase* node, WTreeCompare before);

  // The first node behind the key of `node`, which need not be in the tree; null when there is
  // none.
  WTreeNodeBase* nextNode(const WTreeNodeBase* node, WTreeCompare before) const;

  WTreeNodeBase* top() const { return top_; }
  WTreeNodeBase* minNode() const;
  unsigned size() const;  // counts, linear
  unsigned depth() const;

 protected:
  friend struct WTreeSteps;

  // Each of these works on the subtree at `link`, the address of top_ or of a child pointer.

  static unsigned wt(const WTreeNodeBase* node) { return node ? node->weight_ : 1; }

  // Restores weight and balance of the node at `link` after one node came or went below it, by at
  // most one single or double rotation; requires a node there.
  static void adjust(WTreeNodeBase** link);
  static void lrot(WTreeNodeBase** link);  // the right child rises; requires one
  static void rrot(WTreeNodeBase** link);  // the left child rises; requires one
  // As adjust, after any number of nodes went: rotates as often as it takes.
  static void checkrots(WTreeNodeBase** link);

  static bool insert(WTreeNodeBase* node, WTreeNodeBase** link, WTreeCompare before);
  static WTreeNodeBase* remove(const void* key, WTreeNodeBase** link, WTreeCompare before);
  static WTreeNodeBase* removesup(const void* key, WTreeNodeBase** link, WTreeCompare before);

  // Take out all nodes with low <= key < high, and with low <= key <= high. All keys of the subtree
  // lie from `lower` to `upper`; the closer these are, the sooner whole subtrees go at once. Give
  // the list of the removed nodes in no particular order, chained by left(), right() null.
  static WTreeNodeBase* remove(const void* low, const void* high, const void* lower,
                               const void* upper, WTreeNodeBase** link, WTreeCompare before);
  static WTreeNodeBase* removeC(const void* low, const void* high, const void* lower,
                                const void* upper, WTreeNodeBase** link, WTreeCompare before);
  // Takes out the whole subtree as such a list, its root first.
  static WTreeNodeBase* prune(WTreeNodeBase** link);

  static WTreeNodeBase* nextNode(const WTreeNodeBase* node, WTreeNodeBase* subtree,
                                 WTreeCompare before);
  static unsigned sizeAux(const WTreeNodeBase* subtree);

  WTreeNodeBase* top_;
};

}  // namespace Utils
