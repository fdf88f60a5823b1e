// SPDX-License-Identifier: MIT
// A map from keys to values, in a balanced search tree.
//
// The tree is balanced by height (G. M. Adelson-Velsky and E. M. Landis, "An algorithm for the
// organization of information", 1962) and has parent links: at every node the heights of the two
// subtrees differ by at most one, and no operation needs a stack of the nodes that it passed. All
// work on the structure is in AVLTreeIterBase, once for all types: it knows no keys and finds the
// links of a node and the root of a tree through TemplOps tables (vector.h). The typed templates
// compare keys, create nodes and forward.
//
// A tree owns its nodes; each entry is one block of the process allocator. A node, with its key and
// value, keeps its address until its entry is removed. Requires: K has a copy constructor, and ==
// and > that are a strict total order; V has a copy or a move constructor, and a default
// constructor if intern(), [] or the conversion of an iterator to V is used.
//
// atree_std.h adds `for (auto& [key, value] : tree)`, and before C++20 the algorithms of the
// standard library.
//
//   bytes, 32-bit   0 balance_   4 parent_    8 left_  12 right_  16 key_, value_
//   bytes, 64-bit   0 balance_   8 parent_   16 left_  24 right_  32 key_, value_
//
// Example: after the keys 3, 1, 2 the root is 2 with balance 0, above 1 and 3. After the removal of
// 1 its balance is 1, since its right subtree is one higher than its left one.
//
// Thread safety: the caller serialises all operations on a tree, and those that allocate or free
// with all others that do so (allocator.h).
//
// An insertion or a removal through one iterator invalidates all others of that tree: they must be
// set again, by top() or find(), before they are used.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <type_traits>

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

// The first fields of every node, independent of its key and value.
struct AVLTreeNodeFields {
  int balance_;
  AVLTreeNodeBase* parent_;
  AVLTreeNodeBase* left_;
  AVLTreeNodeBase* right_;
};

struct YUTILS_EXPORT AVLTreeBase {};

// A place in a tree, and all work on the structure. `pos_` is the current node, or null.
// `insertAddr_` is the address of a link: the link that leads to pos_, or the null link below pos_
// at which a sought key belongs. Operations whose comments do not mention the link leave
// insertAddr_ unchanged. Requires: the iterator is bound to a tree, unless pos_ is null and the
// operation does nothing in that case.
struct YUTILS_EXPORT AVLTreeIterBase {
  AVLTreeIterBase() { init(); }

  // The links of a node, to be read and written.
  AVLTreeNodeBase*& parent(void* node) const { return linkAt(node, nodeOps_->offset0_); }
  AVLTreeNodeBase*& left(void* node) const { return linkAt(node, nodeOps_->offset1_); }
  AVLTreeNodeBase*& right(void* node) const { return linkAt(node, nodeOps_->offset2_); }

  void top() {  // moves to the root, insertAddr_ to the link that leads to it
    insertAddr_ = &linkAt(tree_, ops_->offset0_);
    pos_ = *insertAddr_;
  }

  // Sets insertAddr_ to the link that leads to pos_. Returns -1 if that is the left link of the
  // parent, 1 if it is the right one, and then stores the address of the parent's other link in
  // `sibling` unless that is null. Returns 0 for the root. Does nothing and returns 0 if pos_ is
  // null.
  int here(AVLTreeNodeBase*** sibling);

  // Moves to the parent, or to null from the root; insertAddr_ is then the link that led to the
  // former node. Returns false if pos_ is null.
  bool up();
  void downLeft();          // moves to the first node of the subtree at pos_
  void downRight();         // moves to the last one
  void bump(bool forward);  // moves to the next key or to the previous one; null if there is none
  void invalidate() { pos_ = nullptr; }

  // Restore the balance after an insertion that has attached a node at insertAddr_, a link of pos_.
  // adjustBalance does one step and returns true if the subtree at pos_ has become higher, so that
  // the parent needs the same step. settle does all steps, and leaves pos_ and insertAddr_ anywhere
  // on the path to the root.
  bool adjustBalance();
  void settle();

  // Rebalance the node at pos_, whose subtree on that side is too high by two. Requires:
  // insertAddr_ is the link to that subtree.
  void leftBalance();
  void rightBalance();

  // Rotate the subtree at insertAddr_, a link of pos_. Balances are not changed.
  void rotateLeft();
  void rotateRight();

  // Unlinks the node at pos_ and returns it, its child links null; the caller owns it. Returns null
  // if pos_ is null. Invalidates the iterator.
  AVLTreeNodeBase* remove();

