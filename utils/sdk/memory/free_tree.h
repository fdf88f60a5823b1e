// SPDX-License-Identifier: MIT
// The tree of an arena's free blocks: its order, its guard, and first fit by address.
//
// For the library's own sources, not installed. MemoryAllocator keeps its free large blocks in a
// weight-balanced tree, ordered by size, then by address; wtree_steps.h has the algorithms. The
// nodes lie in memory that the program has freed and may still write to. Each node is therefore
// checked before it is used: it must lie in the chain, and its size must be that of a free large
// block. The first node that fails the check is kept for the report.
//
// After its node a free block stores `lowest_`: no block of its subtree has a lower address. An
// insertion lowers it in the nodes on its path; a removal leaves it unchanged, because the exact
// value would need a read of the other child of every node on the path. lowestFit() raises the
// values that it finds to be too low, so that a later call does not search those subtrees again: a
// call takes amortised time logarithmic in the number of blocks, over all changes of the tree.
//
//   from h, 32-bit (64-bit)   0 head word   4 node   16 (28) label   20 (32) lowest_   S - 4 tail
//
// Thread safety: the caller serialises.
#pragma once

#include <algorithm>
#include <cstdint>

#include "utils/sdk/alloc.h"
#include "utils/sdk/memory/chain.h"
#include "utils/sdk/trees/wtree_steps.h"

namespace Utils {

constexpr unsigned SMALLEST_LARGE = 1024;

#pragma pack(push, 4)
struct FreeBlock : MemHead {
  std::uintptr_t lowest_;
};
#pragma pack(pop)
static_assert(sizeof(FreeBlock) + sizeof(MemTail) <= SMALLEST_LARGE);

inline MemHead* headOfNode(WTreeNodeBase* node) { return static_cast<MemHead*>(node); }
inline const MemHead* headOfNode(const WTreeNodeBase* node) {
  return static_cast<const MemHead*>(node);
}

// Orders free blocks by size, then by address. Returns a positive number if `block` is before the
// given place, a negative one if it is after it. Equal sizes are rare, so the usual case has no
// branch that is hard to predict.
inline int compareBlocks(const MemHead* block, unsigned size, std::uintptr_t address) {
  if (block->sizeandcolor_ != size) [[likely]]
    return block->sizeandcolor_ < size ? 1 : -1;
  const std::uintptr_t blockAddress = addressOf(block);
  return blockAddress == address ? 0 : blockAddress < address ? 1 : -1;
}

// The place of a free block of that size and address in the order.
struct PlaceOfBlock {
  explicit PlaceOfBlock(const MemHead* h) : size_(h->sizeandcolor_), address_(addressOf(h)) {}

  int operator()(const WTreeNodeBase* node) const {
    return compareBlocks(headOfNode(node), size_, address_);
  }

  unsigned size_;
  std::uintptr_t address_;
};

// The place before all blocks of that size: the first block after it is the best fit.
struct PlaceOfFit {
  int operator()(const WTreeNodeBase* node) const {
    return headOfNode(node)->sizeandcolor_ < amt_ ? 1 : -1;
  }

  unsigned amt_;
};

// The guard of a path (wtree_steps.h), which checks nodes and maintains lowest_.
struct FreeGuard {
  static constexpr bool GUARDS = true;

  explicit FreeGuard(const Chain& chain) : places_(chain, SMALLEST_LARGE) {}

  bool canBegin(const WTreeNodeBase* node) const { return places_.has(addressOf(node) - 4); }
  bool admits(const WTreeNodeBase* node) const {
    return canBegin(node) && isLargeSize(headOfNode(node)->sizeandcolor_);
  }
  static void passed(const WTreeNodeBase*) {}
  void refuse(const WTreeNodeBase* parent, const WTreeNodeBase* node) {
    if (refused_) return;
    refused_ = node;
    refusedBelow_ = parent;
  }
  bool isSound() const { return !refused_; }

