// SPDX-License-Identifier: MIT
// The balanced map beside std::map, with requests for memory failing at random and its structure
// checked after every step; and the assertions, which only links and balances set by hand can fail.
#include "utils/sdk/atree.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <vector>

#include "gmock/gmock.h"
#include "support/assertion_recorder.h"
#include "support/counted.h"
#include "support/seed.h"
#include "utils/sdk/atree_std.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/ysys.h"
#include "utils/testing/failing_allocator.h"
#include "utils/testing/tree_check.h"

template struct Utils::AVLTree<unsigned, const char*>;
template struct Utils::AVLTreeIter<unsigned, const char*>;
template struct Utils::AVLTreeNode<unsigned, const char*>;

// To the recorder, if there is one.
extern "C" [[gnu::visibility("default")]] void _assert(const char* condition, const char* file,
                                                       unsigned int line) noexcept {
  YfAssert__(condition, file, line);
}

namespace {

using testing::ElementsAre;
using namespace Utils;
using namespace Utils::Testing;

using Tree = AVLTree<unsigned, unsigned>;
using Iter = AVLTreeIter<unsigned, unsigned>;

unsigned held() { return Allocator::theAllocator()->allocatedMemory(); }

// --- Random runs beside a model ---

template <class K, class V>
struct MapRun {
  using Node = AVLTreeNode<K, V>;
  struct Entry {
    int value_;
    const Node* node_;
  };

  void step(unsigned kind, const K& key, int value) {
    const auto place = model_.find(key);
    const bool there = place != model_.end();
    if (kind < 2) {
      const bool made = kind == 0 ? tree_.insert(key, V(value)) : insertByItsSteps(key, V(value));
      EXPECT_EQ(made, !there && !allocator_.failed());
      if (made) remember(key, value);
    } else if (kind == 2) {
      auto it = tree_[key];
      ASSERT_EQ(it.valid(), there || !allocator_.failed());
      if (!it.valid()) return;
      EXPECT_EQ(it.pos()->key(), key);
      EXPECT_EQ(*it.insertAddr_, it.pos_);
      EXPECT_TRUE(there || it.value() == V());
      it = V(value);
      remember(key, value);
    } else if (kind == 6) {
      AVLTree<K, V> moved(std::move(tree_));
      EXPECT_EQ(tree_.root_, nullptr);
      if (value < 500) tree_ = std::move(moved);
      if (value >= 500) swap(tree_, moved);
    } else if (kind < 5) {
      EXPECT_EQ(tree_.remove(key), there);
      if (there) model_.erase(place);
    } else {
      auto it = tree_.find(key);
      it.bump(true);
      const auto next = there ? std::next(place) : model_.end();
      EXPECT_EQ(it.remove(), next != model_.end());
      if (next != model_.end()) model_.erase(next);
    }
  }

  bool insertByItsSteps(const K& key, const V& value) {
    AVLTreeIter<K, V> it;
    it.tree(&tree_);
    it.top();
    if (it.find(key) || !it.insert(key, value)) return false;
    while (it.adjustBalance() && it.up()) {
    }
    return true;
  }

  void remember(const K& key, int value) {
    const auto it = tree_.find(key);
    ASSERT_TRUE(it.valid());
    model_[key] = {value, it.pos()};
  }

  void compare() {
    EXPECT_EQ(brokenInvariant(tree_), "");
    auto expected = model_.begin();
    for (const auto& node : static_cast<const AVLTree<K, V>&>(tree_)) {
      ASSERT_NE(expected, model_.end());
      EXPECT_EQ(&node, expected->second.node_) << "every node stays where it is";
      EXPECT_EQ(node.key(), expected->first);
      EXPECT_TRUE(node.value() == V(expected->second.value_));
      ++expected;
    }
    EXPECT_EQ(expected, model_.end());
    EXPECT_EQ(tree_.size(), model_.size());
    EXPECT_EQ(Counted::live_, (std::is_same_v<V, Counted>) ? static_cast<int>(model_.size()) : 0);
  }

