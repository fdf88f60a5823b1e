// SPDX-License-Identifier: MIT
// The checks of the trees: each invariant is broken in a tree of a few nodes.
#include "utils/testing/tree_check.h"

#include <string>
#include <utility>

#include "gtest/gtest.h"

namespace {

using Utils::Testing::brokenInvariant;

char first(const std::string& invariant) { return invariant.empty() ? '0' : invariant[0]; }

TEST(TreeCheck, NamesTheBrokenInvariantOfAnAVLTree) {
  Utils::AVLTree<int, int> tree;
  for (const int key : {2, 1, 3, 4}) tree.insert(key, key);
  auto& two = *tree.find(2).pos();
  auto& three = *tree.find(3).pos();
  EXPECT_EQ(brokenInvariant(tree), "");
  EXPECT_EQ(Utils::Testing::heightOf(tree), 3u);
  three.parent_ = nullptr;
  EXPECT_EQ(first(brokenInvariant(tree)), '2');
  three.parent_ = &two;
  three.key_ = 2;
  EXPECT_EQ(first(brokenInvariant(tree)), '3');
  three.key_ = 3;
  three.balance_ = 0;
  EXPECT_EQ(first(brokenInvariant(tree)), '4');
  three.balance_ = 1;
  delete static_cast<Utils::AVLTreeNode<int, int>*>(std::exchange(two.left_, nullptr));
  two.balance_ = 2;
  EXPECT_EQ(first(brokenInvariant(tree)), '5');
}

struct Node : Utils::WTreeNodeBase {
  void set(int key, unsigned weight, Node* left) {
    key_ = key;
    weight_ = weight;
    left_ = left;
  }
  int key_;
};

int ascending(const void* a, const void* b) {
  return *static_cast<const int*>(b) - *static_cast<const int*>(a);
}

TEST(TreeCheck, NamesTheBrokenInvariantOfAWTree) {
  Node two, one, none;
  Utils::WTreeBase tree;
  two.key_ = 2;
  tree.insert(&two, ascending);
  const auto invariant = [&] { return first(brokenInvariant(tree, ascending)); };
  EXPECT_EQ(invariant(), '0');
  one.set(3, 2, nullptr);
  two.set(2, 3, &one);
  EXPECT_EQ(invariant(), '2');
  one.set(1, 3, nullptr);
  EXPECT_EQ(invariant(), '3');
  none.set(0, 2, nullptr);
  one.set(1, 3, &none);
  two.set(2, 4, &one);
  EXPECT_EQ(invariant(), '4');
  none.set(0, 2, &one);
  EXPECT_EQ(invariant(), '1');
}

}  // namespace
