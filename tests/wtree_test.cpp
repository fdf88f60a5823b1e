// The weight-balanced tree against std::map for what it holds, and against the balancing steps
// spelt out as recursions for its shape.
#include "utils/sdk/wtree.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "support/seed.h"

namespace {

using Utils::WTreeBase;
using Utils::WTreeNodeBase;

struct Node : WTreeNodeBase {
  explicit Node(int key) : key_(key) {}

  unsigned weight() const { return weight_; }

  int key_;
};

int keyBehind(const WTreeNodeBase* node) { return static_cast<const Node*>(node)->key_; }

int ascending(const void* a, const void* b) {
  const int x = *static_cast<const int*>(a);
  const int y = *static_cast<const int*>(b);
  return (x < y) - (x > y);
}

struct Tree : WTreeBase {
  WTreeNodeBase* removeRange(int low, int high, int lower, int upper, bool closed) {
    return closed ? removeC(&low, &high, &lower, &upper, &top_, ascending)
                  : WTreeBase::remove(&low, &high, &lower, &upper, &top_, ascending);
  }
  using WTreeBase::remove;
};

// The steps as recursions over a tree of its own, with weights computed anew wherever they are
// asked for. Shapes are written as text: (left key right).
struct Reference {
  struct R {
    int key_;
    R* left_ = nullptr;
    R* right_ = nullptr;
  };
  using Link = R*&;

  R* make(int key) {
    all_.push_back(std::make_unique<R>(R{key}));
    return all_.back().get();
  }

  static unsigned long long weight(const R* n) {
    return n ? weight(n->left_) + weight(n->right_) : 1;
  }

  static void left(Link link) {
    R* r = link->right_;
    link->right_ = r->left_;
    r->left_ = link;
    link = r;
  }
  static void right(Link link) {
    R* l = link->left_;
    link->left_ = l->right_;
    l->right_ = link;
    link = l;
  }
  static bool leftHeavy(const R* n) { return weight(n->left_) * 29 > weight(n->right_) * 70; }
  static bool rightHeavy(const R* n) { return weight(n->left_) * 239 < weight(n->right_) * 99; }
  // Rotates once; says whether it was a double rotation.
  static bool rotateRight(Link link) {
    const bool twice = weight(link->left_->left_) * 169 < weight(link->left_) * 70;
    if (twice) left(link->left_);
    right(link);
    return twice;
  }
  static bool rotateLeft(Link link) {
    const bool twice = weight(link->right_->left_) * 169 > weight(link->right_) * 99;
    if (twice) right(link->right_);
    left(link);
    return twice;
  }
  static void adjust(Link link) {
    if (leftHeavy(link)) {
      rotateRight(link);
    } else if (rightHeavy(link)) {
      rotateLeft(link);
    }
  }
  static void checkrots(Link link) {
    if (leftHeavy(link)) {
      while (leftHeavy(link)) {
        if (rotateRight(link)) checkrots(link->left_);
        checkrots(link->right_);
      }
    } else {
      while (rightHeavy(link)) {
        if (rotateLeft(link)) checkrots(link->right_);
        checkrots(link->left_);
      }
    }
  }

  bool insert(int key) { return insert(key, top_); }
  bool insert(int key, Link link) {
    if (!link) {
      link = make(key);
      return true;
    }
    if (link->key_ == key) return false;
    const bool done = insert(key, key > link->key_ ? link->right_ : link->left_);
    adjust(link);
    return done;
  }

  // Removes `key`; with `fit` set, else the next key behind it. Gives whether a node went.
  bool remove(int key, bool fit) { return remove(key, fit, top_); }
  bool remove(int key, bool fit, Link link) {
    if (!link) return false;
    bool done;
    if (link->key_ < key) {
      done = remove(key, fit, link->right_);
    } else {
      done = link->key_ > key && remove(key, fit, link->left_);
      if (!done && (fit || link->key_ == key)) {
        done = true;
        takeOut(link);
      }
    }
    if (link) adjust(link);
    return done;
  }
  static void takeOut(Link link) {
    if (!link->left_ || !link->right_) {
      link = link->left_ ? link->left_ : link->right_;
      return;
    }
    link->key_ = takeLast(link->left_);
  }
  static int takeLast(Link link) {
    if (link->right_) {
      const int key = takeLast(link->right_);
      adjust(link);
      return key;
    }
    const int key = link->key_;
    link = link->left_;
    return key;
  }

