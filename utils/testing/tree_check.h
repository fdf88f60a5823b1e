// SPDX-License-Identifier: MIT
// Checks whether a tree is whole, for the tests of programs that use or extend the trees.
//
// Each check visits every node and only reads it. It returns an empty text if all invariants hold,
// else the first one that the visit found broken, such as "3. keys ascend". With GoogleTest:
//
//   EXPECT_EQ(Utils::Testing::brokenInvariant(tree), "");
//
// A check finds links that lead to a wrong node. Requires: every link is null or leads to a node. A
// visit that follows a cycle ends at the bound on the depth.
//
// Thread safety: the caller serialises, as for every operation on the tree.
#pragma once

#include <string>

#include "utils/sdk/atree.h"
#include "utils/sdk/wtree.h"

namespace Utils {
namespace Testing {

// Keeps the first broken invariant, and the depth of the visit.
struct TreeVisit {
  static constexpr unsigned MAX_DEPTH = 96;  // above that of any balanced tree in memory

  void expect(bool holds, const char* invariant) {
    if (!holds && !broken_) broken_ = invariant;
  }
  std::string text() const { return broken_ ? broken_ : ""; }
  bool enter() {
    expect(depth_ < MAX_DEPTH, "1. no path has more than 96 nodes");
    if (broken_) return false;
    depth_++;
    return true;
  }
  void leave() { depth_--; }

  const char* broken_ = nullptr;
  unsigned depth_ = 0;
};

// --- The height-balanced tree ---

template <class K, class V>
struct AVLTreeVisit : TreeVisit {
  using Node = AVLTreeNode<K, V>;

  // Returns the height of the subtree.
  int visit(const AVLTreeNodeBase* subtree, const AVLTreeNodeBase* parent) {
    if (!subtree || !enter()) return 0;
    const Node* node = static_cast<const Node*>(subtree);
    expect(node->parent_ == parent,
           "2. a parent link leads to the node above, at the root to none");
    const int left = visit(node->left_, node);
    expect(!last_ || node->key_ > last_->key_, "3. keys ascend");
    last_ = node;
    const int right = visit(node->right_, node);
    expect(node->balance_ == right - left, "4. a balance is the right height less the left height");
    expect(-1 <= node->balance_ && node->balance_ <= 1, "5. a balance is -1, 0 or 1");
    leave();
    return 1 + (left > right ? left : right);
  }

  const Node* last_ = nullptr;  // visited last, in order
};

template <class K, class V>
std::string brokenInvariant(const AVLTree<K, V>& tree) {
  AVLTreeVisit<K, V> check;
  check.visit(tree.root_, nullptr);
  return check.text();
}

// Returns the number of nodes on the longest path, 0 for an empty tree. Requires: the tree is
// whole.
template <class K, class V>
unsigned heightOf(const AVLTree<K, V>& tree) {
  unsigned height = 0;
  for (const AVLTreeNodeBase* base = tree.root_; base; height++) {
    const auto* node = static_cast<const AVLTreeNode<K, V>*>(base);
    base = node->balance_ > 0 ? node->right_ : node->left_;
  }
  return height;
}

// --- The weight-balanced tree ---

struct WTreeVisit : TreeVisit {
  // Up to this weight the limits hold without exception; above, one case may miss them by a step.
  static constexpr unsigned EXACT_WEIGHT = 238;

  // Gives access to the protected weight.
  struct Access : WTreeNodeBase {
    static constexpr unsigned WTreeNodeBase::*weight() { return &Access::weight_; }
  };

  explicit WTreeVisit(WTreeCompare before) : before_(before) {}

  // Returns the weight of the subtree.
  unsigned visit(const WTreeNodeBase* node) {
    if (!node || !enter()) return 1;
    const unsigned a = visit(node->left());
    expect(!last_ || before_(last_ + 1, node + 1) > 0, "2. keys ascend");
    last_ = node;
    const unsigned b = visit(node->right());
    expect(node->*Access::weight() == a + b, "3. a weight is the sum of the children's weights");
    expect(isBalanced(a, b), "4. the children's weights keep to the limits");
    leave();
    return a + b;
  }

  static bool isBalanced(unsigned long long a, unsigned long long b) {
    if (a + b > EXACT_WEIGHT) return a <= 3 * b && b <= 3 * a;
    return a * 29 <= b * 70 && a * 239 >= b * 99;
  }

  WTreeCompare before_;
  const WTreeNodeBase* last_ = nullptr;  // visited last, in order
};

// Requires: `before` is the comparison with which the nodes were inserted.
inline std::string brokenInvariant(const WTreeBase& tree, WTreeCompare before) {
  WTreeVisit check(before);
  check.visit(tree.top());
  return check.text();
}

}  // namespace Testing
}  // namespace Utils
