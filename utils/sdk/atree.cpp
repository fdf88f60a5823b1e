// SPDX-License-Identifier: MIT
// The structure of the balanced map, once for all keys and values.
//
// Left and right are mirror images: each step stands once, with the side as its argument, and the
// exported operations name the side. A balance times the sign of a side is positive if that side of
// the node is higher.
#include "utils/sdk/atree.h"

#include "utils/sdk/platform.h"
#include "utils/sdk/trees/choose.h"

namespace Utils {

namespace {

using Node = AVLTreeNodeBase;
using Iter = AVLTreeIterBase;

constexpr char SOURCE[] = "utils/sdk/atree";

enum Side { LEFT = -1, RIGHT = 1 };  // by their signs

Side opposite(Side side) { return static_cast<Side>(-side); }

// The side that a step works on cannot be predicted, so it is computed (trees/choose.h).

Side sideOf(const Iter& it, Node* above, const Node* child) {
  return choose(it.left(above) == child, LEFT, RIGHT);
}

Node*& child(const Iter& it, Node* node, Side side) {
  const unsigned offset = choose(side == RIGHT, it.nodeOps_->offset2_, it.nodeOps_->offset1_);
  return *reinterpret_cast<Node**>(reinterpret_cast<char*>(node) + offset);
}

// Reports a condition that does not hold. Returns the condition: a caller that needs it returns
// before it changes anything.
bool holds(bool condition, const char* text, unsigned line) {
  if (!condition) [[unlikely]]
    _assert(text, SOURCE, line);
  return condition;
}

bool hasLinkedNode(const Iter& it) {
  return holds(it.insertAddr_ && *it.insertAddr_, "insertAddr_ && *insertAddr_", __LINE__);
}

void setLink(const Iter& it, Node* node, Side side, Node* to) {
  child(it, node, side) = to;
  if (to) it.parent(to) = node;
}

// Raises the child on the other side to insertAddr_; its parent becomes its child on `side`.
void rotate(Iter& it, Side side) {
  if (!hasLinkedNode(it)) return;
  Node* sinking = *it.insertAddr_;
  Node* rising = child(it, sinking, opposite(side));
  if (!holds(rising, side == LEFT ? "rChild" : "lChild", __LINE__)) return;
  setLink(it, sinking, opposite(side), child(it, rising, side));
  setLink(it, rising, side, sinking);
  *it.insertAddr_ = rising;
  it.parent(rising) = it.pos_;
}

// --- Insertion ---

// The node at pos_ is too high by two on `side`, and its child there is higher on the same side.
void rotateOnce(Iter& it, Node* child, Side side) {
  it.pos_->balance_ = child->balance_ = 0;
  it.up();
  rotate(it, opposite(side));
}

// The node at pos_ is too high by two on `side`, and its child there is higher on the other side:
// the grandchild between them is raised above both.
void rotateTwice(Iter& it, Node* child, Node* grandchild, Side side) {
  const int lean = grandchild->balance_ * side;
  it.pos_->balance_ = lean > 0 ? -side : 0;
  child->balance_ = lean < 0 ? side : 0;
  grandchild->balance_ = 0;
  rotate(it, side);
  it.up();
  rotate(it, opposite(side));
}

void rebalanceGrown(Iter& it, Side side) {
  if (!hasLinkedNode(it) || !holds(it.pos_, "pos_", __LINE__)) return;
  Node* node = *it.insertAddr_;
  holds(node->balance_ != 0, "(*insertAddr_)->balance_ != 0", __LINE__);
  if (node->balance_ * side > 0) return rotateOnce(it, node, side);
  Node* inner = child(it, node, opposite(side));
  if (!holds(inner, side == LEFT ? "rightNode" : "leftNode", __LINE__)) return;
  rotateTwice(it, node, inner, side);
}

// Records that the subtree at insertAddr_, on that side of pos_, has grown. Returns true if the
// subtree at pos_ has grown too.
bool recordGrowth(Iter& it, Side side) {
  const bool grows = it.pos_->balance_ == 0;
  it.pos_->balance_ += side;
  if (it.pos_->balance_ * side > 1) rebalanceGrown(it, side);
  return grows;
}

// --- Removal ---

// Moves to the parent. Returns the side on which the parent is now higher if the subtree below has
// become one lower; 0 above the root.
int climb(Iter& it) {
  const int dir = -it.here(nullptr);
  it.pos_ = it.parent(it.pos_);
  return dir;
}

// Swaps a node with two children with its predecessor, which has at most a left child.
void exchangeWithPredecessor(Iter& it) {
  Node* node = it.pos_;
  it.here(nullptr);
  Node* next = it.left(node);
  while (Node* further = it.right(next)) next = further;
  Node* rest = it.left(next);
  Node* above = next;  // the new parent of the node
  if (next != it.left(node)) {
    above = it.parent(next);
    setLink(it, next, LEFT, it.left(node));
    it.right(above) = node;
  } else {
    it.left(next) = node;
  }
  setLink(it, next, RIGHT, it.right(node));
  it.parent(next) = it.parent(node);
  *it.insertAddr_ = next;
  setLink(it, node, LEFT, rest);
  it.right(node) = nullptr;
  it.parent(node) = above;
  const int balance = node->balance_;
  node->balance_ = next->balance_;
  next->balance_ = balance;
}

// Unlinks the node at insertAddr_, which has at most one child. Its parent link is unchanged.
void unlink(Iter& it, Node* node) {
  Node* rest = it.left(node) ? it.left(node) : it.right(node);
  if (rest) it.parent(rest) = it.parent(node);
  *it.insertAddr_ = rest;
  it.left(node) = it.right(node) = nullptr;
}

// Rebalances the node at pos_, which is too high by two on the side `dir`. Returns true if its
// subtree has become lower: pos_ is then the parent, and `dir` the side on which that one is now
// higher.
bool rebalanceShrunk(Iter& it, int& dir) {
  const Side side = static_cast<Side>(dir);
  Node* node = it.pos_;
  Node* sibNode = child(it, node, side);
  if (!holds(sibNode, "sibNode", __LINE__)) return false;
  const int lean = sibNode->balance_ * side;
  if (lean < 0) {
    it.insertAddr_ = &child(it, node, side);
    rotate(it, side);
    Node* inner = *it.insertAddr_;
    if (!holds(inner, "node", __LINE__)) return false;
    const int innerLean = inner->balance_ * side;
    inner->balance_ = 0;
    sibNode->balance_ = innerLean < 0 ? side : 0;
    dir = climb(it);
    if (!holds(*it.insertAddr_, "node", __LINE__)) return false;
    node->balance_ = innerLean > 0 ? -side : 0;
  } else {
    sibNode->balance_ = lean == 0 ? -side : 0;
    if (lean > 0) node->balance_ = 0;
    dir = climb(it);
  }
  rotate(it, opposite(side));
  return lean != 0;
}

// Restores the balance after the subtree of pos_ on the side opposite to `dir` has become one
// lower.
void retrace(Iter& it, int dir) {
  while (Node* node = it.pos_) {
    if (node->balance_ == 0) {
      node->balance_ = dir;
      return;
    }
    if (node->balance_ != dir) {
      node->balance_ = 0;
      dir = climb(it);
    } else if (!rebalanceShrunk(it, dir)) {
      return;
    }
  }
}

}  // namespace

// --- Walking ---

int AVLTreeIterBase::here(AVLTreeNodeBase*** sibling) {
  if (!pos_) return 0;
  AVLTreeNodeBase* above = parent(pos_);
  if (!above) {
    if (holds(ops_, "ops_", __LINE__)) insertAddr_ = &linkAt(tree_, ops_->offset0_);
    return 0;
  }
  const Side side = sideOf(*this, above, pos_);
  insertAddr_ = &child(*this, above, side);
  if (sibling) *sibling = &child(*this, above, opposite(side));
  return side;
}

bool AVLTreeIterBase::up() {
  if (!pos_) return false;
  climb(*this);
  return true;
}

void AVLTreeIterBase::downLeft() {
  if (!pos_) return;
  while (AVLTreeNodeBase* next = left(pos_)) pos_ = next;
}

void AVLTreeIterBase::downRight() {
  if (!pos_) return;
  while (AVLTreeNodeBase* next = right(pos_)) pos_ = next;
}

void AVLTreeIterBase::bump(bool forward) {
  if (pos_) pos_ = next(pos_, forward, *nodeOps_);
}

// --- Balance ---

bool AVLTreeIterBase::adjustBalance() {
  if (!pos_) return false;
  if (insertAddr_ == &left(pos_)) return recordGrowth(*this, LEFT);
  return insertAddr_ == &right(pos_) && recordGrowth(*this, RIGHT);
}

// All nodes below the first one whose balance is not 0 only get the balance of the side that has
// grown.
void AVLTreeIterBase::settle() {
  AVLTreeNodeBase* node = pos_;
  AVLTreeNodeBase* grown = insertAddr_ ? *insertAddr_ : nullptr;
  while (node && node->balance_ == 0) {
    node->balance_ = sideOf(*this, node, grown);
    grown = node;
    node = parent(grown);
  }
  pos_ = node;
  if (!node) return;
  const Side side = sideOf(*this, node, grown);
  insertAddr_ = &child(*this, node, side);
  recordGrowth(*this, side);
}

void AVLTreeIterBase::leftBalance() { rebalanceGrown(*this, LEFT); }

void AVLTreeIterBase::rightBalance() { rebalanceGrown(*this, RIGHT); }

void AVLTreeIterBase::rotateLeft() { rotate(*this, LEFT); }

void AVLTreeIterBase::rotateRight() { rotate(*this, RIGHT); }

// --- Removal from the tree ---

AVLTreeNodeBase* AVLTreeIterBase::remove() {
  AVLTreeNodeBase* node = pos_;
  if (!node) return nullptr;
  if (left(node) && right(node)) exchangeWithPredecessor(*this);
  const int dir = climb(*this);
  unlink(*this, node);
  retrace(*this, dir);
  return node;
}

AVLTreeNodeBase* AVLTreeIterBase::cutLeaf(AVLTreeNodeBase*& node, AVLTreeNodeBase* top,
                                          const TemplOps& nodeOps) {
  AVLTreeNodeBase* leaf = node;
  while (true) {
    AVLTreeNodeBase* left = linkAt(leaf, nodeOps.offset1_);
    AVLTreeNodeBase* child = left ? left : linkAt(leaf, nodeOps.offset2_);
    if (!child) break;
    leaf = child;
  }
  if (leaf == top) return nullptr;
  node = linkAt(leaf, nodeOps.offset0_);
  AVLTreeNodeBase*& left = linkAt(node, nodeOps.offset1_);
  (left == leaf ? left : linkAt(node, nodeOps.offset2_)) = nullptr;
  return leaf;
}

}  // namespace Utils
