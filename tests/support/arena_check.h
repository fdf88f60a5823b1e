// arena_check.h: one checker for everything that holds in a MemoryAllocator at rest.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "utils/sdk/alloc.h"

// A MemoryAllocator whose inside can be looked at.
struct OpenArena : Utils::MemoryAllocator {
  using MemHead = Utils::MemHead;
  using MemoryAllocator::_alloc;
  using MemoryAllocator::_free;
  using MemoryAllocator::allocCandidate;
  using MemoryAllocator::allocSmall;
  using MemoryAllocator::coalesce;
  using MemoryAllocator::freeLoser;
  using MemoryAllocator::freeSmall;
  using MemoryAllocator::MemoryAllocator;
  using MemoryAllocator::removeMe;
  using MemoryAllocator::setBusy;
  using MemoryAllocator::splitBlock;

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
    for (void* mem = firstBlock(); mem; mem = nextBlock(mem)) {
      const char* head = static_cast<const char*>(mem) - 4;
      blocks.push_back({head, wordAt(head)});
    }
    return blocks;
  }

  // 1. blocks follow each other to the end marker, their tails fit   2. free blocks are large, and
  // no two of them are neighbours unless their sum is too large   3. the tree holds exactly the
  // free blocks, in order, weighed and balanced   4. the lists hold free blocks of their class
  // inside busy blocks
  // 5. the totals of free memory are the sums. A chain that was cut is checked from 3 on.
  void check(bool whole = true) {
    const auto blocks = chain();
    std::set<const char*> freeInChain;
    std::uint64_t expected = reinterpret_cast<std::uintptr_t>(firstHead_);
    bool freeBefore = false;
    for (std::size_t i = 0; whole && i < blocks.size(); i++) {
      const Block& b = blocks[i];
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(b.head_), expected);
      ASSERT_EQ(b.size() % 8, 0u);
      EXPECT_EQ(wordAt(b.head_ + b.size() - 4), b.size() + 1);
      expected += b.size();
      if (b.busy()) {
        freeBefore = false;
        continue;
      }
      EXPECT_GE(b.size(), 1024u);
      if (freeBefore) {
        EXPECT_GE(expected - reinterpret_cast<std::uintptr_t>(blocks[0].head_), 1u << 26)
            << "neighbours stay apart only in a chain that large";
      }
      freeBefore = true;
      freeInChain.insert(b.head_);
    }
    if (whole) {
      EXPECT_EQ(expected, reinterpret_cast<std::uintptr_t>(endHead_));
    }
    unsigned total = 0;
    unsigned labels[64] = {};
    std::pair<unsigned, std::uintptr_t> last{0, 0};
    std::size_t count = 0;
    checkTree(tree_.top(), [&](const char* head, unsigned label) {
      const std::pair<unsigned, std::uintptr_t> key{wordAt(head),
                                                    reinterpret_cast<std::uintptr_t>(head)};
      EXPECT_LT(last, key);
      last = key;
      EXPECT_TRUE(!whole || freeInChain.count(head) == 1);
      ASSERT_LT(label, 64u);
      total += key.first;
      labels[label] += key.first;
      count++;
    });
    EXPECT_TRUE(!whole || count == freeInChain.size());
    checkLists(blocks, whole, total, labels);
    EXPECT_EQ(internalFree_, total);
    for (unsigned c = 0; c < 64; c++) EXPECT_EQ(freeColorMemory_[c], labels[c]) << "label " << c;
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

  void checkLists(const std::vector<Block>& blocks, bool whole, unsigned& total, unsigned* labels) {
    for (unsigned k = 0; k < 10; k++) {
      for (const char* head : list(k)) {
        ASSERT_GE(k, 5u);
        ASSERT_EQ(wordAt(head), 1u << k);
        const unsigned label = reinterpret_cast<const MemHead*>(head)->color_;
        ASSERT_LT(label, 64u);
        total += 1u << k;
        labels[label] += 1u << k;
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
