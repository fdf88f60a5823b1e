// SPDX-License-Identifier: MIT
// One checker for everything that holds in an arena allocator at rest.
//
// OpenChain has what all arenas share, OpenArena adds what a MemoryAllocator keeps of its free
// blocks.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <set>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "utils/sdk/alloc.h"
#include "utils/sdk/membank.h"

// An arena whose chain can be looked at.
template <class Arena>
struct OpenChain : Arena {
  using Arena::Arena;

  struct Block {
    const char* head_;
    unsigned word_;

    bool busy() const { return (word_ & 1) != 0; }
    unsigned size() const { return word_ & 0x3fffffe; }
  };

  static unsigned wordAt(const char* address) {
    unsigned word;
    std::memcpy(&word, address, sizeof word);
    return word;
  }

  // The chain as the walk shows it.
  std::vector<Block> chain() const {
    std::vector<Block> blocks;
    for (void* mem = this->firstBlock(); mem; mem = this->nextBlock(mem)) {
      const char* head = static_cast<const char*>(mem) - 4;
      blocks.push_back({head, wordAt(head)});
    }
    return blocks;
  }

 protected:
  // What an arena has found free, to be compared with its totals.
  struct Totals {
    void add(const char* head, unsigned label) {
      ASSERT_LT(label, 64u);
      all_ += wordAt(head);
      labels_[label] += wordAt(head);
    }

    unsigned all_ = 0;
    unsigned labels_[64] = {};
  };

  void checkTotals(const Totals& totals) const {
    EXPECT_EQ(this->internalFree_, totals.all_);
    for (unsigned c = 0; c < 64; c++)
      EXPECT_EQ(this->freeColorMemory_[c], totals.labels_[c]) << "label " << c;
  }

  // 1. blocks follow each other to the end marker, their tails fit   2. free blocks have at least
  // `leastFree` bytes, and no two of them are neighbours unless their sum is too large. Collects
  // the free ones.
  void checkChain(const std::vector<Block>& blocks, unsigned leastFree,
                  std::set<const char*>& freeBlocks) const {
    std::uint64_t expected = reinterpret_cast<std::uintptr_t>(this->firstHead_);
    bool freeBefore = false;
    for (const Block& b : blocks) {
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(b.head_), expected);
      ASSERT_EQ(b.size() % 8, 0u);
      EXPECT_EQ(wordAt(b.head_ + b.size() - 4), b.size() + 1);
      expected += b.size();
      if (b.busy()) {
        freeBefore = false;
        continue;
      }
      EXPECT_GE(b.size(), leastFree);
      if (freeBefore) {
        EXPECT_GE(expected - reinterpret_cast<std::uintptr_t>(blocks[0].head_), 1u << 26)
            << "neighbours stay apart only in a chain that large";
      }
      freeBefore = true;
      freeBlocks.insert(b.head_);
    }
    EXPECT_EQ(expected, reinterpret_cast<std::uintptr_t>(this->endHead_));
  }
};

// A MemoryAllocator whose inside can be looked at.
struct OpenArena : OpenChain<Utils::MemoryAllocator> {
  using MemHead = Utils::MemHead;
  using MemoryAllocator::_alloc;
  using MemoryAllocator::_free;
  using MemoryAllocator::allocCandidate;
  using MemoryAllocator::allocSmall;
  using MemoryAllocator::coalesce;
  using MemoryAllocator::freeLoser;
  using MemoryAllocator::freeSmall;
  using MemoryAllocator::removeMe;
  using MemoryAllocator::setBusy;
  using MemoryAllocator::splitBlock;
  using OpenChain::OpenChain;

  // 1. and 2. the chain   3. the tree holds exactly the free blocks, in order, weighed and balanced
  // 4. the lists hold free blocks of their class inside busy blocks   5. the totals of free memory
  // are the sums. A chain that was cut is checked from 3 on.
  void check(bool whole = true) {
    const auto blocks = chain();
    std::set<const char*> freeInChain;
    if (whole) checkChain(blocks, 1024, freeInChain);
    Totals totals;
    std::pair<unsigned, std::uintptr_t> last{0, 0};
    std::size_t count = 0;
    checkTree(tree_.top(), [&](const char* head, unsigned label) {
      const std::pair<unsigned, std::uintptr_t> key{wordAt(head),
                                                    reinterpret_cast<std::uintptr_t>(head)};
      EXPECT_LT(last, key);
      last = key;
      EXPECT_TRUE(!whole || freeInChain.count(head) == 1);
      totals.add(head, label);
      count++;
    });
    EXPECT_TRUE(!whole || count == freeInChain.size());
    checkLists(blocks, whole, totals);
    checkTotals(totals);
  }

