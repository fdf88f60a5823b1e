// SPDX-License-Identifier: MIT
// The balanced map from keys to values.
//
// A search tree balanced by height (G. M. Adelson-Velsky and E. M. Landis, 1962) with parent links:
// at every node the heights of the two subtrees differ by at most one, and no operation needs a
// stack of the nodes that it has passed. All work on the structure stands once, in AVLTreeIterBase,
// which knows no keys and finds the links of a node and the root of a tree through TemplOps tables
// (vector.h). The typed templates compare keys, make nodes and forward.
//
// A tree owns its nodes, one block of the process allocator for each entry. A node stays where it
// is until its entry is removed, and so do its key and value. K needs == and >, which must be a
// strict total order, and a copy constructor; V a copy constructor, and a default constructor where
// entries are made or read without a value.
//
//   bytes, 32-bit   0 balance_   4 parent_    8 left_  12 right_  16 key_, value_
//   bytes, 64-bit   0 balance_   8 parent_   16 left_  24 right_  32 key_, value_
//
// Example: after the keys 3, 1, 2 the root is 2 with balance 0, above 1 and 3; without 1 its
// balance is 1, since its right subtree is one higher than its left one.
//
// The caller serialises. A change through one iterator leaves all others on that tree stale: they
// must be set again before they are used.
#pragma once

#include <cstddef>

#include "utils/sdk/allocator.h"
#include "utils/sdk/export.h"
#include "utils/sdk/trees/choose.h"
#include "utils/sdk/vector.h"

namespace Utils {

struct YUTILS_EXPORT AVLTreeNodeBase {
  AVLTreeNodeBase() : balance_(0) {}

  int balance() const { return balance_; }

  int balance_;  // height of the right subtree less that of the left one: -1, 0 or 1
};

// How every node begins, whatever its key and value.
struct AVLTreeNodeFields {
  int balance_;
  AVLTreeNodeBase* parent_;
  AVLTreeNodeBase* left_;
  AVLTreeNodeBase* right_;
};

struct YUTILS_EXPORT AVLTreeBase {};

// A place in a tree, and all work on the structure. `pos_` is the current node, null when the
// iterator stands nowhere; `insertAddr_` is the address of a link: the one that leads to pos_, or
// the empty one below pos_ where a sought key belongs. Operations that tell of no link leave it
// alone. Requires, but for what does nothing nowhere: an iterator that is bound to a tree.
struct YUTILS_EXPORT AVLTreeIterBase {
  AVLTreeIterBase() { init(); }

  // The links of a node, to read and to write.
  AVLTreeNodeBase*& parent(void* node) const { return linkAt(node, nodeOps_->offset0_); }
  AVLTreeNodeBase*& left(void* node) const { return linkAt(node, nodeOps_->offset1_); }
  AVLTreeNodeBase*& right(void* node) const { return linkAt(node, nodeOps_->offset2_); }

  void top() {  // to the root and its link
    insertAddr_ = &linkAt(tree_, ops_->offset0_);
    pos_ = *insertAddr_;
  }

  // Sets insertAddr_ to the link that leads to pos_. Gives -1 where that is the left link of the
  // parent, 1 where it is the right one, and stores the address of the other one unless `sibling`
  // is null; gives 0 at the root and nowhere.
  int here(AVLTreeNodeBase*** sibling);

  // To the parent; insertAddr_ is then the link that was come from. False when there was no node.
  bool up();
  void downLeft();  // to the first node of the subtree at pos_
  void downRight();
  void bump(bool forward);  // to the next key or the previous one, nowhere behind the last
  void invalidate() { pos_ = nullptr; }

  // What an insertion does after it has hung a node at insertAddr_, the link of pos_. One step:
  // true when the subtree at pos_ has grown, so that its parent needs the same.
  bool adjustBalance();
  void settle();  // all steps

  // Mend a node at pos_ that leans by two to that side, the link of which is insertAddr_.
  void leftBalance();
  void rightBalance();

  // Turn the subtree at insertAddr_, which hangs below pos_. Balances stay as they are.
  void rotateLeft();
  void rotateRight();

  // Takes the node at pos_ out and gives it to the caller, without children; null nowhere. The
  // iterator must be set again.
  AVLTreeNodeBase* remove();

  // The node with the next key or the previous one, null for none. Requires a node.
  static AVLTreeNodeBase* next(AVLTreeNodeBase* node, bool forward, const TemplOps& nodeOps);

  // Unlinks the first node without children of the subtree `top`, searched from `node`, which
  // becomes its parent, and gives it; null when only `top` is left. Links alone are looked after.
  static AVLTreeNodeBase* cutLeaf(AVLTreeNodeBase*& node, AVLTreeNodeBase* top,
                                  const TemplOps& nodeOps);

