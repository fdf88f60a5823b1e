// SPDX-License-Identifier: MIT
// The weight-balanced tree against std::map for what it holds, and against the balancing steps
// spelt out as recursions for its shape.
#include "utils/sdk/wtree.h"

#include <algorithm>
#include <deque>
#include <map>
#include <memory>

#include "gtest/gtest.h"
#include "support/seed.h"
#include "utils/testing/tree_check.h"

namespace {

using namespace Utils;

struct Node : WTreeNodeBase {
  explicit Node(int key) : key_(key) {}

  int key_;
};

int keyBehind(const WTreeNodeBase* node) { return static_cast<const Node*>(node)->key_; }

int ascending(const void* a, const void* b) {
  return *static_cast<const int*>(b) - *static_cast<const int*>(a);
}

struct Tree : WTreeBase {
  WTreeNodeBase* removeRange(int low, int high, int lower, int upper, bool closed) {
    return closed ? removeC(&low, &high, &lower, &upper, &top_, ascending)
                  : WTreeBase::remove(&low, &high, &lower, &upper, &top_, ascending);
  }
  using WTreeBase::remove;
};

// The steps as recursions over a tree of its own, with weights computed anew wherever they are
// asked for. A side is 0 for left, 1 for right.
struct Reference {
  struct R {
    int key_;
    R* child_[2] = {};
  };
  using Link = R*&;

  static unsigned long long weight(const R* n) {
    return n ? weight(n->child_[0]) + weight(n->child_[1]) : 1;
  }
  static bool heavy(const R* n, int side) {
    return weight(n->child_[side]) * (side ? 99 : 29) >
           weight(n->child_[!side]) * (side ? 239 : 70);
  }
  // Lifts the child on that side.
  static void rotate(Link link, int side) {
    R* child = link->child_[side];
    link->child_[side] = child->child_[!side];
    child->child_[!side] = link;
    link = child;
  }
  // Rotates once; says whether it was a double rotation.
  static bool lighten(Link link, int side) {
    const R* child = link->child_[side];
    const auto left = weight(child->child_[0]) * 169;
    const bool twice = side ? left > weight(child) * 99 : left < weight(child) * 70;
    if (twice) rotate(link->child_[side], !side);
    rotate(link, side);
    return twice;
  }
  static void adjust(Link link) {
    const int side = heavy(link, 0) ? 0 : 1;
    if (heavy(link, side)) lighten(link, side);
  }
  static void checkrots(Link link) {
    const int side = heavy(link, 0) ? 0 : 1;
    while (heavy(link, side)) {
      if (lighten(link, side)) checkrots(link->child_[side]);
      checkrots(link->child_[!side]);
    }
  }

  void insert(int key, Link link) {
    if (!link) {
      link = &all_.emplace_back(R{key});
    } else if (link->key_ != key) {
      insert(key, link->child_[key > link->key_]);
      adjust(link);
    }
  }

  // Removes `key`, or with `fit` the next key if there is no such. Returns true if a node was
  // removed.
  bool remove(int key, bool fit, Link link) {
    if (!link) return false;
    bool done;
    if (link->key_ < key) {
      done = remove(key, fit, link->child_[1]);
    } else {
      done = link->key_ > key && remove(key, fit, link->child_[0]);
      if (!done && (fit || link->key_ == key)) {
        done = true;
        takeOut(link);
      }
    }
    if (link) adjust(link);
    return done;
  }
  void takeOut(Link link) {
    const auto [left, right] = link->child_;
    if (left && right) {
      const R* last = left;
      while (last->child_[1]) last = last->child_[1];
      link->key_ = last->key_;
      remove(link->key_, false, link->child_[0]);
    } else {
      link = left ? left : right;
    }
  }

  void removeRange(int low, int high, int lower, int upper, bool closed, Link link) {
    if (!link) return;
    const int key = link->key_;
    const auto ends = [&](int k) { return closed ? k <= high : k < high; };
    if (key < low) {
      removeRange(low, high, key, upper, closed, link->child_[1]);
    } else if (!ends(key)) {
      removeRange(low, high, lower, key, closed, link->child_[0]);
    } else if (low <= lower && ends(upper)) {
      link = nullptr;
    } else {
      removeRange(low, high, lower, key, closed, link->child_[0]);
      removeRange(low, high, key, upper, closed, link->child_[1]);
      checkrots(link);
      remove(key, false, link);
    }
    if (link) checkrots(link);
  }

  R* top_ = nullptr;
  std::deque<R> all_;
};

// Returns the depth of a subtree that has the keys and the shape of the reference's.
unsigned check(const WTreeNodeBase* node, const Reference::R* expected) {
  EXPECT_EQ(node == nullptr, expected == nullptr);
  if (!node || !expected) return 0;
  EXPECT_EQ(keyBehind(node), expected->key_);
  return 1 + std::max(check(node->left(), expected->child_[0]),
                      check(node->right(), expected->child_[1]));
}

// A tree beside its models; nodes are kept by key.
struct Trio {
  void insert(int key) {
    auto node = std::make_unique<Node>(key);
    const bool done = tree_.insert(node.get(), ascending);
    reference_.insert(key, reference_.top_);
    EXPECT_EQ(done, nodes_.count(key) == 0);
    if (done) nodes_[key] = std::move(node);
  }

  void remove(int key, bool fit) {
    Node probe(key);
    const auto expected = fit ? nodes_.lower_bound(key) : nodes_.find(key);
    const auto* gone = fit ? tree_.removesup(&probe, ascending) : tree_.remove(&probe, ascending);
    reference_.remove(key, fit, reference_.top_);
    ASSERT_EQ(gone, nodeAt(expected));
    if (!gone) return;
    EXPECT_TRUE(!gone->left() && !gone->right());
    nodes_.erase(expected);
  }

  void removeRange(int low, int high, bool closed) {
    if (nodes_.empty()) return;
    const int lower = nodes_.begin()->first;
    const int upper = nodes_.rbegin()->first;
    WTreeNodeBase* list = tree_.removeRange(low, high, lower, upper, closed);
    reference_.removeRange(low, high, lower, upper, closed, reference_.top_);
    for (WTreeNodeBase* next; list; list = next) {
      next = list->left();
      EXPECT_EQ(list->right(), nullptr);
      const int key = keyBehind(list);
      EXPECT_TRUE(low <= key && (closed ? key <= high : key < high)) << key;
      ASSERT_EQ(nodes_.erase(key), 1u) << key;
    }
    EXPECT_EQ(nodes_.lower_bound(low),
              closed ? nodes_.upper_bound(high) : nodes_.lower_bound(high));
  }

  void next(int key) {
    Node probe(key);
    EXPECT_EQ(tree_.nextNode(&probe, ascending), nodeAt(nodes_.upper_bound(key)));
    EXPECT_EQ(tree_.minNode(), nodeAt(nodes_.begin()));
  }

  void compare() {
    EXPECT_EQ(tree_.size(), nodes_.size());
    EXPECT_EQ(Utils::Testing::brokenInvariant(tree_, ascending), "");
    EXPECT_EQ(tree_.depth(), check(tree_.top(), reference_.top_));
  }

  using Nodes = std::map<int, std::unique_ptr<Node>>;
  const Node* nodeAt(Nodes::const_iterator place) const {
    return place == nodes_.end() ? nullptr : place->second.get();
  }

  Tree tree_;
  Reference reference_;
  Nodes nodes_;
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

}  // namespace