  std::vector<const char*> list(unsigned k) const {
    std::vector<const char*> heads;
    const char* head = reinterpret_cast<const char*>(smallFree_[k]);
    while (head && heads.size() < 1000000) {
      heads.push_back(head);
      std::memcpy(&head, head + 4, sizeof head);
    }
    return heads;
  }

 private:
  template <class Visit>
  static unsigned checkTree(const Utils::WTreeNodeBase* node, Visit visit) {
    if (!node) return 1;
    const unsigned a = checkTree(node->left(), visit);
    unsigned label;
    std::memcpy(&label, reinterpret_cast<const char*>(node + 1), sizeof label);
    visit(reinterpret_cast<const char*>(node) - 4, label);
    const unsigned b = checkTree(node->right(), visit);
    unsigned weight;
    std::memcpy(&weight, node, sizeof weight);
    EXPECT_EQ(weight, a + b);
    if (a + b < 239) {
      EXPECT_TRUE(a * 29 <= b * 70 && a * 239 >= b * 99) << a << " " << b;
    }
    return a + b;
  }

  void checkLists(const std::vector<Block>& blocks, bool whole, Totals& totals) {
    for (unsigned k = 0; k < 10; k++) {
      for (const char* head : list(k)) {
        ASSERT_GE(k, 5u);
        ASSERT_EQ(wordAt(head), 1u << k);
        totals.add(head, reinterpret_cast<const MemHead*>(head)->color_);
        if (whole) checkInPage(blocks, head, 1u << k);
      }
    }
  }

  static void checkInPage(const std::vector<Block>& blocks, const char* head, unsigned size) {
    const auto behind = [](const char* p, const Block& b) { return p < b.head_; };
    const auto next = std::upper_bound(blocks.begin(), blocks.end(), head, behind);
    ASSERT_NE(next, blocks.begin());
    const Block& page = *(next - 1);
    EXPECT_TRUE(page.busy());
    EXPECT_GE(page.size(), 10240u);
    EXPECT_LE(head + size, page.head_ + page.size() - 4);
  }
};

// A MemoryBank whose inside can be looked at.
struct OpenBank : OpenChain<Utils::MemoryBank> {
  using MemoryBank::_alloc;
  using MemoryBank::_free;
  using MemoryBank::allocCandidate;
  using MemoryBank::coalesce;
  using MemoryBank::freeLoser;
  using MemoryBank::MemHead;
  using MemoryBank::splitBlock;
  using OpenChain::OpenChain;

  // The memory of the blocks of a bin, in order.
  std::vector<void*> bin(unsigned k) const {
    std::vector<void*> blocks;
    for (MemHead* h = bins_[k]; h && blocks.size() < 1000000; h = h->next_) {
      EXPECT_EQ(h->prev_, blocks.empty() ? nullptr : headOf(blocks.back()));
      blocks.push_back(reinterpret_cast<char*>(h) + 4);
    }
    return blocks;
  }

  static MemHead* headOf(void* mem) {
    return reinterpret_cast<MemHead*>(static_cast<char*>(mem) - 4);
  }

  // The chain is whole; the bins hold exactly its free blocks, each the sizes of its power of two;
  // the totals of free memory are the sums. A chain that was cut is checked from the bins on.
  void check(bool whole = true) const {
    std::set<const char*> freeInChain;
    if (whole) checkChain(chain(), 32, freeInChain);
    Totals totals;
    std::size_t count = 0;
    for (unsigned k = 0; k < 27; k++) {
      for (void* mem : bin(k)) {
        const MemHead* h = headOf(mem);
        const char* head = reinterpret_cast<const char*>(h);
        ASSERT_EQ(std::bit_width(h->sizeandcolor_), static_cast<int>(k) + 1);
        ASSERT_EQ(h->sizeandcolor_ % 8, 0u);
        EXPECT_TRUE(!whole || freeInChain.count(head) == 1);
        totals.add(head, h->color_);
        count++;
      }
    }
    EXPECT_TRUE(!whole || count == freeInChain.size());
    checkTotals(totals);
  }
};
