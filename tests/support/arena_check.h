// SPDX-License-Identifier: MIT
// Arenas that show the tests their chain, their lists of free blocks and their protected steps.
#pragma once

#include <cstring>
#include <map>
#include <vector>

#include "gtest/gtest.h"
#include "utils/testing/arena_check.h"

using Utils::Testing::Internal::ChainBlocks;
using Utils::Testing::Internal::peek;

template <class Arena>
struct OpenChain : Arena {
  using Arena::_alloc;
  using Arena::_free;
  using Arena::allocCandidate;
  using Arena::Arena;
  using Arena::busy;
  using Arena::coalesce;
  using Arena::freeLoser;
  using Arena::splitBlock;

  void check() const { EXPECT_EQ(Utils::Testing::brokenInvariant(*this), ""); }

  // The chain as the walk shows it: the head word of each block. Requires: the tails are whole.
  std::map<const char*, unsigned> chain() const {
    ChainBlocks blocks;
    blocks.collect(*this, 0);
    return blocks.all_;
  }
};

struct OpenArena : OpenChain<Utils::MemoryAllocator> {
  using MemoryAllocator::allocSmall;
  using MemoryAllocator::freeSmall;
  using MemoryAllocator::removeMe;
  using OpenChain::OpenChain;

  std::vector<const char*> list(unsigned k) const {
    std::vector<const char*> heads;
    const char* head = reinterpret_cast<const char*>(smallFree_[k]);
    while (head && heads.size() < 1000000) {
      heads.push_back(head);
      head = peek<const char*>(head + 4);
    }
    return heads;
  }
};

struct OpenBank : OpenChain<Utils::MemoryBank> {
  using OpenChain::OpenChain;
};
