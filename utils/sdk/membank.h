// SPDX-License-Identifier: MIT
// The second arena allocator.
//
// Carves blocks out of chunks of a parent allocator like MemoryAllocator (alloc.h) and has its head
// words, tails, chain, colours and totals. What differs is where a free block is found: there are
// no pages of small blocks and no tree, but a list for each power of two, the bins. A request takes
// the first block of the lowest bin whose blocks are all large enough, so that it costs a fixed
// number of steps and fits more loosely. The bin of the request's own size is searched last, before
// a new chunk is asked for, and only while tryHard() is on. Nothing in the library makes one.
//
// Every block has a tail and at least 32 bytes; a remainder of 32 bytes is split off. The bytes of
// a free block of S bytes, at h:
//
//   from h, 32-bit (64-bit)   0 head word: S   4 next of its bin   8 (12) previous   12 (20) label
//                             S - 4 tail word: S + 1
//
// A free block of 48 bytes lies in bin 5, with all of 32 to 63. Example: the first alloc(0) gets a
// chunk of 131072 bytes, takes 32 of it, and the remaining 131032 go to bin 16.
//
// The caller serialises; see allocator.h.
#pragma once

#include <cstddef>

#include "utils/sdk/allocator.h"
#include "utils/sdk/block.h"

namespace Utils {

// A copy refers to the same chunks and bins: only one of the two may go on being used.
struct YUTILS_EXPORT MemoryBank : Allocator {
  MemoryBank();  // chunks come from YIF_MemAlloc
  // Chunks come from parent->alloc(size), aligned to 16 and usable to the last byte; never freed.
  // The parent is borrowed, and null stands for YIF_MemAlloc.
  explicit MemoryBank(Allocator* parent);

  // What is said of these in alloc.h holds here as well, but every block that is freed is tested
  // for a write past its end, and `valid` looks at the tail of every block.

  void* alloc(unsigned size, unsigned color) override;
  void* alloc(unsigned size) override;
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
  virtual ~MemoryBank();  // gives no memory back

  // A bank made with new lies in the process allocator's memory; null when there is none.
  static void* operator new(std::size_t size) noexcept;
  static void* operator new(std::size_t size, void* place) noexcept;
  static void operator delete(void* mem) noexcept;

  unsigned color(void* mem, unsigned color);

  // Whether an allocation searches the bin of its own size before it asks for a new chunk; on at
  // first. The search looks at every block of that bin, the one step that is not of fixed cost.
  bool tryHard() const { return tryHard_; }
  void tryHard(bool hard) { tryHard_ = hard; }

  static bool busy(const void* mem);
  static bool busy(std::nullptr_t) { return false; }

  void* firstBlock() const;
  void* nextBlock(const void* mem) const;
  void checkArena() const;  // walks the chain and the bins, then compares the totals
  void report();            // without the line of totals

 protected:
  // A block as far as it is free; in a busy one only the head word counts. Packed like the other
  // arena's.
#pragma pack(push, 4)
  struct MemHead {
    unsigned sizeandcolor_;
    MemHead* next_;  // of its bin
    MemHead* prev_;  // null for the first
    unsigned color_;
  };
#pragma pack(pop)
  static_assert(sizeof(MemHead) == 8 + 2 * sizeof(void*), "no gaps; fits the smallest block");

  // What runs with the lock held by the caller. Blocks are passed by their heads.

  void* _alloc(unsigned size, unsigned color);
  unsigned _free(void* mem);  // gives the block's size

  MemHead* allocCandidate(int bin);           // the first of that bin or of one above, busy; null
  void freeLoser(MemHead* h, int bin);        // a busy block to the front of its bin
  void splitBlock(MemHead* h, unsigned amt);  // cuts a busy block to amt where 32 remain
  MemHead* coalesce(MemHead* h);              // joins a busy block and its free neighbours
  void init();
  static bool busy(const MemHead* h) { return (h->sizeandcolor_ & 1) != 0; }
  void setBusy(MemHead* h) { h->sizeandcolor_ |= 1u; }
  void resetBusy(MemHead* h) { h->sizeandcolor_ &= ~1u; }

  friend struct Bank;
  friend struct ArenaSteps;

  Allocator* parent_;
  MemHead* bins_[27];   // by log2 of the block size, the last freed first
  MemHead* firstHead_;  // null before the first chunk
  MemHead* endHead_;    // where a block behind the last one would begin
  unsigned internalFree_;
  unsigned allocatedMemory_;
  bool tryHard_;
  bool cut_;  // some chunks lie outside of the chain
  unsigned defaultColor_;
  unsigned allocatedColorMemory_[64];
  unsigned freeColorMemory_[64];
  YtBLock lock_;
};

}  // namespace Utils
