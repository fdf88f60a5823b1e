// SPDX-License-Identifier: MIT
// The algorithms of the weight-balanced tree, apart from the tree.
//
// For the library's own sources, not installed: wtree.cpp builds the exported operations from them,
// with a comparison that is called by its address; the allocator builds its tree of free blocks,
// with the comparison inlined. The caller directs a descent by a function object `place`, which
// takes a node and returns > 0 if the node is before the sought place, < 0 if it is after it, 0 if
// it is at it.
//
// No operation recurses. A descent records the nodes that it passes; the retracing of that path
// sets their weights and rotates where the balance requires it. The weight of a node's other child
// is the node's weight less that of the child on the path, so retracing reads no other nodes until
// it rotates.
//
// A path has a guard. WTreeTrust, the guard of the general tree, costs nothing and follows every
// link. A guard for nodes that may be overwritten checks each node before it is used:
//
//   admits(node)              returns true if a node can be at that address
//   refuse(parent, node)      records a node below `parent` that is not sound
//   isSound()                 returns true until a node was refused
//   passed(node)              is called before a descent continues below the node
//
// and keeps up to date what its nodes store beside their weights: added(node), replaced(former,
// node), rotated(top, former).
//
// Thread safety: the caller serialises all operations on a tree.
#pragma once

#include <cstdint>

#include "utils/sdk/trees/choose.h"
#include "utils/sdk/wtree.h"

namespace Utils {

// The nodes that a descent passed, the root first. A child weighs at most 70/99 of its parent and a
// weight has 32 bits, so a path has at most 64 nodes; the rest is room for nodes that are one step
// outside the balance.
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

  // The result of a descent.
  struct End {
    Node* found_;     // the node at the place; null if the path ends where it would be inserted
    bool toRight_;    // the direction in which the path left its last node
    unsigned upper_;  // one more than the level of the first node after the place; 0 if none
  };

  static Link rootOf(WTreeBase& tree) { return &tree.top_; }

  static bool leftTooHeavy(std::uint64_t a, std::uint64_t b) { return a * 29 > b * 70; }
  static bool rightTooHeavy(std::uint64_t a, std::uint64_t b) { return a * 239 < b * 99; }

  // True unless 29 * weight <= 99 * child <= 70 * weight, that is, unless neither side is heavier
  // than 70/29 of the other. The stricter of adjust()'s two limits, applied to both sides.
  static bool outOfBalance(std::uint64_t child, std::uint64_t weight) {
    return child * 99 - weight * 29 > weight * 41;
  }

  // Goes from the root towards the place. A node that the guard refuses ends the path.
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

  // Returns the link to `node`, which is a child of the path's last node above `level`, or the root
  // for level 0.
  template <class Path>
  static Link linkTo(const Path& path, unsigned level, const Node* node) {
    if (level == 0) return path.root_;
    Node* parent = path.nodes_[level - 1];
    return parent->left_ == node ? &parent->left_ : &parent->right_;
  }

  // Goes from the end of the path back to level `from`: adds `delta` (1, 0 or -1) to the weight of
  // each node and restores its balance. `below` is the weight of the subtree at the end of the
  // path. The test is stricter than the two of adjust(), which decides.
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

  // Does nothing if a node that the rotation needs is not sound.
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

  // Retraces the path of a search that changed nothing, back to level `from`, to restore the
  // balance of nodes that an earlier step left outside the limits. Only nodes of at least
  // LEAST_WEIGHT can be there, so the path is cut after the last of these.
  template <class Path>
  static void rebalanceAfterSearch(Path& path, unsigned from, unsigned below) {
    constexpr unsigned LEAST_WEIGHT = 239;
    unsigned depth = from;
    while (depth < path.depth_ && path.nodes_[depth]->weight_ >= LEAST_WEIGHT) depth++;
    if (depth < path.depth_) below = path.nodes_[depth]->weight_;
    path.depth_ = depth;
    retrace(path, from, below, 0);
  }

  // Inserts a node at the place where a descent ended without finding one.
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

  // Removes the node at the end of the path and sets both its child links to null. A node with two
  // children first changes places with its predecessor. Returns false, and changes nothing, if the
  // guard refuses a node.
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

  // Puts `fresh` in the place of `node`, to which `link` leads. Requires: both have the same place
  // in the order.
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
  // Does the same for a child of `parent`, checked by the guard of the path. Returns null if a node
  // is refused.
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
  // Puts the predecessor in the place of the node, and the predecessor's left child in the place of
  // the predecessor. The path then leads to that child, which `rest` is set to.
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

  // True if all nodes that the rotation reads are sound: the children, the children of the heavier
  // child, and those of its inner child. With a weight that is not the sum of the weights below, a
  // rotation would follow links to nodes that do not exist.
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

  // True if `node` is null, or sound and of a weight that a node can have.
  template <class Path>
  static bool hasWeight(Path& path, const Node* parent, const Node* node) {
    if (!admitsOrNull(path, parent, node)) return false;
    if (!node || node->weight_ >= 2) return true;
    path.refuse(node, node);
    return false;
  }
};

}  // namespace Utils