  // Returns the node with the next or the previous key, null if there is none. Requires: `node` is
  // not null.
  static AVLTreeNodeBase* next(AVLTreeNodeBase* node, bool forward, const TemplOps& nodeOps);

  // Unlinks a leaf below `top` and returns it: the first one at or below `node`, which is set to
  // the leaf's parent. Returns null if `top` is the leaf. Balances are not kept.
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

// On the way down it prefetches the nodes that the following steps visit.
inline AVLTreeNodeBase* AVLTreeIterBase::next(AVLTreeNodeBase* node, bool forward,
                                              const TemplOps& nodeOps) {
  const unsigned onward = forward ? nodeOps.offset2_ : nodeOps.offset1_;
  const unsigned back = forward ? nodeOps.offset1_ : nodeOps.offset2_;
  if (AVLTreeNodeBase* found = linkAt(node, onward)) {
    while (AVLTreeNodeBase* nearer = linkAt(found, back)) {
      __builtin_prefetch(linkAt(found, onward));
      found = nearer;
    }
    return found;
  }
  AVLTreeNodeBase* from;
  do {
    from = node;
    node = linkAt(node, nodeOps.offset0_);
  } while (node && linkAt(node, onward) == from);
  return node;
}

// An entry. Owns its children: its destructor deletes them.
template <class K, class V>
struct YUTILS_EXPORT AVLTreeNode : AVLTreeNodeBase {
  AVLTreeNode(const K& key, const V& value) : key_(key), value_(value) { init(); }
  template <class Value = V, class = std::enable_if_t<!IS_BYTES<Value>>>
  AVLTreeNode(const K& key, V&& value) : key_(key), value_(static_cast<V&&>(value)) {
    init();
  }
  ~AVLTreeNode();
  AVLTreeNode(const AVLTreeNode&) = delete;
  AVLTreeNode& operator=(const AVLTreeNode&) = delete;

  // Allocates with the process allocator. Returns null if there is no memory.
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

  // The key for I = 0, the value for I = 1.
  template <std::size_t I>
  auto& get() {
    if constexpr (I == 0) {
      return key();
    } else {
      return value();
    }
  }
  template <std::size_t I>
  const auto& get() const {
    return const_cast<AVLTreeNode*>(this)->template get<I>();
  }

  // Returns the child that a search visits next (trees/choose.h). The load of both children takes
  // no longer than the load of the key.
  AVLTreeNode* childTowards(bool greater) const {
    return static_cast<AVLTreeNode*>(choose(greater, right_, left_));
  }
  AVLTreeNodeBase** linkTowards(bool greater) { return greater ? &right_ : &left_; }

  AVLTreeNodeBase* parent_;  // null at the root
  AVLTreeNodeBase* left_;    // smaller keys
  AVLTreeNodeBase* right_;   // greater keys
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

// Deletes the children one by one from the leaves, left before right, so that no shape of a tree
// overflows the stack.
template <class K, class V>
AVLTreeNode<K, V>::~AVLTreeNode() {
  if (!left_ && !right_) return;
  AVLTreeNodeBase* node = this;
  while (AVLTreeNodeBase* leaf = AVLTreeIterBase::cutLeaf(node, this, ops_))
    delete static_cast<AVLTreeNode*>(leaf);
}

template <class K, class V>
struct AVLTree;

// A place in a tree of that type. Valid until the tree is destroyed; the nodes and values that it
// returns are valid until their entry is removed.
template <class K, class V>
struct YUTILS_EXPORT AVLTreeIter : AVLTreeIterBase {
  using Node = AVLTreeNode<K, V>;

  AVLTreeIter() = default;
  AVLTreeIter(const AVLTreeIter&) = default;
  // For named iterators only: `map[a] = map[b]` assigns the value.
  AVLTreeIter& operator=(const AVLTreeIter&) & = default;

  void tree(const AVLTree<K, V>* t) {  // binds the iterator; top() then sets its place
    ops_ = &AVLTree<K, V>::ops_;
    nodeOps_ = &Node::ops_;
    tree_ = const_cast<AVLTree<K, V>*>(t);
  }

  Node* pos() const { return static_cast<Node*>(pos_); }
  bool valid() const { return pos_ != nullptr; }

  // Searches the subtree at pos_. If the key is there, moves to its node, insertAddr_ to the link
  // that leads to it, and returns true. Else returns false: pos_ is then the last node visited, and
  // insertAddr_ the null link below it at which the key belongs. Changes nothing if pos_ is null.
  bool find(const K& key);

