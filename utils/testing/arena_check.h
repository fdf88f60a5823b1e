// SPDX-License-Identifier: MIT
// Checks of a whole arena, for the tests of programs that use or derive from one.
//
//   EXPECT_EQ(Utils::Testing::brokenInvariant(arena), "");
//
// The invariants of an arena between two operations:
//
//   1. The blocks of the chain follow each other from the first head to the end marker, and each
//      tail agrees with its head.
//   2. Every free block of the chain is in the tree (MemoryBank: in the bin of its size). The tree
//      is in order and its weights are right; the links of the bins agree.
//   3. The blocks in the lists of small blocks are free, and have the size of their list.
//   4. The totals of free memory are the sums of the free blocks.
//   5. A free block of the chain has at least 1024 bytes (MemoryBank: 32).
//   6. In the first 64 MiB of a chain no two neighbours are free. Later in the chain two may be:
//      their sum can be too large for a head word, or can have been when they were freed.
//   7. The tree (the bins) holds no block twice, and only free blocks of the chain.
//   8. The tree is balanced (wtree.h).
//   9. The lists of small blocks hold no block twice, and each lies in a page: a busy block of the
//      chain of at least 10240 bytes.
//
// checkArena() checks 1 to 4, except for the lowest bit of the tails: it reports a damaged block,
// and an assertion fails, which stops the process by default. The functions below call it, then
// check the rest. In a chain that was cut (alloc.h) they check only 1 to 4, and 8.
//
// The functions work under the address sanitizer and valgrind, too: they may read the bookkeeping.
// Header-only, independent of any test framework; allocates from the program's own heap. Takes
// n log n steps for n blocks. Thread safety: the caller serialises, as for every call on the arena.
#pragma once

#include <cstdio>
#include <iterator>
#include <map>
#include <set>
#include <string>

#include "utils/sdk/alloc.h"
#include "utils/sdk/membank.h"
#include "utils/sdk/platform.h"

namespace Utils {
namespace Testing {

// Return an empty text if the arena is whole, else the first broken invariant and the address of
// the head word of the block that breaks it. Example: "6. free neighbours: 0x7f20c0de0404".
inline std::string brokenInvariant(const MemoryAllocator& arena);
inline std::string brokenInvariant(const MemoryBank& bank);

namespace Internal {

inline std::string broken(const char* invariant, const void* head) {
  char address[32];
  std::snprintf(address, sizeof address, ": %p", head);
  return std::string(invariant) + address;
}

// Read bookkeeping of an arena, to which tools that check memory allow no access.

template <class Word>
[[gnu::no_sanitize_address]] inline Word peek(const void* address) {
  using Aliased [[gnu::may_alias]] = Word;
  return *static_cast<const Aliased*>(address);
}

template <class Object, class Class, class Field>
[[gnu::no_sanitize_address]] inline Field peek(const Object* object, Field Class::*field) {
  return object->*field;
}

struct Quiet {
  Quiet() { YfPauseMemoryTool(); }
  ~Quiet() { YfResumeMemoryTool(); }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;
};

// The blocks of a chain by the addresses of their heads.
struct ChainBlocks {
  static constexpr unsigned LIMIT = 1u << 26;  // every block is smaller
  static constexpr unsigned LEAST_PAGE = 10240;

  static bool isBusy(unsigned word) { return (word & 1) != 0; }
  static unsigned sizeOf(unsigned word) { return word & (LIMIT - 2); }

  // Collects the blocks and checks the tails, 5 and 6.
  template <class Arena>
  std::string collect(const Arena& arena, unsigned leastFree) {
    bool isFreeBefore = false;
    const char* first = static_cast<const char*>(arena.firstBlock());
    for (void* mem = arena.firstBlock(); mem; mem = arena.nextBlock(mem)) {
      const char* head = static_cast<const char*>(mem) - 4;
      const unsigned word = peek<unsigned>(head);
      all_[head] = word;
      if (peek<unsigned>(head + sizeOf(word) - 4) != sizeOf(word) + 1)
        return broken("1. tail", head);
      if (!isBusy(word)) {
        free_.insert(head);
        if (sizeOf(word) < leastFree) return broken("5. too small to be free", head);
        if (isFreeBefore && static_cast<char*>(mem) + sizeOf(word) < first + LIMIT)
          return broken("6. free neighbours", head);
      }
      isFreeBefore = !isBusy(word);
    }
    return {};
  }