  const TemplOps* ops_;      // of the tree; null until the iterator is bound
  const TemplOps* nodeOps_;  // of its nodes
  void* tree_;
  AVLTreeNodeBase* pos_;
  AVLTreeNodeBase** insertAddr_;

 protected:
  void init() {
    ops_ = nodeOps_ = nullptr;
    tree_ = nullptr;
    pos_ = nullptr;
    insertAddr_ = nullptr;
  }

  static AVLTreeNodeBase*& linkAt(void* object, unsigned offset) {
    return *reinterpret_cast<AVLTreeNodeBase**>(static_cast<char*>(object) + offset);
  }
};

// On the way down it asks for the memory of the nodes that the steps after this one come to.
inline AVLTreeNodeBase* AVLTreeIterBase::next(AVLTreeNodeBase* node, bool forward,
                                              const TemplOps& nodeOps) {
  const unsigned ahead = forward ? nodeOps.offset2_ : nodeOps.offset1_;
  const unsigned behind = forward ? nodeOps.offset1_ : nodeOps.offset2_;
  if (AVLTreeNodeBase* found = linkAt(node, ahead)) {
    while (AVLTreeNodeBase* nearer = linkAt(found, behind)) {
      __builtin_prefetch(linkAt(found, ahead));
      found = nearer;
    }
    return found;
  }
  AVLTreeNodeBase* from;
  do {
    from = node;
    node = linkAt(node, nodeOps.offset0_);
  } while (node && linkAt(node, ahead) == from);
  return node;
}

// An entry. Owns its children: they go with it.
template <class K, class V>
struct YUTILS_EXPORT AVLTreeNode : AVLTreeNodeBase {
  AVLTreeNode(const K& key, const V& value) : key_(key), value_(value) { init(); }
  ~AVLTreeNode();
  AVLTreeNode(const AVLTreeNode&) = delete;
  AVLTreeNode& operator=(const AVLTreeNode&) = delete;

  // Memory of the process allocator; null when there is none.
  static void* operator new(std::size_t size) noexcept {
    static_assert(alignof(AVLTreeNode) <= 8, "the allocator aligns to 8");
    return Allocator::theAllocator()->alloc(static_cast<unsigned>(size));
  }
  static void operator delete(void* node) noexcept { Allocator::theAllocator()->free(node); }

  void init() { parent_ = left_ = right_ = nullptr; }

  const K& key() const { return key_; }
  V& value() { return value_; }
  const V& value() const { return value_; }
  void value(const V& v) { value_ = v; }

  // The child that a search goes to next (trees/choose.h). Loading both children takes no longer
  // than loading the key.
  AVLTreeNode* childTowards(bool greater) const {
    return static_cast<AVLTreeNode*>(choose(greater, right_, left_));
  }
  AVLTreeNodeBase** linkTowards(bool greater) { return greater ? &right_ : &left_; }

  AVLTreeNodeBase* parent_;  // null at the root
  AVLTreeNodeBase* left_;    // keys below this one
  AVLTreeNodeBase* right_;   // keys above
  K key_;
  V value_;
  static const TemplOps ops_;
};

template <class K, class V>
constexpr TemplOps AVLTreeNode<K, V>::ops_ = {0,
                                              nullptr,
                                              nullptr,
                                              nullptr,
                                              nullptr,
                                              nullptr,
                                              offsetof(AVLTreeNodeFields, parent_),
                                              offsetof(AVLTreeNodeFields, left_),
                                              offsetof(AVLTreeNodeFields, right_),
                                              0};

// The children end first, left before right, one by one from the leaves: however the tree is
// shaped, no stack runs out.
template <class K, class V>
AVLTreeNode<K, V>::~AVLTreeNode() {
  if (!left_ && !right_) return;
  AVLTreeNodeBase* node = this;
  while (AVLTreeNodeBase* leaf = AVLTreeIterBase::cutLeaf(node, this, ops_))
    delete static_cast<AVLTreeNode*>(leaf);
}

template <class K, class V>
struct AVLTree;

// A place in a tree of that type. Nodes and values that it gives are valid until their entry is
// removed; it must not be used after the tree.
template <class K, class V>
struct YUTILS_EXPORT AVLTreeIter : AVLTreeIterBase {
  using Node = AVLTreeNode<K, V>;

  AVLTreeIter() = default;
  AVLTreeIter(const AVLTreeIter&) = default;
  // Only for an iterator with a name: in `map[a] = map[b]` the value is meant.
  AVLTreeIter& operator=(const AVLTreeIter&) & = default;

  void tree(const AVLTree<K, V>* t) {  // binds; top() then sets it
    ops_ = &AVLTree<K, V>::ops_;
    nodeOps_ = &Node::ops_;
    tree_ = const_cast<AVLTree<K, V>*>(t);
  }

