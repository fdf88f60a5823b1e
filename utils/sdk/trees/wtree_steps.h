// SPDX-License-Identifier: MIT
// The algorithms of the weight-balanced tree, apart from the tree.
//
// For the library's own sources, not installed: `wtree.cpp` makes the exported operations of it,
// with a comparison called by its address, and the allocator its free tree, with the comparison
// inlined. A caller says where it wants to go by a function object `place` that takes a node and
// gives > 0 when the node stands before the sought place, < 0 when behind it, 0 when it is there.
//
// No operation recurses. A descent notes the nodes that it passes; the way back up sets their
// weights and rotates where the balance asks for it. A node's other child weighs what the node
// weighs less the child on the path, so the way up touches nothing that the way down did not.
//
// A path has a guard. That of the general tree, WTreeTrust, costs nothing and follows every link. A
// guard of one's own, for nodes that may be overwritten, looks at each node before it is used:
//
//   admits(node)           whether a node can be there       refuse(parent, node)   one is not
//   sound follows(node)          the same, in order on the way     narrow(node, right)    the way
//   goes on added(path, node), replaced(former, node), rotated(top, former)   keep what nodes have
//   beside
//                                                                     their weights
//
// The caller serialises.
#pragma once

#include <cstdint>

#include "utils/sdk/trees/choose.h"
#include "utils/sdk/wtree.h"

namespace Utils {

// The nodes passed on the way down, the topmost first. A child weighs at most 70/99 of its parent
// and a weight has 32 bits, so no path is longer than 64 but for the nodes a step outside the
// balance.
template <class Guard>
struct WTreePathWith : Guard {
  static constexpr unsigned MAX_DEPTH = 96;

  template <class... Arguments>
  explicit WTreePathWith(WTreeNodeBase** root, const Arguments&... arguments)
      : Guard(arguments...), root_(root) {}

  void push(WTreeNodeBase* node) { nodes_[depth_++] = node; }
  WTreeNodeBase* last() const { return depth_ > 0 ? nodes_[depth_ - 1] : nullptr; }

  WTreeNodeBase** root_;
  unsigned depth_ = 0;
  WTreeNodeBase* nodes_[MAX_DEPTH];
};

struct WTreeTrust {
  static constexpr bool GUARDS = false;
  static constexpr bool isSound() { return true; }

  static bool admits(const WTreeNodeBase*) { return true; }
  static void passed(const WTreeNodeBase*) {}
  static void refuse(const WTreeNodeBase*, const WTreeNodeBase*) {}
  static void added(const WTreeNodeBase*) {}
  static void replaced(const WTreeNodeBase*, const WTreeNodeBase*) {}
  static void rotated(const WTreeNodeBase*, const WTreeNodeBase*) {}
};

using WTreePath = WTreePathWith<WTreeTrust>;

struct WTreeSteps {
  using Node = WTreeNodeBase;
  using Link = WTreeNodeBase**;

  // Where a descent ended.
  struct End {
    Node* found_;     // the node at the place; null when the path ends where it would be
    bool toRight_;    // the way that the path went from its last node
    unsigned upper_;  // one more than the level of the first node behind the place; 0 for none
  };

  static Link rootOf(WTreeBase& tree) { return &tree.top_; }

  static bool leftTooHeavy(std::uint64_t a, std::uint64_t b) { return a * 29 > b * 70; }
  static bool rightTooHeavy(std::uint64_t a, std::uint64_t b) { return a * 239 < b * 99; }

  // Whether one child of a node of that weight, the other weighing the rest, weighs more than 70/29
  // of the other, on either side: not 29w <= 99c <= 70w. The stricter of the two tests, for both
  // sides.
  static bool outOfBalance(std::uint64_t child, std::uint64_t weight) {
    return child * 99 - weight * 29 > weight * 41;
  }

  // A link that the guard refuses ends the path.
  template <class Path, class Place>
  static End descend(Path& path, Place place) {
    End end{nullptr, false, 0};
    for (Node* node = *path.root_; node;) {
      if (Path::GUARDS && !(path.depth_ < Path::MAX_DEPTH && path.admits(node))) [[unlikely]] {
        path.refuse(path.last(), node);
        break;
      }
      const int order = place(node);
      if (order == 0) {
        end.found_ = node;
        break;
      }
      end.toRight_ = order > 0;
      const Choice right(end.toRight_);
      path.passed(node);
      path.push(node);
      end.upper_ = right.of(end.upper_, path.depth_);
      node = right.of(node->right_, node->left_);
    }
    return end;
  }

  // The link that the path leads to, where `node` hangs below its last node.
  template <class Path>
  static Link linkTo(const Path& path, unsigned level, const Node* node) {
    if (level == 0) return path.root_;
    Node* parent = path.nodes_[level - 1];
    return parent->left_ == node ? &parent->left_ : &parent->right_;
  }

  // The way back up, from the end of the path to level `from`: adds `delta` (1, 0 or -1) to the
  // weight of each node and restores its balance. `below` is the weight of what the path leads to.
  // The test is the stricter of the two of adjust(), for both sides; adjust() decides.
  template <class Path>
  static void retrace(Path& path, unsigned from, unsigned below, int delta) {
    for (unsigned level = path.depth_; level-- > from;) {
      Node* node = path.nodes_[level];
      const unsigned weight = node->weight_ + static_cast<unsigned>(delta);
      node->weight_ = weight;
      if (outOfBalance(below, weight)) rebalance(path, level, node);
      below = weight;
    }
  }

  // A node whose surroundings are not sound stays as it is.
  template <class Path>
  static void rebalance(Path& path, unsigned level, Node* node) {
    const Link link = linkTo(path, level, node);
    if (Path::GUARDS) {
      if (*link != node) return path.refuse(node, node);
      if (!canRotate(path, node)) return;
    }
    WTreeBase::adjust(link);
    if (*link != node) path.rotated(*link, node);
  }