  // Attaches a new node at insertAddr_, as find() has set it, without balancing; settle() balances.
  // Does nothing and returns true if insertAddr_ is null. Returns false if there is no memory.
  bool insert(const K& key, const V& value) { return !insertAddr_ || attach(new Node(key, value)); }
  template <class Value = V, class = std::enable_if_t<!IS_BYTES<Value>>>
  bool insert(const K& key, V&& value) {  // moves from the value if it returns true
    return !insertAddr_ || attach(new Node(key, static_cast<V&&>(value)));
  }

  // Removes the entry. Returns false if pos_ is null. Invalidates the iterator.
  bool remove() {
    AVLTreeNodeBase* node = AVLTreeIterBase::remove();
    delete static_cast<Node*>(node);
    return node != nullptr;
  }

  V& value() const { return pos()->value_; }  // Requires: valid()
  // Returns a copy of the value; V() if pos_ is null.
  operator V() const { return pos_ ? pos()->value_ : V(); }
  // Assigns v to the value; does nothing if pos_ is null. Returns v.
  const V& operator=(const V& v) {
    if (pos_) pos()->value_ = v;
    return v;
  }
  // For values that cannot be copied.
  template <class Value = V, class = std::enable_if_t<!std::is_copy_assignable_v<Value>>>
  void operator=(V&& v) {
    if (pos_) pos()->value_ = static_cast<V&&>(v);
  }

  // Change the value, as in `++counts[word]`; the iterator keeps its place. Do nothing if pos_ is
  // null.
  template <class Amount>
  AVLTreeIter operator+=(const Amount& amount) const {
    if (pos_) addTo(value(), amount);
    return *this;
  }
  template <class Amount>
  AVLTreeIter operator-=(const Amount& amount) const {
    if (pos_) subtractFrom(value(), amount);
    return *this;
  }
  AVLTreeIter operator++() const {
    if (pos_) ++value();
    return *this;
  }
  AVLTreeIter operator--() const {
    if (pos_) --value();
    return *this;
  }
  V operator++(int) const { return pos_ ? value()++ : V(); }  // return the former value
  V operator--(int) const { return pos_ ? value()-- : V(); }

 private:
  bool attach(Node* node) {
    if (!node) return false;
    node->parent_ = pos_;
    *insertAddr_ = node;
    return true;
  }