  void removeRange(int low, int high, int lower, int upper, bool closed, Link link) {
    if (!link) return;
    const int key = link->key_;
    const auto ends = [&](int k) { return closed ? k <= high : k < high; };
    if (key < low) {
      removeRange(low, high, key, upper, closed, link->right_);
    } else if (!ends(key)) {
      removeRange(low, high, lower, key, closed, link->left_);
    } else if (low <= lower && ends(upper)) {
      link = nullptr;
    } else {
      removeRange(low, high, lower, key, closed, link->left_);
      removeRange(low, high, key, upper, closed, link->right_);
      checkrots(link);
      remove(key, false, link);
    }
    if (link) checkrots(link);
  }

  static void write(const R* n, std::string& out) {
    if (!n) return;
    out += '(';
    write(n->left_, out);
    out += std::to_string(n->key_);
    write(n->right_, out);
    out += ')';
  }

  R* top_ = nullptr;
  std::vector<std::unique_ptr<R>> all_;
};

void write(const WTreeNodeBase* n, std::string& out) {
  if (!n) return;
  out += '(';
  write(n->left(), out);
  out += std::to_string(keyBehind(n));
  write(n->right(), out);
  out += ')';
}

std::string shape(const WTreeBase& tree) {
  std::string out;
  write(tree.top(), out);
  return out;
}

// 1. weights  2. balance, where it is promised  3. order. Gives the subtree's weight.
unsigned check(const WTreeNodeBase* node, bool balanced, const int*& last) {
  if (!node) return 1;
  const unsigned a = check(node->left(), balanced, last);
  const int& key = static_cast<const Node*>(node)->key_;
  if (last) {
    EXPECT_LT(*last, key);
  }
  last = &key;
  const unsigned b = check(node->right(), balanced, last);
  EXPECT_EQ(static_cast<const Node*>(node)->weight(), a + b);
  if (balanced) {
    EXPECT_LE(a * 29, b * 70);
    EXPECT_GE(a * 239, b * 99);
  }
  return a + b;
}

void check(const WTreeBase& tree) {
  const int* last = nullptr;
  const unsigned size = tree.size();
  EXPECT_EQ(check(tree.top(), size < 238, last), size + 1);
}

// A tree beside its models; nodes are kept by key.
struct Trio {
  bool insert(int key) {
    auto node = std::make_unique<Node>(key);
    const bool done = tree_.insert(node.get(), ascending);
    EXPECT_EQ(done, reference_.insert(key));
    EXPECT_EQ(done, nodes_.count(key) == 0);
    if (done) nodes_[key] = std::move(node);
    return done;
  }

  void remove(int key, bool fit) {
    Node probe(key);
    const auto expected = fit ? nodes_.lower_bound(key) : nodes_.find(key);
    WTreeNodeBase* gone =
        fit ? tree_.removesup(&probe, ascending) : tree_.remove(&probe, ascending);
    EXPECT_EQ(reference_.remove(key, fit), gone != nullptr);
    if (expected == nodes_.end()) {
      EXPECT_EQ(gone, nullptr);
      return;
    }
    ASSERT_EQ(gone, expected->second.get());
    EXPECT_EQ(gone->left(), nullptr);
    EXPECT_EQ(gone->right(), nullptr);
    nodes_.erase(expected);
  }