  // Checks 7 for a block of the tree or of a bin.
  std::string take(const void* head) {
    if (free_.erase(static_cast<const char*>(head)) != 0) return {};
    return broken("7. twice, or no free block of the chain", head);
  }

  // Checks 9 for a free small block.
  std::string takeSmall(const void* block, unsigned size) {
    const char* head = static_cast<const char*>(block);
    const auto after = all_.upper_bound(head);
    if (after != all_.begin() && small_.insert(head).second) {
      const auto& [page, word] = *std::prev(after);
      const bool isPage = isBusy(word) && sizeOf(word) >= LEAST_PAGE;
      if (isPage && head > page && head + size <= page + sizeOf(word) - 4) return {};
    }
    return broken("9. twice, or in no page", head);
  }

  std::map<const char*, unsigned> all_;  // their head words
  std::set<const char*> free_;           // those that take() has not met
  std::set<const char*> small_;          // those that takeSmall() has met
};

// The protected members of the arenas, read by pointers to members.

struct NodeFields : WTreeNodeBase {
  static unsigned weight(const WTreeNodeBase* node) {
    return node ? peek(node, &NodeFields::weight_) : 1;
  }
  static const WTreeNodeBase* left(const WTreeNodeBase* node) {
    return peek(node, &NodeFields::left_);
  }
  static const WTreeNodeBase* right(const WTreeNodeBase* node) {
    return peek(node, &NodeFields::right_);
  }
};

struct AllocatorFields : MemoryAllocator {
  static bool isCut(const MemoryAllocator& a) { return a.*(&AllocatorFields::cut_); }
  static const WTreeNodeBase* root(const MemoryAllocator& a) {
    return (a.*(&AllocatorFields::tree_)).top();
  }

  // Checks 7 and 8 for a subtree. Requires: 2 holds.
  static std::string checkTree(const WTreeNodeBase* node, bool isCut, ChainBlocks& blocks) {
    if (!node) return {};
    const void* head = static_cast<const MemHead*>(node);
    std::string text = isCut ? std::string() : blocks.take(head);
    if (!text.empty()) return text;
    const unsigned a = NodeFields::weight(NodeFields::left(node));
    const unsigned b = NodeFields::weight(NodeFields::right(node));
    // A larger subtree may be a step outside of the balance.
    if (a + b < 239 && (a * 29 > b * 70 || a * 239 < b * 99)) return broken("8. balance", head);
    text = checkTree(NodeFields::left(node), isCut, blocks);
    return text.empty() ? checkTree(NodeFields::right(node), isCut, blocks) : text;
  }

  // Checks 9.
  static std::string checkLists(const MemoryAllocator& a, ChainBlocks& blocks) {
    std::string text;
    unsigned size = 1;
    for (const void* head : a.*(&AllocatorFields::smallFree_)) {
      while (head && text.empty()) {
        text = blocks.takeSmall(head, size);
        head = peek<const void*>(static_cast<const char*>(head) + 4);
      }
      size *= 2;
    }
    return text;
  }
};

struct BankFields : MemoryBank {
  static bool isCut(const MemoryBank& b) { return b.*(&BankFields::cut_); }

  // Checks 7.
  static std::string checkBins(const MemoryBank& b, ChainBlocks& blocks) {
    std::string text;
    for (const MemHead* h : b.*(&BankFields::bins_)) {
      for (; h && text.empty(); h = peek(h, &MemHead::next_)) text = blocks.take(h);
    }
    return text;
  }
};

}  // namespace Internal

inline std::string brokenInvariant(const MemoryAllocator& arena) {
  using Fields = Internal::AllocatorFields;
  arena.checkArena();
  const Internal::Quiet quiet;
  Internal::ChainBlocks blocks;
  const bool isCut = Fields::isCut(arena);
  std::string text = isCut ? std::string() : blocks.collect(arena, 1024);
  if (text.empty()) text = Fields::checkTree(Fields::root(arena), isCut, blocks);
  return text.empty() && !isCut ? Fields::checkLists(arena, blocks) : text;
}

inline std::string brokenInvariant(const MemoryBank& bank) {
  bank.checkArena();
  if (Internal::BankFields::isCut(bank)) return {};
  const Internal::Quiet quiet;
  Internal::ChainBlocks blocks;
  std::string text = blocks.collect(bank, 32);
  return text.empty() ? Internal::BankFields::checkBins(bank, blocks) : text;
}

}  // namespace Testing
}  // namespace Utils
