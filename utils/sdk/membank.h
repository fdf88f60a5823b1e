// SPDX-License-Identifier: MIT
// The arena allocator with bins.
//
// Cuts blocks from chunks of a parent allocator like MemoryAllocator (alloc.h) and has the same
// head words, tails, chain, colours and totals. It differs in how free blocks are found: there are
// no pages of small blocks and no tree, but a list for each power of two: the bins. A request takes
// the first block of the lowest bin that has blocks and lies above the bin of the request's own
// size: every block there is large enough, so this costs a constant number of steps, and fits less
// tightly. The bin of the own size is searched last, before a new chunk is requested, and only
// while tryHard() is true. No part of the library uses a MemoryBank.
//
// Every block has a tail and at least 32 bytes; a remainder of 32 bytes or more is split off. The
// bytes of a free block of S bytes, at h:
//
//   from h, 32-bit (64-bit)   0 head word: S   4 next of its bin   8 (12) previous   12 (20) label
//                             S - 4 tail word: S + 1
//
// A free block of 48 bytes is in bin 5, which has the blocks of 32 to 63 bytes. Example: the first
// alloc(0) gets a chunk of 131072 bytes, of which 8 are the words before the first block and after
// the last; it takes 32 of the others, and the remaining 131032 go to bin 16.
//
// Thread safety: as in allocator.h.
#pragma once

#include <cstddef>

#include "utils/sdk/allocator.h"
#include "utils/sdk/block.h"

namespace Utils {

// A copy refers to the same chunks and bins. Requires: only one of the two is used from then on.
struct YUTILS_EXPORT MemoryBank : Allocator {
  MemoryBank();  // chunks come from YIF_MemAlloc
  // Chunks come from parent->alloc(size) and are never freed. Requires: a chunk is aligned to 16.
  // Borrows the parent; null stands for YIF_MemAlloc.
  explicit MemoryBank(Allocator* parent);

  // Contracts as in alloc.h, with three differences: free() checks every block for a write past its
  // end, valid() requires of every block a tail that agrees with its head, and alloc() fails no
  // assertion if there is no memory.

  [[nodiscard]] void* alloc(unsigned size, unsigned color) override;
  [[nodiscard]] void* alloc(unsigned size) override;
  void free(void* mem) override;

  unsigned size(const void* mem) const override;
  unsigned allocatedMemory() const override;
  unsigned internalFree() const override;
  unsigned color(const void* mem) const override;
  bool valid(const void* mem) const override;
  unsigned setDefaultColor(unsigned color, unsigned* oldColor) override;
  unsigned defaultColor() const override;
  unsigned allocatedColorMemory(unsigned color) const override;
  unsigned freeColorMemory(unsigned color) const override;
  void adjustColorMemory(unsigned color, int delta) override;
  virtual ~MemoryBank();  // frees no chunk

  // Allocates from the process allocator. Returns null if there is no memory.
  static void* operator new(std::size_t size) noexcept;
  static void* operator new(std::size_t size, void* place) noexcept;
  static void operator delete(void* mem) noexcept;

  unsigned color(void* mem, unsigned color);

  // While true, as it is initially, an allocation searches the bin of its own size before it
  // requests a new chunk. The search visits the blocks of that bin: the only step whose cost is not
  // constant.
  bool tryHard() const { return tryHard_; }
  void tryHard(bool hard) { tryHard_ = hard; }

  static bool busy(const void* mem);
  static bool busy(std::nullptr_t) { return false; }

  void* firstBlock() const;
  void* nextBlock(const void* mem) const;
  void checkArena() const;  // walks the chain and the bins, then compares the totals; linear
  bool isWhole() const;     // the same without an assertion; returns false if there is damage
  bool visitBlocks(void (*visit)(const BlockInfo& block, void* context), void* context) const;
  void report();  // without the totals in KiB

 protected:
  // The first words of a free block; a busy one has only the head word. Packed as in alloc.h.
#pragma pack(push, 4)
  struct MemHead {
    unsigned sizeandcolor_;
    MemHead* next_;  // of its bin
    MemHead* prev_;  // null for the first
    unsigned color_;
  };
#pragma pack(pop)
  static_assert(sizeof(MemHead) == 8 + 2 * sizeof(void*), "no gaps; fits the smallest block");

  // Steps for derived allocators; blocks are passed by their heads. Requires: the caller holds
  // lock_. The operations above do not run the steps marked with *, but shorter ones to the same
  // result (BankSteps in membank.cpp): a change of a marked step has no effect on them.

  void* _alloc(unsigned size, unsigned color);
  unsigned _free(void* mem);  // returns the block's size

  // *; unlinks the first block of that bin, or of the next one that has blocks, and returns it,
  // busy. Returns null if there is none.
  MemHead* allocCandidate(int bin);
  void freeLoser(MemHead* h, int bin);        // puts a busy block to the front of its bin
  void splitBlock(MemHead* h, unsigned amt);  // cuts a busy block to amt if 32 bytes remain
  MemHead* coalesce(MemHead* h);              // *; joins a busy block and its free neighbours
  void init();
  static bool busy(const MemHead* h) { return (h->sizeandcolor_ & 1) != 0; }
  void setBusy(MemHead* h) { h->sizeandcolor_ |= 1u; }
  void resetBusy(MemHead* h) { h->sizeandcolor_ &= ~1u; }

  friend struct BankSteps;
  friend struct DebuggerLayout;
  template <class Traits>
  friend struct ArenaSteps;
  template <class Steps>
  friend struct WatchedSteps;

  Allocator* parent_;
  MemHead* bins_[27];   // by log2 of the block size, the last freed first
  MemHead* firstHead_;  // null before the first chunk
  MemHead* endHead_;    // where a block after the last one would begin
  unsigned internalFree_;
  unsigned allocatedMemory_;
  bool tryHard_;
  bool cut_;             // some chunks lie outside of the chain
  unsigned short slow_;  // 0 unless each request takes a slower path (memory/sight.h)
  unsigned defaultColor_;
  unsigned allocatedColorMemory_[64];
  unsigned freeColorMemory_[64];
  YtBLock lock_;
};

}  // namespace Utils