  Node* pos() const { return static_cast<Node*>(pos_); }
  bool valid() const { return pos_ != nullptr; }

  // Looks for the key in the subtree at pos_. Where it is not, pos_ is the last node passed and
  // insertAddr_ the link below it where the key belongs.
  bool find(const K& key);

  // Hangs a new node at insertAddr_, as find left it, without balancing; nothing where that is
  // null. False when there is no memory.
  bool insert(const K& key, const V& value);

  // Removes the entry; the iterator must be set again. False nowhere.
  bool remove() {
    AVLTreeNodeBase* node = AVLTreeIterBase::remove();
    delete static_cast<Node*>(node);
    return node != nullptr;
  }

  V& value() const { return pos()->value_; }  // requires valid()
  operator V() const { return pos_ ? pos()->value_ : V(); }
  const V& operator=(const V& v) {  // nothing changes nowhere; gives v
    if (pos_) pos()->value_ = v;
    return v;
  }
};

template <class K, class V>
bool AVLTreeIter<K, V>::find(const K& key) {
  Node* node = pos();
  if (!node) return false;
  Node* above = nullptr;
  bool greater = false;
  while (!(node->key_ == key)) {
    greater = key > node->key_;
    Node* child = node->childTowards(greater);
    if (!child) {
      pos_ = node;
      insertAddr_ = node->linkTowards(greater);
      return false;
    }
    above = node;
    node = child;
  }
  pos_ = node;
  if (above) insertAddr_ = above->linkTowards(greater);
  return true;
}

template <class K, class V>
bool AVLTreeIter<K, V>::insert(const K& key, const V& value) {
  if (!insertAddr_) return true;
  Node* node = new Node(key, value);
  if (!node) return false;
  node->parent_ = pos_;
  *insertAddr_ = node;
  return true;
}

// The map. Every operation takes time proportional to the logarithm of the number of entries.
template <class K, class V>
struct YUTILS_EXPORT AVLTree : AVLTreeBase {
  using Node = AVLTreeNode<K, V>;
  using Iter = AVLTreeIter<K, V>;

  constexpr AVLTree() : root_(nullptr) {}
  ~AVLTree() { empty(); }
  AVLTree(const AVLTree&) = delete;
  AVLTree& operator=(const AVLTree&) = delete;

  void empty() {  // removes all entries
    Node* root = static_cast<Node*>(root_);
    root_ = nullptr;
    delete root;
  }

  Iter find(const K& key) const {  // invalid when there is none
    Iter it;
    if (!locate(it, key)) it.invalidate();
    return it;
  }

  // False, the tree as it was, when the key is there already or there is no memory.
  bool insert(const K& key, const V& value) {
    Iter it;
    if (locate(it, key) || !it.insert(key, value)) return false;
    it.settle();
    return true;
  }

  bool remove(const K& key) {  // false when there is none
    Iter it;
    return locate(it, key) && it.remove();
  }

  // The entry of that key, made with V() when there is none; invalid when there is no memory.
  Iter intern(const K& key) {
    Iter it;
    if (locate(it, key)) return it;
    if (!it.insert(key, V())) {
      it.invalidate();
      return it;
    }
    AVLTreeNodeBase* node = *it.insertAddr_;
    it.settle();
    it.pos_ = node;
    it.here(nullptr);
    return it;
  }
  Iter operator[](const K& key) { return intern(key); }

  // Walks the entries in the order of their keys; entries must not be removed meanwhile.
  template <class Entry>
  struct Walk {
    Entry& operator*() const { return *static_cast<Entry*>(node_); }
    Entry* operator->() const { return static_cast<Entry*>(node_); }
    Walk& operator++() {
      node_ = AVLTreeIterBase::next(node_, true, Node::ops_);
      return *this;
    }
    bool operator==(const Walk& other) const { return node_ == other.node_; }
    bool operator!=(const Walk& other) const { return node_ != other.node_; }

    AVLTreeNodeBase* node_;
  };

  Walk<Node> begin() { return {first()}; }
  Walk<Node> end() { return {nullptr}; }
  Walk<const Node> begin() const { return {first()}; }
  Walk<const Node> end() const { return {nullptr}; }

  AVLTreeNodeBase* root_;
  static const TemplOps ops_;

 private:
  bool locate(Iter& it, const K& key) const {
    it.tree(this);
    it.top();
    return it.find(key);
  }

  AVLTreeNodeBase* first() const {
    Iter it;
    it.tree(this);
    it.top();
    it.downLeft();
    return it.pos_;
  }
};

// The root is all that a tree has.
template <class K, class V>
constexpr TemplOps AVLTree<K, V>::ops_ = {0,       nullptr, nullptr, nullptr, nullptr,
                                          nullptr, 0,       0,       0,       0};

}  // namespace Utils
