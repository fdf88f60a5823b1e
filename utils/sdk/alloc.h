// SPDX-License-Identifier: MIT
// The general-purpose arena allocator.
//
// Cuts blocks from chunks of a parent allocator and never frees a chunk. A request of up to 504
// bytes gets a small block: its size is a power of two from 32 to 512 bytes, and it is cut from a
// page, a busy block of at least 10240 bytes. The free small blocks of each size are in a last-in,
// first-out list. Any larger request gets a large block of at least 1024 bytes: the best fit (the
// smallest that is large enough, of several such the one at the lowest address) in a
// weight-balanced tree of the free ones. It is split if at least 1024 bytes remain, and merged with
// its free neighbours when it is freed. All bookkeeping lies in the blocks.
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
// Bit 0 of the head word is the busy bit. The colour label of a free block is the colour of the
// last block that was freed into it. Small blocks have no tail; a free one has the link to the next
// block of its list at 4, and its label at the same place as a large one. The lowest address is a
// lower bound for the addresses of all blocks in the node's subtree. Example: alloc(1000, 6)
// returns a block of 1024 bytes whose head word is 0x18000401.
//
// The chunks form one chain of blocks in ascending order, from firstHead_ to endHead_, which is the
// last word of the newest chunk. If a chunk does not begin directly after that word, a block that
// stays busy for ever fills the gap. If a chunk lies before the chain, or too far after it for such
// a block, the chain is cut: everything still allocates and frees, but size, color, valid and the
// walk know only the blocks from firstHead_ to endHead_.
//
// The totals are 32-bit sums of whole blocks. Thread safety: as in allocator.h.
//
// Damage. If a program overwrites this bookkeeping, nothing outside of the arena is read or
// written. A block whose words disagree is left alone, and its memory is lost: it is reported on
// the debugger channel (platform.h), and an assertion fails, which stops the process by default.
// Damage after which the words still agree is not noticed: another colour, or the head word of
// another small size in a small block. In a chain that was cut, a head that lies outside of the
// arena is not recognised as such.
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

// The first words of a free block; a busy one has only the head word. Packed, so that the node
// lies directly after the 4-byte head word: h is 4 more than a multiple of 8, which aligns it.
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

// A copy refers to the same chunks, tree and lists. Requires: only one of the two is used from then
// on.
struct YUTILS_EXPORT MemoryAllocator : Allocator {
  MemoryAllocator();  // chunks come from YIF_MemAlloc
  // Chunks come from parent->alloc(size) and are never freed. Requires: a chunk is aligned to 16.
  // Borrows the parent; null stands for YIF_MemAlloc.
  explicit MemoryAllocator(Allocator* parent);

  // Returns null if the request exceeds 67108848 bytes. Returns null, nothing changed, if no free
  // block is large enough and the parent has no memory. A small request for which there is no
  // memory for a page fails the assertion "h", which stops the process only if YSYS_ASSERT is
  // "stop" (YfAssert__ in ysys.h), and then gets a large block if one is free.
  [[nodiscard]] void* alloc(unsigned size, unsigned color) override;
  [[nodiscard]] void* alloc(unsigned size) override;
  // Does nothing for null. If `mem` is not the memory of a busy block of this arena, or the program
  // has written past the end of a large block, reports that, fails an assertion (which stops the
  // process by default) and changes nothing.
  void free(void* mem) override;

  // size(), color() and valid() return 0, 0 and false for null, for an address outside of the
  // chain, and for a block that is not busy. Requires: any other address is one that alloc()
  // returned.
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
  virtual ~MemoryAllocator();  // frees no chunk; never runs for the process allocator

  // Allocates from the process allocator, also for callers outside of the library. Returns null if
  // there is no memory.
  static void* operator new(std::size_t size) noexcept;
  static void* operator new(std::size_t size, void* place) noexcept;
  static void operator delete(void* mem) noexcept;

  // Recolours a busy block whose colour is 0 and returns 0. Returns RESULT_INVALID_ARGUMENT if
  // color & 63 is 0 or there is no such block. The bytes are added to the new colour's total and
  // are not taken from that of colour 0.
  unsigned color(void* mem, unsigned color);

  bool tryHard() const { return tryHard_; }  // a value kept for the caller; has no effect
  void tryHard(bool hard) { tryHard_ = hard; }

  // Returns the busy bit of a block of any arena; false for null.
  static bool busy(const void* mem);
  static bool busy(std::nullptr_t) { return false; }

  // The walk over the chain, which includes pages and gaps: return the memory of the first and of
  // the next block, null after the last. If the tail of the block at `mem` disagrees with its head,
  // that is reported and an assertion fails; if its size is impossible the walk ends there.
  void* firstBlock() const;
  void* nextBlock(const void* mem) const;
  // Checks the chain, then the tree, the lists of small blocks and the totals of free memory, and
  // ends after the first of these that is damaged. Damage is reported, and an assertion fails.
  // Takes time linear in the number of blocks, and n log n for n free ones.
  void checkArena() const;
  // Does the same, but fails no assertion: reports damage and returns false.
  bool isWhole() const;

  // Calls visit(block, context) for each block of the chain in ascending order, and after a page
  // for its small blocks. Reports no damage: returns false if the walk ends at a block whose size
  // is impossible. Requires: `visit` calls no operation that changes the arena.
  bool visitBlocks(void (*visit)(const BlockInfo& block, void* context), void* context) const;

  // Prints a table of the chain to standard output, one row for each power of two of the block
  // size: its binary logarithm (column Arena), the number of blocks, the bytes in busy and in free
  // ones, the size of the largest. Then prints the totals in KiB.
  void report();

 protected:
  // Steps for derived allocators; blocks are passed by their heads. Requires: the caller holds
  // lock_. The operations above do not run the steps marked with *, but shorter ones to the same
  // result (AllocSteps in alloc.cpp): a change of a marked step has no effect on them.

  void* _alloc(unsigned size, unsigned color);
  unsigned _free(void* mem);  // *; returns the block's size

  // *; unlinks the best fit and returns it, busy. Returns null if there is none.
  MemHead* allocCandidate(unsigned amt);
  void freeLoser(MemHead* h);                 // puts a busy block into the tree, labelled color_
  void splitBlock(MemHead* h, unsigned amt);  // cuts a busy block to amt if 1024 bytes remain
  MemHead* coalesce(MemHead* h);              // *; joins a busy block and its free neighbours
  void removeMe(MemHead* h);                  // *; unlinks a free block from the tree
  MemHead* allocSmall(unsigned k);  // returns a busy block of 2^k bytes; null if there is no memory
  void freeSmall(MemHead* h);       // *; puts it into its list, labelled color_
  void init();
  static bool busy(const MemHead* h) { return (h->sizeandcolor_ & 1) != 0; }
  void setBusy(MemHead* h) { h->sizeandcolor_ |= 1u; }
  void resetBusy(MemHead* h) { h->sizeandcolor_ &= ~1u; }

  friend struct AllocSteps;
  friend struct DebuggerLayout;
  template <class Traits>
  friend struct ArenaSteps;
  template <class Steps>
  friend struct WatchedSteps;

  Allocator* parent_;
  WTreeBase tree_;      // the free large blocks
  MemHead* firstHead_;  // null before the first chunk
  MemHead* endHead_;    // where a block after the last one would begin
  unsigned internalFree_;
  MemHead* smallFree_[10];  // by log2 of the block size; 0 to 4 stay null
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