  static void added(WTreeNodeBase* node) { blockOf(node)->lowest_ = addressOf(headOfNode(node)); }
  static void replaced(WTreeNodeBase* former, WTreeNodeBase* node) {
    const std::uintptr_t own = addressOf(headOfNode(node));
    const std::uintptr_t lowest = blockOf(former)->lowest_;
    blockOf(node)->lowest_ = own < lowest ? own : lowest;
  }
  static void rotated(WTreeNodeBase* top, WTreeNodeBase* former) {
    blockOf(top)->lowest_ = blockOf(former)->lowest_;
  }

  // Lowers lowest_ in the nodes of the path for a block that is now below them.
  template <class Path>
  static void lower(const Path& path, WTreeNodeBase* node) {
    const std::uintptr_t address = addressOf(headOfNode(node));
    for (unsigned i = 0; i < path.depth_; i++) {
      FreeBlock* above = blockOf(path.nodes_[i]);
      if (above->lowest_ > address) above->lowest_ = address;
    }
  }

  static FreeBlock* blockOf(WTreeNodeBase* node) {
    return static_cast<FreeBlock*>(headOfNode(node));
  }

  const WTreeNodeBase* refused_ = nullptr;  // the target of a link of refusedBelow_
  const WTreeNodeBase* refusedBelow_;       // null for the root

 private:
  static bool isLargeSize(unsigned size) {
    return std::rotr(size - SMALLEST_LARGE, 3) < (BLOCK_LIMIT - SMALLEST_LARGE) / ALIGN;
  }

  Chain::Places places_;
};

// The guard of the path to a place at which a block will be inserted.
struct InsertGuard : FreeGuard {
  InsertGuard(const Chain& chain, const MemHead* block)
      : FreeGuard(chain), address_(addressOf(block)) {}

  void passed(WTreeNodeBase* node) const {
    if (blockOf(node)->lowest_ > address_) blockOf(node)->lowest_ = address_;
  }

  const std::uintptr_t address_;
};

using FreePath = WTreePathWith<FreeGuard>;
using InsertPath = WTreePathWith<InsertGuard>;
constexpr unsigned FREE_TREE_DEPTH = FreePath::MAX_DEPTH;

// A walk through nodes of which any may be damaged: each is checked before it is used. The place of
// a node in the order must be between those of the nodes above it, so that none is visited twice.
struct FreeWalk : FreeGuard {
  using FreeGuard::FreeGuard;

  // Calls visit(node) for the nodes of the subtree in order. A damaged node is refused and skipped,
  // with its subtree. After its visit a node may be overwritten.
  template <class Visit>
  void inOrder(WTreeNodeBase* root, Visit visit) {
    inOrder(nullptr, root, nullptr, nullptr, visit);
  }

  // Returns whether the block is a node of the tree. Requires: the tree is undamaged.
  static bool holds(WTreeNodeBase* root, const MemHead* block);

  // Returns the lowest block of the tree with at least `size` bytes. Null if there is none.
  MemHead* lowestFit(WTreeNodeBase* root, unsigned size);

 private:
  bool admitsBetween(const WTreeNodeBase* parent, const WTreeNodeBase* node, const MemHead* lower,
                     const MemHead* upper);

  struct Subtree {
    unsigned weight_ = 1;
    std::uintptr_t lowest_ = UINTPTR_MAX;
  };

  template <class Visit>
  Subtree inOrder(WTreeNodeBase* parent, WTreeNodeBase* node, const MemHead* lower,
                  const MemHead* upper, Visit visit) {
    if (!node || !admitsBetween(parent, node, lower, upper)) return {};
    WTreeNodeBase* right = node->right();
    const FreeBlock* block = blockOf(node);
    const Subtree stored{WTreeSteps::weightOf(node), block->lowest_};
    depth_++;
    const Subtree before = inOrder(node, node->left(), lower, block, visit);
    visit(node);
    const Subtree after = inOrder(node, right, block, upper, visit);
    depth_--;
    const Subtree all{before.weight_ + after.weight_,
                      std::min({addressOf(block), before.lowest_, after.lowest_})};
    if (stored.weight_ != all.weight_ || stored.lowest_ > all.lowest_) refuse(node, node);
    return all;
  }

  struct Search;

  unsigned depth_ = 0;
};

}  // namespace Utils