  void removeRange(int low, int high, bool closed) {
    const int lower = nodes_.empty() ? 0 : nodes_.begin()->first;
    const int upper = nodes_.empty() ? 0 : nodes_.rbegin()->first;
    WTreeNodeBase* list = tree_.removeRange(low, high, lower, upper, closed);
    reference_.removeRange(low, high, lower, upper, closed, reference_.top_);
    for (WTreeNodeBase* next; list; list = next) {
      next = list->left();
      EXPECT_EQ(list->right(), nullptr);
      const int key = keyBehind(list);
      EXPECT_TRUE(low <= key && (closed ? key <= high : key < high)) << key;
      ASSERT_EQ(nodes_.erase(key), 1u) << key;
    }
    const auto left = nodes_.lower_bound(low);
    if (left != nodes_.end()) {
      EXPECT_TRUE(closed ? left->first > high : left->first >= high);
    }
  }

  void next(int key) {
    Node probe(key);
    const auto expected = nodes_.upper_bound(key);
    const WTreeNodeBase* found = tree_.nextNode(&probe, ascending);
    EXPECT_EQ(found, expected == nodes_.end() ? nullptr : expected->second.get());
    EXPECT_EQ(tree_.minNode(), nodes_.empty() ? nullptr : nodes_.begin()->second.get());
  }

  void compare() {
    EXPECT_EQ(tree_.size(), nodes_.size());
    check(tree_);
    std::string expected;
    Reference::write(reference_.top_, expected);
    EXPECT_EQ(shape(tree_), expected);
  }

  Tree tree_;
  Reference reference_;
  std::map<int, std::unique_ptr<Node>> nodes_;
};

TEST(WTree, FollowsTheStepsOnRandomOperations) {
  Random random(20261122);
  for (const unsigned range : {12u, 300u, 5000u}) {
    Trio trio;
    for (int step = 0; step < 8000 && !testing::Test::HasFailure(); step++) {
      const int key = static_cast<int>(random.below(range));
      const unsigned kind = random.below(100);
      const bool growing = step / 2000 % 2 == 0;
      if (kind < (growing ? 85u : 30u)) {
        trio.insert(key);
      } else if (kind < 94) {
        trio.remove(key, kind % 2 == 0);
      } else if (kind < 97) {
        const unsigned most = random.below(8) == 0 ? range / 2 : range / 12;
        trio.removeRange(key, key + static_cast<int>(random.below(most)), random.below(2) == 0);
      } else {
        trio.next(key);
      }
      if (step % 16 == 0 || range == 12) trio.compare();
    }
    trio.removeRange(0, static_cast<int>(range), true);
    EXPECT_EQ(trio.tree_.top(), nullptr);
  }
}

TEST(WTree, KeepsItsShapeInOrderedRuns) {
  for (const int direction : {1, -1}) {
    Trio trio;
    for (int i = 1; i <= 600; i++) trio.insert(i * direction);
    trio.compare();
    EXPECT_LE(trio.tree_.depth(), 14u);
    for (int i = 1; i <= 600; i += 2) trio.remove(i * direction, false);
    trio.compare();
    while (!trio.nodes_.empty()) trio.remove(-1000, true);
    EXPECT_EQ(trio.tree_.depth(), 0u);
  }
}

TEST(WTree, SmallShapes) {
  for (const auto& keys : {std::vector<int>{1, 2, 3}, {3, 2, 1}, {1, 3, 2}, {3, 1, 2}}) {
    Trio trio;
    for (const int key : keys) trio.insert(key);
    EXPECT_EQ(shape(trio.tree_), "((1)2(3))");
  }
  Trio seven;
  for (int key = 1; key <= 7; key++) seven.insert(key);
  EXPECT_EQ(shape(seven.tree_), "(((1)2(3))4((5)6(7)))");
  EXPECT_FALSE(seven.insert(4));
  EXPECT_FALSE(seven.insert(1));
  seven.remove(4, false);
  EXPECT_EQ(shape(seven.tree_), "(((1)2)3((5)6(7)))");
  seven.removeRange(5, 5, false);
  EXPECT_EQ(seven.tree_.size(), 6u);
  seven.removeRange(5, 5, true);
  EXPECT_EQ(seven.tree_.size(), 5u);
}

}  // namespace
