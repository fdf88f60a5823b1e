// SPDX-License-Identifier: MIT
// First fit by address in a tree that is ordered by size.
#include "utils/sdk/memory/free_tree.h"

namespace Utils {

bool FreeWalk::admitsBetween(const WTreeNodeBase* parent, const WTreeNodeBase* node,
                             const MemHead* lower, const MemHead* upper) {
  const auto isBefore = [](const MemHead* a, const MemHead* b) {
    return compareBlocks(a, b->sizeandcolor_, addressOf(b)) > 0;
  };
  if (depth_ < FREE_TREE_DEPTH && admits(node) && (!lower || isBefore(lower, headOfNode(node))) &&
      (!upper || isBefore(headOfNode(node), upper)))
    return true;
  refuse(parent, node);
  return false;
}

bool FreeWalk::holds(WTreeNodeBase* root, const MemHead* block) {
  WTreePath path(&root);
  return WTreeSteps::descend(path, PlaceOfBlock(block)).found_ != nullptr;
}

// A subtree whose lowest_ is not below the best block so far is skipped. If the root of a subtree
// is large enough, so are all nodes after it in the order, and lowest_ leads towards the lowest of
// them. If it is not, no node before it is large enough.
struct FreeWalk::Search {
  void visit(WTreeNodeBase* parent, WTreeNodeBase* node, const MemHead* lower,
             const MemHead* upper) {
    if (!node || !walk_.admitsBetween(parent, node, lower, upper)) return;
    FreeBlock* block = blockOf(node);
    if (block->lowest_ >= best_) return;
    walk_.depth_++;
    if (block->sizeandcolor_ >= size_) {
      best_ = std::min(best_, addressOf(block));
      visit(node, node->right(), block, upper);
      visit(node, node->left(), lower, block);
      block->lowest_ =
          std::min({addressOf(block), lowestOf(node->left()), lowestOf(node->right())});
    } else {
      visit(node, node->right(), block, upper);
    }
    walk_.depth_--;
  }

  std::uintptr_t lowestOf(WTreeNodeBase* node) const {
    return node && walk_.isSound() ? blockOf(node)->lowest_ : UINTPTR_MAX;
  }

  FreeWalk& walk_;
  const unsigned size_;
  std::uintptr_t best_ = UINTPTR_MAX;
};

MemHead* FreeWalk::lowestFit(WTreeNodeBase* root, unsigned size) {
  Search search{*this, size};
  search.visit(nullptr, root, nullptr, nullptr);
  return search.best_ != UINTPTR_MAX ? reinterpret_cast<MemHead*>(search.best_) : nullptr;
}

}  // namespace Utils