  // The way back up of a search that changed nothing, to level `from`: mends what an earlier step
  // left outside the balance. Only nodes of at least that weight can have been left so; the path is
  // cut behind the last of them.
  template <class Path>
  static void rebalanceAfterSearch(Path& path, unsigned from, unsigned below) {
    constexpr unsigned LEAST_WEIGHT = 239;
    unsigned depth = from;
    while (depth < path.depth_ && path.nodes_[depth]->weight_ >= LEAST_WEIGHT) depth++;
    if (depth < path.depth_) below = path.nodes_[depth]->weight_;
    path.depth_ = depth;
    retrace(path, from, below, 0);
  }

  // Puts a node where a descent ended without finding one.
  template <class Path>
  static void attach(Path& path, End end, Node* node) {
    node->left_ = node->right_ = nullptr;
    node->weight_ = 2;
    if (path.depth_ == 0) {
      *path.root_ = node;
    } else {
      Node* parent = path.nodes_[path.depth_ - 1];
      (end.toRight_ ? parent->right_ : parent->left_) = node;
    }
    path.added(node);
    retrace(path, 0, 2, 1);
  }

  // Takes out the node that the path leads to; both its children are null then. A node with two
  // children changes places with its predecessor first. False, and nothing is changed, if the guard
  // refuses a node.
  template <class Path>
  static bool detach(Path& path, Node* node) {
    const Link link = linkTo(path, path.depth_, node);
    Node* rest = node->left_ ? node->left_ : node->right_;
    if (node->left_ && node->right_) {
      if (!exchangeWithPredecessor(path, link, node, rest)) return false;
    } else {
      if (!admitsOrNull(path, node, rest)) return false;
      *link = rest;
    }
    node->left_ = node->right_ = nullptr;
    retrace(path, 0, WTreeBase::wt(rest), -1);
    return true;
  }

  // `fresh` takes the place of `node`, which hangs at `link`. Requires: the same place in the
  // order.
  template <class Path>
  static void replace(Path& path, Link link, Node* node, Node* fresh) {
    fresh->weight_ = node->weight_;
    fresh->left_ = node->left_;
    fresh->right_ = node->right_;
    *link = fresh;
    path.replaced(node, fresh);
  }

  static Node* leftmost(Node* node) {
    while (node->left_) node = node->left_;
    return node;
  }
  // The same with the guard of the path, for a child of `parent`; null if a node is refused.
  template <class Path>
  static Node* leftmost(Path& path, const Node* parent, Node* node) {
    for (unsigned depth = 0; depth < Path::MAX_DEPTH && path.admits(node); depth++) {
      if (!node->left_) return node;
      parent = node;
      node = node->left_;
    }
    path.refuse(parent, node);
    return nullptr;
  }

  static unsigned weightOf(const Node* node) { return node->weight_; }

  struct RangeRemoval;  // in wtree.cpp, its only user

 private:
  // The predecessor takes the node's place and leaves its own to its left child, which is `rest`
  // then. The path then leads there.
  template <class Path>
  static bool exchangeWithPredecessor(Path& path, Link link, Node* node, Node*& rest) {
    const unsigned level = path.depth_;
    path.push(node);
    Node* predecessor = node->left_;
    if (!admitsOrNull(path, node, node->right_) || !admitsOrNull(path, node, predecessor))
      return false;
    while (predecessor->right_) {
      if (Path::GUARDS && path.depth_ >= Path::MAX_DEPTH) path.refuse(predecessor, predecessor);
      if (!path.isSound() || !admitsOrNull(path, predecessor, predecessor->right_)) return false;
      path.push(predecessor);
      predecessor = predecessor->right_;
    }
    rest = predecessor->left_;
    if (!admitsOrNull(path, predecessor, rest)) return false;
    *linkTo(path, path.depth_, predecessor) = rest;
    replace(path, link, node, predecessor);
    path.nodes_[level] = predecessor;
    return true;
  }

  template <class Path>
  static bool admitsOrNull(Path& path, const Node* parent, const Node* node) {
    if (!node || path.admits(node)) return true;
    path.refuse(parent, node);
    return false;
  }

  // Whether a rotation that the weights ask for finds all nodes that it reads: the children, those
  // of the heavier one, and those of the inner one of these. A weight that is not the sum of the
  // weights below would make it look for nodes that are not there.
  template <class Path>
  static bool canRotate(Path& path, const Node* node) {
    const Node* left = node->left_;
    const Node* right = node->right_;
    if (!hasWeight(path, node, left) || !hasWeight(path, node, right)) return false;
    const bool leftIsHeavy = WTreeBase::wt(left) > WTreeBase::wt(right);
    const Node* heavy = leftIsHeavy ? left : right;
    if (!heavy) return true;
    if (!hasWeight(path, heavy, heavy->left_) || !hasWeight(path, heavy, heavy->right_))
      return false;
    if (heavy->weight_ != WTreeBase::wt(heavy->left_) + WTreeBase::wt(heavy->right_)) {
      path.refuse(heavy, heavy);
      return false;
    }
    const Node* inner = leftIsHeavy ? heavy->right_ : heavy->left_;
    return !inner ||
           (admitsOrNull(path, inner, inner->left_) && admitsOrNull(path, inner, inner->right_));
  }

  // Whether there is no node, or one that can weigh as much as a node does.
  template <class Path>
  static bool hasWeight(Path& path, const Node* parent, const Node* node) {
    if (!admitsOrNull(path, parent, node)) return false;
    if (!node || node->weight_ >= 2) return true;
    path.refuse(node, node);
    return false;
  }
};

}  // namespace Utils
