// SPDX-License-Identifier: MIT
// The chain of an arena's blocks: head words, tail words, and the walk from block to block.
//
// For the library's own sources, not installed. alloc.h shows the layout of a block. Knows neither
// the fields of an allocator (arena_steps.h) nor how it keeps its free blocks. A block is passed by
// the address `head` of its head word, or by its memory `mem`, which callers of an arena have.
//
// The word before the first block of a chunk reads as the tail of a busy block: it is the tail of
// the gap block that joins the chunk to the chain, else EDGE, a busy block of 4 bytes that is its
// own head and tail. The word after the last block is the end marker SEAM, a busy head word of size
// 0. A merge therefore reads its neighbours without a test for the ends of the chunk.
//
// Never allocates. Thread safety: the caller serialises.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace Utils {

constexpr unsigned ALIGN = 8;         // of every pointer that a caller gets
constexpr unsigned OVERHEAD = 8;      // bytes of a head word and a tail word
constexpr unsigned CHUNK_ALIGN = 16;  // of every chunk from a parent
constexpr unsigned SMALLEST_BLOCK = 32;
constexpr unsigned SMALLEST_CHUNK = 0x20000;
constexpr unsigned COLOR_SHIFT = 26;
constexpr unsigned COLORS = 1u << (32 - COLOR_SHIFT);
constexpr unsigned COLOR_MASK = COLORS - 1;
constexpr unsigned BLOCK_LIMIT = 1u << COLOR_SHIFT;  // every block is smaller
constexpr unsigned SIZE_MASK = BLOCK_LIMIT - 1;
constexpr unsigned LARGEST_REQUEST = BLOCK_LIMIT - ALIGN - OVERHEAD;
constexpr int BINS = COLOR_SHIFT + 1;  // of a table by log2 of the block size

static_assert(LARGEST_REQUEST == 67108848, "as alloc.h documents");

constexpr unsigned SEAM = 1;
constexpr unsigned EDGE = 5;

inline unsigned& wordAt(void* address) { return *static_cast<unsigned*>(address); }
inline unsigned wordAt(const void* address) { return *static_cast<const unsigned*>(address); }

inline void* offsetBy(void* address, std::size_t bytes) {
  return static_cast<char*>(address) + bytes;
}
inline const void* offsetBy(const void* address, std::size_t bytes) {
  return static_cast<const char*>(address) + bytes;
}

inline void* offsetBack(void* address, std::size_t bytes) {
  return static_cast<char*>(address) - bytes;
}