  // As the operators of numbers do, without the warnings of their conversions.
  template <class Amount>
  static void addTo(V& v, const Amount& amount) {
    if constexpr (std::is_arithmetic_v<V> && std::is_arithmetic_v<Amount>) {
      using Sum = decltype(v + amount);
      v = static_cast<V>(static_cast<Sum>(v) + static_cast<Sum>(amount));
    } else {
      v += amount;
    }
  }
  template <class Amount>
  static void subtractFrom(V& v, const Amount& amount) {
    if constexpr (std::is_arithmetic_v<V> && std::is_arithmetic_v<Amount>) {
      using Sum = decltype(v - amount);
      v = static_cast<V>(static_cast<Sum>(v) - static_cast<Sum>(amount));
    } else {
      v -= amount;
    }
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

// Iterates over the entries in the order of their keys, as a bidirectional iterator of the standard
// library. Requires: no entry is removed, and the tree is not moved, while it iterates; it is not
// moved past the ends. Its category is in C++17 declared by atree_std.h.
template <class K, class V, class Entry>
struct AVLTreeWalk {
  using value_type = AVLTreeNode<K, V>;
  using difference_type = std::ptrdiff_t;
  using pointer = Entry*;
  using reference = Entry&;

  AVLTreeWalk() : AVLTreeWalk(nullptr, nullptr) {}
  AVLTreeWalk(AVLTreeNodeBase* node, const AVLTree<K, V>* tree) : node_(node), tree_(tree) {}
  // A walk over constant entries from one over entries.
  template <class Other, class = std::enable_if_t<std::is_same_v<const Other, Entry>>>
  AVLTreeWalk(const AVLTreeWalk<K, V, Other>& other) : AVLTreeWalk(other.node_, other.tree_) {}

  Entry& operator*() const { return *static_cast<Entry*>(node_); }
  Entry* operator->() const { return static_cast<Entry*>(node_); }
  AVLTreeWalk& operator++() {
    node_ = AVLTreeIterBase::next(node_, true, AVLTreeNode<K, V>::ops_);
    return *this;
  }
  AVLTreeWalk operator++(int) {
    const AVLTreeWalk former = *this;
    ++*this;
    return former;
  }
  AVLTreeWalk& operator--() {
    node_ = node_ ? AVLTreeIterBase::next(node_, false, AVLTreeNode<K, V>::ops_) : tree_->last();
    return *this;
  }
  AVLTreeWalk operator--(int) {
    const AVLTreeWalk former = *this;
    --*this;
    return former;
  }
  friend bool operator==(const AVLTreeWalk& a, const AVLTreeWalk& b) { return a.node_ == b.node_; }
  friend bool operator!=(const AVLTreeWalk& a, const AVLTreeWalk& b) { return a.node_ != b.node_; }

  AVLTreeNodeBase* node_;  // null at the end
  const AVLTree<K, V>* tree_;
};

// The map. Search, insertion and removal take time logarithmic in the number of entries.
template <class K, class V>
struct YUTILS_EXPORT AVLTree : AVLTreeBase {
  using Node = AVLTreeNode<K, V>;
  using Iter = AVLTreeIter<K, V>;
  template <class Entry>
  using Walk = AVLTreeWalk<K, V, Entry>;
  using iterator = Walk<Node>;
  using const_iterator = Walk<const Node>;
  using value_type = Node;

  struct Pair {
    K key;
    V value;
  };

  constexpr AVLTree() : root_(nullptr) {}
  // Inserts the pairs in their order, as insert() does.
  AVLTree(std::initializer_list<Pair> pairs) : root_(nullptr) {
    for (const Pair& pair : pairs) insert(pair.key, pair.value);
  }
  // Constant time; `other` is then empty. Entries keep their addresses. Iterators of `other`, and
  // walks, are invalid.
  AVLTree(AVLTree&& other) noexcept : root_(other.root_) { other.root_ = nullptr; }
  ~AVLTree() { empty(); }
  AVLTree(const AVLTree&) = delete;
  AVLTree& operator=(const AVLTree&) = delete;
  // Removes the former entries. Changes nothing if `other` is this tree.
  AVLTree& operator=(AVLTree&& other) noexcept {
    AVLTree moved(static_cast<AVLTree&&>(other));
    swap(moved);
    return *this;
  }

  void swap(AVLTree& other) noexcept {
    AVLTreeNodeBase* former = root_;
    root_ = other.root_;
    other.root_ = former;
  }
  friend void swap(AVLTree& a, AVLTree& b) noexcept { a.swap(b); }

  // Removes all entries. Unlike the operation of that name in the standard library, it is no
  // question; root_ is null if the tree has no entry.
  void empty() {
    Node* root = static_cast<Node*>(root_);
    root_ = nullptr;
    delete root;
  }
  void clear() { empty(); }

  // Counts the entries: a tree stores no number. Takes as long as a loop over the tree.
  unsigned size() const {
    unsigned count = 0;
    for (const AVLTreeNodeBase* node = first(); node; count++)
      node = AVLTreeIterBase::next(const_cast<AVLTreeNodeBase*>(node), true, Node::ops_);
    return count;
  }

  Iter find(const K& key) const {  // returns an invalid iterator if there is none
    Iter it;
    if (!locate(it, key)) it.invalidate();
    return it;
  }

  // Returns false, and changes nothing, if the key is there already or there is no memory.
  bool insert(const K& key, const V& value) {
    Iter it;
    if (locate(it, key) || !it.insert(key, value)) return false;
    it.settle();
    return true;
  }
  template <class Value = V, class = std::enable_if_t<!IS_BYTES<Value>>>
  bool insert(const K& key, V&& value) {  // moves from the value if it returns true
    Iter it;
    if (locate(it, key) || !it.insert(key, static_cast<V&&>(value))) return false;
    it.settle();
    return true;
  }

  bool remove(const K& key) {  // returns false if there is none
    Iter it;
    return locate(it, key) && it.remove();
  }

  // Returns an iterator at the entry of the key, which is inserted with V() if there is none.
  // Returns an invalid iterator if there is no memory.
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

  // From the smallest key to the greatest.
  iterator begin() { return {first(), this}; }
  iterator end() { return {nullptr, this}; }
  const_iterator begin() const { return {first(), this}; }
  const_iterator end() const { return {nullptr, this}; }

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
  AVLTreeNodeBase* last() const {
    Iter it;
    it.tree(this);
    it.top();
    it.downRight();
    return it.pos_;
  }

  template <class, class, class>
  friend struct AVLTreeWalk;
};

// A tree has one field, the root.
template <class K, class V>
constexpr TemplOps AVLTree<K, V>::ops_ = {0,       nullptr, nullptr, nullptr, nullptr,
                                          nullptr, 0,       0,       0,       0};

}  // namespace Utils
