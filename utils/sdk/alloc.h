// SPDX-License-Identifier: MIT
// The general-purpose arena allocator.
//
// Carves blocks out of chunks of a parent allocator and never gives a chunk back. Requests of up to
// 504 bytes are small blocks: powers of two from 32 to 512 bytes, cut from pages and kept in one
// last-in, first-out list a class. Anything else is a large block of at least 1024 bytes, found by
// best fit (smallest, then lowest) in a weight-balanced tree of the free ones, split where at least
// 1024 bytes remain, and merged with its free neighbours when freed. All bookkeeping lies in the
// blocks.
//
// A block of S bytes begins with its head word at an address h that is 4 more than a multiple of 8;
// the caller's memory begins at h + 4. The bytes of a large block:
//
//   from h, 32-bit (64-bit)       busy                                   free
//   0                             head word: colour << 26 | (S + 1)      head word: S
//   4                             caller's bytes                         tree node, 12 (24) bytes
//   16 (28)                       caller's bytes                         colour label
//   20 (32)                       caller's bytes                         lowest address, see below
//   S - 4                         tail word: S + 1                       tail word: S + 1
//
// Bit 0 of the head word is the busy bit. Small blocks have no tail; a free one has the link to the
// next of its list at 4, and its label where a large one has it. The lowest address is a lower
// bound for all blocks of the node's subtree (free_tree.h). Example: alloc(1000, 6) gives a block
// of 1024 bytes whose head word is 0x18000401.
//
// The chunks form one chain of blocks in ascending order, from firstHead_ to endHead_, the last
// word of the newest chunk. Where a chunk does not begin right behind that word, a block that is
// busy for ever fills the gap; where it lies lower or too far for one, the chain is cut there:
// everything still allocates and frees, but size, color, valid and the walk see the blocks from
// firstHead_ to endHead_ alone.
//
// Bytes are counted by block size, in 32-bit totals. The caller serialises; see allocator.h.
//
// Damage. Whatever a program writes over this bookkeeping, nothing outside of the arena is read or
// written. A block whose words disagree is reported and left alone: it fails an assertion, which
// stops the process by default, and its memory is lost. Damage that the words do not show is not
// noticed: another colour, or the head word of another small class in a small block. In a chain
// that was cut, a head is not known to lie outside.
#pragma once

#include <cstddef>

#include "utils/sdk/allocator.h"
#include "utils/sdk/block.h"
#include "utils/sdk/wtree.h"

namespace Utils {

struct YUTILS_EXPORT MemHeadBase {
  unsigned sizeandcolor() const { return sizeandcolor_; }

  unsigned sizeandcolor_;
};

// A block as far as it is free; in a busy one only the head word counts. Packed, since the node
// behind the 4-byte head word is aligned to 8 only because h is 4 more than a multiple of 8.
#pragma pack(push, 4)
struct YUTILS_EXPORT MemHead : MemHeadBase, WTreeNodeBase {
  MemHead() {}

  unsigned color_;
};
#pragma pack(pop)

struct YUTILS_EXPORT MemTail {
  unsigned size;
};

static_assert(sizeof(MemHead) == 8 + 3 * sizeof(void*), "head word, node and colour without a gap");

// A copy refers to the same chunks, tree and lists: only one of the two may go on being used.
struct YUTILS_EXPORT MemoryAllocator : Allocator {
  MemoryAllocator();  // chunks come from YIF_MemAlloc
  // Chunks come from parent->alloc(size), aligned to 16 and usable to the last byte; never freed.
  // The parent is borrowed, and null stands for YIF_MemAlloc.
  explicit MemoryAllocator(Allocator* parent);

  // Requests above 67108848 bytes give null. When the parent has no memory, null, nothing changed;
  // a small request fails the assertion "h" first, after which the process goes on unless
  // YSYS_ASSERT says otherwise.
  void* alloc(unsigned size, unsigned color) override;
  void* alloc(unsigned size) override;
  // Does nothing for null. A pointer to no busy block of this arena, or to a large block that was
  // written past its end, is reported, fails an assertion and is left alone.
  void free(void* mem) override;

  // For a pointer that alloc() returned. The three give 0, 0 and false for null, for what lies not
  // between firstHead_ and endHead_, and for a block that is not busy.
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
  virtual ~MemoryAllocator();  // gives no memory back; the process allocator's is never run

  // An allocator made with new lies in the process allocator's memory, on either side of the
  // library's boundary; null when there is none.
  static void* operator new(std::size_t size) noexcept;
  static void* operator new(std::size_t size, void* place) noexcept;
  static void operator delete(void* mem) noexcept;

  // Gives a busy block of colour 0 another colour and 0; RESULT_INVALID_ARGUMENT where colour & 63
  // is 0 or the block is none such. The bytes are added to the new colour's total and stay in that
  // of 0.
  unsigned color(void* mem, unsigned color);

  bool tryHard() const { return tryHard_; }  // kept for the caller, without effect
  void tryHard(bool hard) { tryHard_ = hard; }

  static bool busy(const void* mem);
  static bool busy(std::nullptr_t) {
    return false;
  }  // the busy bit of a block of any arena; false for null

  // The walk over the chain, pages and gaps included: the next block, null after the last. A block
  // whose tail does not fit its head is reported and fails an assertion; if its size cannot be true
  // the walk ends there.
  void* firstBlock() const;
  void* nextBlock(const void* mem) const;
  // Walks the chain, then compares the tree, the lists of small blocks and the totals of free
  // memory with it. The first damaged block of each is reported and fails an assertion. Takes n log
  // n steps for n free blocks.
  void checkArena() const;

  // Prints to standard output, by powers of two of the block size (Arena): the number of blocks of
  // the chain, the bytes in busy and in free ones, the biggest; then the totals in KiB.
  void report();

 protected:
  // These run with the lock held by the caller. Blocks are passed by their heads. The operations
  // above take shorter ways to the same results (Arena in alloc.cpp): these are for classes that
  // derive from it.

  void* _alloc(unsigned size, unsigned color);
  unsigned _free(void* mem);  // gives the block's size

  MemHead* allocCandidate(unsigned amt);      // the best fit, out of the tree and busy; null
  void freeLoser(MemHead* h);                 // a busy block into the tree, labelled color_
  void splitBlock(MemHead* h, unsigned amt);  // cuts a busy block to amt where 1024 remain
  MemHead* coalesce(MemHead* h);              // joins a busy block and its free neighbours
  void removeMe(MemHead* h);                  // a free block out of the tree
  MemHead* allocSmall(unsigned k);            // a busy block of 2^k bytes; null
  void freeSmall(MemHead* h);                 // back to its list, labelled color_
  void init();
  static bool busy(const MemHead* h) { return (h->sizeandcolor_ & 1) != 0; }
  void setBusy(MemHead* h) { h->sizeandcolor_ |= 1u; }
  void resetBusy(MemHead* h) { h->sizeandcolor_ &= ~1u; }

  friend struct Arena;
  friend struct ArenaSteps;

  Allocator* parent_;
  WTreeBase tree_;      // the free large blocks
  MemHead* firstHead_;  // null before the first chunk
  MemHead* endHead_;    // where a block behind the last one would begin
  unsigned internalFree_;
  MemHead* smallFree_[10];  // by log2 of the block size; 0 to 4 stay null
  unsigned allocatedMemory_;
  bool tryHard_;
  bool cut_;  // some chunks lie outside of the chain
  unsigned defaultColor_;
  unsigned allocatedColorMemory_[64];
  unsigned freeColorMemory_[64];
  YtBLock lock_;
};

}  // namespace Utils