inline std::uintptr_t addressOf(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

inline const void* headOfMemory(const void* mem) { return static_cast<const char*>(mem) - 4; }
inline void* headOfMemory(void* mem) { return static_cast<char*>(mem) - 4; }

inline bool isBusy(unsigned word) { return (word & 1) != 0; }
inline unsigned sizeOf(unsigned word) { return word & SIZE_MASK & ~1u; }
inline unsigned colorOf(unsigned word) { return word >> COLOR_SHIFT; }

// Returns the block size for a request of up to LARGEST_REQUEST bytes: with head and tail, rounded
// up.
inline unsigned blockSize(unsigned request) {
  const unsigned amt = (request + OVERHEAD + ALIGN - 1) & ~(ALIGN - 1);
  return amt < SMALLEST_BLOCK ? SMALLEST_BLOCK : amt;
}

inline void writeTail(void* head, unsigned size) { wordAt(offsetBy(head, size - 4)) = size + 1; }

// The chain as an allocator's fields describe it. Operations that take a module's name `source`
// report a damaged block and fail an assertion of that module at the caller's line; with null they
// fail none. Whatever the
// words of the blocks contain, nothing outside of the chain is read, unless the chain was cut: then
// blocks may lie anywhere.
struct Chain {
  // The addresses at which a block of at least `least` bytes can begin: one comparison each.
  // Requires for has(): the chain is not empty.
  struct Places {
    Places(const Chain& chain, unsigned least);
    bool has(std::uintptr_t head) const { return std::rotr(head - first_, 3) <= last_; }

    std::uintptr_t first_;
    std::uintptr_t last_;
  };

  // Return 0, 0 and false unless `mem` is the memory of a busy block that begins in the chain.
  // valid() also requires a tail that agrees with the head.
  unsigned size(const void* mem) const;
  unsigned color(const void* mem) const;
  bool valid(const void* mem) const;

  // Colours a busy block whose colour is 0, adds its bytes to the colour's total in `totals` and
  // returns 0. Returns RESULT_INVALID_ARGUMENT if color & 63 is 0 or there is no such block.
  unsigned setColor(void* mem, unsigned color, unsigned* totals) const;

  // The walk, by the memory of the blocks. Returns null at the end, at a cut of the chain, for an
  // address outside of the chain, and after a block whose head word is impossible.
  void* firstBlock() const { return first_ ? offsetBy(first_, 4) : nullptr; }
  void* nextBlock(const void* mem, const char* source, unsigned line = __builtin_LINE()) const;
  // Walks the chain. Returns false if a block is damaged.
  bool check(const char* source, unsigned line = __builtin_LINE()) const;

  // Prints the table of MemoryAllocator::report, without its last line.
  void report(const char* source, unsigned line = __builtin_LINE()) const;

  // Returns whether a block at `head` can have that size: a multiple of 8, at least `least`, and
  // not past the end of the chain. The end of a chain that was cut is not known.
  bool fits(const void* head, unsigned size, unsigned least) const {
    return std::rotr(std::uintptr_t{size}, 3) <= (addressOf(end_) - addressOf(head)) / ALIGN &&
           size >= least;
  }
  // Returns whether the words of a free block of at least `least` bytes agree. Requires: a block
  // can begin at `head`.
  bool isFree(const void* head, unsigned least) const {
    const unsigned size = wordAt(head);
    return fits(head, size, least) && wordAt(offsetBy(head, size - 4)) == size + 1;
  }
  // For reports: returns the head of the block that ends where the one at `head` begins, or of the
  // damaged block at which the walk ends before it, or `head` if no block is before it.
  const void* blockBefore(const void* head) const;
  // Returns the next head, without a report. Null at the end, and after a block of an impossible
  // size.
  const void* after(const void* head) const;
  bool leadsTo(const void* head) const;  // whether the walk reaches `head`
  // Returns whether the head word can be that of a block in this place. Requires: it can be read.
  bool canBeHead(const void* head) const;

  void* first_;
  void* end_;
  bool cut_;

 private:
  bool holds(const void* head) const;
  bool holdsBusy(const void* mem) const;
  const void* next(const void* head, const char* source, unsigned line, bool& isWhole) const;
};

inline Chain::Places::Places(const Chain& chain, unsigned least)
    : first_(chain.cut_ ? 4 : addressOf(chain.first_)),
      last_(chain.cut_ ? UINTPTR_MAX / ALIGN : (addressOf(chain.end_) - first_ - least) / ALIGN) {}

// Joins the chunk of `need` bytes at `chunk` to the chain that ends at `end`, which is null for an
// empty chain; sets `isCut` if it cannot be joined. Returns the head of the chunk's one block,
// busy, of colour 0 and with its tail; the new end marker is the word after it.
void* joinChunk(void* end, void* chunk, unsigned need, bool& isCut);

// Reports a damaged block of the chain: its size, state and colour, the word that is wrong and the
// one that was expected, and the block before it, which a program may have written past. Then fails
// an assertion of `source`, unless that is null. Allocates nothing. Example:
//
//   heap: damaged block at 0x7f20c0de0408, 2008 bytes, busy, colour 9 (cache)
//   heap:   tail word 0x78787878, expected 0x000007d9: written past the end of the block?
//   heap:   the block before it is at 0x7f20c0de0008, 1024 bytes, busy, colour 3 (parser)
[[gnu::cold]] void brokenBlock(const Chain& chain, const char* condition, const char* source,
                               unsigned line, const void* head);
// The same for an address at which no block can begin. The address is not read.
[[gnu::cold]] void strayBlock(const Chain& chain, const char* condition, const char* source,
                              unsigned line, const void* head);
// Reports that totals of free memory differ from the sums of the free blocks.
[[gnu::cold]] void wrongTotals(const char* condition, const char* source, unsigned line);

}  // namespace Utils