  // Backwards, with both kinds of iterators, and off the end; compare() walks forwards.
  void walk() {
    AVLTreeIter<K, V> it;
    it.tree(&tree_);
    it.top();
    it.downRight();
    for (auto place = model_.rbegin(); place != model_.rend(); ++place, it.bump(false))
      EXPECT_EQ(it.pos(), place->second.node_);
    EXPECT_FALSE(it.valid());
    it.bump(true);
    EXPECT_FALSE(it.valid());
    EXPECT_TRUE(std::equal(std::make_reverse_iterator(tree_.end()),
                           std::make_reverse_iterator(tree_.begin()), model_.rbegin(),
                           model_.rend(),
                           [](auto& node, auto& entry) { return &node == entry.second.node_; }));
  }

  void run(unsigned range, unsigned steps, unsigned every) {
    Random random(range);
    for (unsigned i = 0; i < steps && !testing::Test::HasFailure(); i++) {
      const unsigned kind = random.below(7);  // as many insertions as removals
      allocator_.failFrom(random.below(8) == 0 ? 1 : 0);
      step(kind, static_cast<K>(random.below(range)), static_cast<int>(random.below(1000)));
      if (i % every == 0) compare();
    }
    compare();
    walk();
  }

  FailingAllocator allocator_;
  AVLTree<K, V> tree_;
  std::map<K, Entry> model_;
};

TEST(AVLTree, RandomRunFollowsTheModel) {
  const unsigned before = held();
  Counted::reset();
  MapRun<unsigned, unsigned>().run(12, 20000, 1);
  MapRun<unsigned long, unsigned>().run(200, 6000, 2);
  MapRun<std::vector<char>, Counted>().run(1000, 5000, 20);
  MapRun<double, int>().run(20000, 60000, 3000);
  EXPECT_EQ(held(), before);
  Counted::reset();
}

// --- Single cases ---

TEST(AVLTree, EmptyOne) {
  alignas(Iter) char memory[sizeof(Iter)];
  std::memset(memory, 1, sizeof memory);
  Iter& it = *new (memory) Iter;
  EXPECT_FALSE(it.valid());
  EXPECT_TRUE(it.insert(1, 1)) << "at no link";
  Tree tree;
  EXPECT_FALSE(tree.begin() != tree.end());
  it.tree(&tree);
  it.top();
  it.downRight();
  EXPECT_FALSE(it.adjustBalance());
  EXPECT_EQ(it.here(nullptr), 0);
  EXPECT_EQ(it.pos(), nullptr);
  EXPECT_EQ(it.insertAddr_, &tree.root_);
}

TEST(AVLTree, ValuesThroughIterators) {
  AVLTree<unsigned long, unsigned> tree;
  EXPECT_EQ(tree[5] = 6, 6u);
  tree[1] = tree[5];
  EXPECT_EQ(tree.find(1), 6u);
  auto it = tree.find(9);
  EXPECT_EQ(it, 0u);
  EXPECT_EQ(it = 3u, 3u);
  it = tree.find(1);
  tree.find(1).pos()->value(4);
  EXPECT_EQ(it.value(), 4u);
  for (auto& entry : tree) entry.value()++;
  EXPECT_EQ(tree[1] + tree[5], 12u);
}

TEST(AVLTreeIter, PlaceAndLink) {
  Tree tree;
  for (const unsigned key : {2u, 1u, 3u}) tree.insert(key, key);
  Iter it;
  it.tree(&tree);
  it.top();
  AVLTreeNodeBase** sibling = nullptr;
  EXPECT_EQ(it.here(&sibling), 0);
  EXPECT_EQ(sibling, nullptr);
  EXPECT_TRUE(it.find(2));
  EXPECT_EQ(it.insertAddr_, &tree.root_);
  EXPECT_FALSE(it.find(4));
  EXPECT_EQ(it.pos()->key(), 3u);
  EXPECT_EQ(it.insertAddr_, &it.pos()->right_);
  EXPECT_EQ(it.here(&sibling), 1);
  EXPECT_EQ(sibling, &it.left(tree.root_));
  EXPECT_TRUE(it.up());
  EXPECT_EQ(it.pos_, tree.root_);
  EXPECT_EQ(it.insertAddr_, &it.right(tree.root_));
  EXPECT_TRUE(it.up());
  EXPECT_FALSE(it.valid());
  EXPECT_EQ(it.insertAddr_, &tree.root_);
  EXPECT_FALSE(it.up());
}

TEST(AVLTree, EntriesCount) {
  FailingAllocator allocator;
  Tree tree{{1, 5}, {2, 7}, {1, 8}};
  EXPECT_EQ(++tree[1], 6u);
  EXPECT_EQ(tree[1]++, 6u);
  EXPECT_EQ(tree[3] += tree[1], 7u);
  EXPECT_EQ((tree[3] -= 2) += 1, 6u);
  EXPECT_EQ(--tree[2], 6u);
  EXPECT_EQ(tree[2]--, 6u);
  allocator.failFrom(1);
  EXPECT_EQ(++(--tree[4] += 3), tree[4]++) << "no entry";
  std::vector<unsigned> all;
  for (const auto& [key, value] : tree) all.insert(all.end(), {key, value});
  EXPECT_THAT(all, ElementsAre(1, 7, 2, 5, 3, 6));
}

// A tree in a tree, which is moved there only if there is memory for its entry.
TEST(AVLTree, HoldsWhatCannotBeCopied) {
  FailingAllocator allocator;
  AVLTree<unsigned, Tree> trees;
  Tree tree{{1, 1}};
  allocator.failFrom(1);
  EXPECT_FALSE(trees.insert(1, std::move(tree)));
  allocator.failFrom(0);
  EXPECT_EQ(tree.size(), 1u);
  EXPECT_TRUE(trees.insert(1, std::move(tree)));
  trees[2] = std::move(trees[1].value());
  EXPECT_EQ(trees[2].value()[1] + trees[1].value().size() + tree.size(), 1u);
}

// Without balancing, a tree is as deep as it has nodes.
TEST(AVLTreeIter, UnbalancedTreesEndWithoutRecursion) {
  Tree tree;
  Iter it;
  it.tree(&tree);
  it.top();
  for (unsigned key = 0; key < 300000; key++) {
    ASSERT_TRUE(it.insert(key, key));
    it.pos_ = *it.insertAddr_;
    it.insertAddr_ = &it.right(it.pos_);
  }
  const unsigned before = held();
  tree.empty();
  EXPECT_LE(held(), before - 300000 * sizeof(Iter::Node));
  EXPECT_EQ(tree.root_, nullptr);
}

// --- Assertions ---

TEST(Assertions, NameWhatDoesNotHold) {
  AssertionRecorder recorder;
  Tree tree;
  tree.insert(2, 2);
  tree.insert(1, 1);
  Iter it;
  it.nodeOps_ = &Iter::Node::ops_;
  it.pos_ = tree.root_;
  it.here(nullptr);
  it.rotateLeft();
  it.leftBalance();
  EXPECT_THAT(recorder.take(),
              ElementsAre("ops_", "insertAddr_ && *insertAddr_", "insertAddr_ && *insertAddr_"));
  it.tree(&tree);
  it.top();
  it.rotateLeft();
  it.insertAddr_ = &it.left(it.pos_);
  it.rotateRight();
  it.leftBalance();
  EXPECT_THAT(recorder.take(),
              ElementsAre("rChild", "lChild", "(*insertAddr_)->balance_ != 0", "rightNode"));
  it.pos_ = nullptr;
  it.rightBalance();
  EXPECT_THAT(recorder.take(), ElementsAre("pos_"));
  EXPECT_EQ(brokenInvariant(tree), "");
  tree.root_->balance_ = 1;
  EXPECT_TRUE(tree.remove(1));
  EXPECT_THAT(recorder.take(), ElementsAre("sibNode"));
  EXPECT_FALSE(tree.find(1).valid());
  EXPECT_THAT(recorder.files_, testing::Each("utils/sdk/atree"));
}

static_assert(sizeof(AVLTree<char, char>) == sizeof(void*));
static_assert(std::is_nothrow_move_constructible_v<Tree> && std::is_nothrow_swappable_v<Tree>);
static_assert(std::bidirectional_iterator<Tree::iterator> &&
              std::bidirectional_iterator<Tree::const_iterator>);
static_assert(sizeof(Utils::AVLTreeIterBase) == 5 * sizeof(void*) &&
              sizeof(Iter) == 5 * sizeof(void*));
static_assert(sizeof(AVLTreeNode<unsigned, const char*>) == (sizeof(void*) == 4 ? 24 : 48));

}  // namespace
