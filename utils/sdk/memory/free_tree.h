// SPDX-License-Identifier: MIT
// The tree of an arena's free blocks: its order, its guard, and first fit by address.
//
// For the library's own sources, not installed. MemoryAllocator keeps its free large blocks in a
// weight-balanced tree by size, then by address; wtree_steps.h has the algorithms. The nodes lie in
// memory that the program has given back and may still write to, so that each node is looked at
// before it is used: it must lie in the chain, and its size must be one of a free large block. The
// first one that does not is kept for the report.
//
// Beside its node a free block keeps `lowest_`: no block of its subtree begins below that address.
// A block that comes lowers it in the nodes on its way; one that goes leaves it as it is, since the
// true value would take a look at the other child of every node on the way. lowestFit() raises what
// it finds to be too low, so that what one call has gone through costs the next one nothing: a call
// takes time logarithmic in the number of blocks, in the mean over all changes of the tree.
//
//   from h, 32-bit (64-bit)   0 head word   4 node   16 (28) label   20 (32) lowest_   S - 4 tail
//
// The caller serialises.
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

// Orders free blocks by size, then by address. Sizes seldom tie, so that the usual case has no
// branch that is hard to foresee.
inline int compareBlocks(const MemHead* block, unsigned size, std::uintptr_t address) {
  if (block->sizeandcolor_ != size) [[likely]]
    return block->sizeandcolor_ < size ? 1 : -1;
  const std::uintptr_t blockAddress = addressOf(block);
  return blockAddress == address ? 0 : blockAddress < address ? 1 : -1;
}

// Where a free block of that size and address stands in the tree.
struct PlaceOfBlock {
  explicit PlaceOfBlock(const MemHead* h) : size_(h->sizeandcolor_), address_(addressOf(h)) {}

  int operator()(const WTreeNodeBase* node) const {
    return compareBlocks(headOfNode(node), size_, address_);
  }

  unsigned size_;
  std::uintptr_t address_;
};

// Below all blocks of that size: the first one behind it is the best fit.
struct PlaceOfFit {
  int operator()(const WTreeNodeBase* node) const {
    return headOfNode(node)->sizeandcolor_ < amt_ ? 1 : -1;
  }

  unsigned amt_;
};

// The guard of a path (wtree_steps.h).
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

  // The nodes above the end of the path learn of a block that came to stand below them.
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

  const WTreeNodeBase* refused_ = nullptr;  // what a link of refusedBelow_ leads to
  const WTreeNodeBase* refusedBelow_;       // null for the root

 private:
  static bool isLargeSize(unsigned size) {
    return std::rotr(size - SMALLEST_LARGE, 3) < (BLOCK_LIMIT - SMALLEST_LARGE) / ALIGN;
  }

  Chain::Places places_;
};

// That of the way to the place of a block that is not there yet.
struct AddingGuard : FreeGuard {
  AddingGuard(const Chain& chain, const MemHead* block)
      : FreeGuard(chain), address_(addressOf(block)) {}

  void passed(WTreeNodeBase* node) const {
    if (blockOf(node)->lowest_ > address_) blockOf(node)->lowest_ = address_;
  }

  const std::uintptr_t address_;
};

using FreePath = WTreePathWith<FreeGuard>;
using AddingPath = WTreePathWith<AddingGuard>;
constexpr unsigned FREE_TREE_DEPTH = FreePath::MAX_DEPTH;

// A way through nodes of which any may be damaged: each is looked at before it is used. It must
// stand between the nodes on both sides of it, so that no node comes twice.
struct FreeWalk : FreeGuard {
  using FreeGuard::FreeGuard;

  // Calls visit(node) for the nodes of the subtree in order. A node that is not sound is refused
  // and passed over with all below it. After its visit a node may be overwritten.
  template <class Visit>
  void inOrder(WTreeNodeBase* root, Visit visit) {
    inOrder(nullptr, root, nullptr, nullptr, visit);
  }

  // Whether the block is a node of a tree that is sound.
  static bool holds(WTreeNodeBase* root, const MemHead* block);

  // The lowest block of the tree with at least `size` bytes; null if there is none.
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
    const Subtree told{WTreeSteps::weightOf(node), block->lowest_};
    depth_++;
    const Subtree before = inOrder(node, node->left(), lower, block, visit);
    visit(node);
    const Subtree behind = inOrder(node, right, block, upper, visit);
    depth_--;
    const Subtree all{before.weight_ + behind.weight_,
                      std::min({addressOf(block), before.lowest_, behind.lowest_})};
    if (told.weight_ != all.weight_ || told.lowest_ > all.lowest_) refuse(node, node);
    return all;
  }

  struct Search;

  unsigned depth_ = 0;
};

}  // namespace Utils
