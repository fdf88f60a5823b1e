// SPDX-License-Identifier: MIT
// Arenas that show the tests their chain, their lists of free blocks and their protected steps.
#pragma once

#include <cstring>
#include <vector>

#include "gtest/gtest.h"
#include "utils/testing/arena_check.h"

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

  void check() const { EXPECT_EQ(Utils::Testing::brokenInvariant(*this), ""); }

  // The chain as the walk shows it.
  std::vector<Block> chain() const {
    std::vector<Block> blocks;
    for (void* mem = this->firstBlock(); mem; mem = this->nextBlock(mem)) {
      const char* head = static_cast<const char*>(mem) - 4;
      blocks.push_back({head, wordAt(head)});
    }
    return blocks;
  }
};

struct OpenArena : OpenChain<Utils::MemoryAllocator> {
  using MemHead = Utils::MemHead;
  using MemoryAllocator::_alloc;
  using MemoryAllocator::_free;
  using MemoryAllocator::allocCandidate;
  using MemoryAllocator::allocSmall;
  using MemoryAllocator::busy;
  using MemoryAllocator::coalesce;
  using MemoryAllocator::freeLoser;
  using MemoryAllocator::freeSmall;
  using MemoryAllocator::removeMe;
  using MemoryAllocator::setBusy;
  using MemoryAllocator::splitBlock;
  using OpenChain::OpenChain;

  std::vector<const char*> list(unsigned k) const {
    std::vector<const char*> heads;
    const char* head = reinterpret_cast<const char*>(smallFree_[k]);
    while (head && heads.size() < 1000000) {
      heads.push_back(head);
      std::memcpy(&head, head + 4, sizeof head);
    }
    return heads;
  }
};

struct OpenBank : OpenChain<Utils::MemoryBank> {
  using MemoryBank::_alloc;
  using MemoryBank::_free;
  using MemoryBank::allocCandidate;
  using MemoryBank::busy;
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
};
