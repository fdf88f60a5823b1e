// SPDX-License-Identifier: MIT
// The blocks of an arena, as far as every arena allocator shares them.
//
// For the library's own sources, not installed. Knows head words, tail words and the chain that
// they form (alloc.h shows the layout), and nothing of an allocator's fields or of where it keeps
// its free blocks; what the allocators do alike with their fields is arena_steps.h. A block is
// passed by the address of its head word, and by its memory where a caller asks for it.
//
// The words that close a chunk off. In front of its first block stands a word that reads as the
// tail of something busy: the tail of the gap block that joins the chunk to the chain, else EDGE,
// which is a busy block of 4 bytes and its own head and tail. Behind its last block stands the end
// marker, SEAM: a busy head word of size 0. So a merge looks at its neighbours without asking where
// the chunk ends.
//
// Never allocates. The caller serialises.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace Utils {

constexpr unsigned ALIGN = 8;         // of every pointer given to a caller
constexpr unsigned CHUNK_ALIGN = 16;  // of every chunk from a parent
constexpr unsigned SMALLEST_BLOCK = 32;
constexpr unsigned SMALLEST_CHUNK = 0x20000;
constexpr unsigned SIZE_MASK = 0x3ffffff;
constexpr unsigned COLOR_SHIFT = 26;
constexpr unsigned COLOR_MASK = 63;
constexpr unsigned BLOCK_LIMIT = SIZE_MASK + 1;         // every block is smaller
constexpr unsigned LARGEST_REQUEST = BLOCK_LIMIT - 16;  // 67108848 bytes

constexpr unsigned SEAM = 1;
constexpr unsigned EDGE = 5;

inline unsigned& wordAt(void* address) { return *static_cast<unsigned*>(address); }
inline unsigned wordAt(const void* address) { return *static_cast<const unsigned*>(address); }

inline void* behind(void* address, std::size_t bytes) {
  return static_cast<char*>(address) + bytes;
}
inline const void* behind(const void* address, std::size_t bytes) {
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

// The block size for a request of up to LARGEST_REQUEST bytes: head and tail, rounded up.
inline unsigned blockSize(unsigned request) {
  const unsigned amt = (request + 15) & ~7u;
  return amt < SMALLEST_BLOCK ? SMALLEST_BLOCK : amt;
}

inline void writeTail(void* head, unsigned size) { wordAt(behind(head, size - 4)) = size + 1; }

// The part of the chain that an allocator's fields name. Where a module `source` is named, a
// damaged block is reported and fails an assertion of that module. Nothing outside of the chain is
// read, whatever its words hold, unless the chain was cut: then blocks may lie anywhere.
struct Chain {
  // The places where a block of at least `least` bytes can begin: one comparison for each.
  struct Places {
    Places(const Chain& chain, unsigned least);
    bool has(std::uintptr_t head) const { return std::rotr(head - first_, 3) <= last_; }

    std::uintptr_t first_;
    std::uintptr_t last_;
  };

  // 0, 0 and false for whatever is not the memory of a busy block that begins in the chain. What is
  // valid has a tail that fits.
  unsigned size(const void* mem) const;
  unsigned color(const void* mem) const;
  bool valid(const void* mem) const;

  // Gives an uncoloured block a colour, counts it in `totals` and gives 0; RESULT_INVALID_ARGUMENT
  // where the colour is 0 or there is no such block.
  unsigned setColor(void* mem, unsigned color, unsigned* totals) const;

  // The walk, by the memory of the blocks. Null at the end, where the chain was cut, for what lies
  // outside, and after a block whose head word cannot be true.
  void* firstBlock() const { return first_ ? behind(first_, 4) : nullptr; }
  void* nextBlock(const void* mem, const char* source) const;
  bool check(const char* source) const;  // walks the chain; false if anything is damaged

  // Prints the table of MemoryAllocator::report, without its last line.
  void report(const char* source) const;

  // Whether a block at `head` can have that size: a multiple of 8, at least `least`, and not past
  // the end of the chain. If that was cut, the end is not known.
  bool fits(const void* head, unsigned size, unsigned least) const {
    return std::rotr(std::uintptr_t{size}, 3) <= (addressOf(end_) - addressOf(head)) / ALIGN &&
           size >= least;
  }
  // Whether the words of a free block of at least `least` bytes, which can begin there, agree.
  bool isFree(const void* head, unsigned least) const {
    const unsigned size = wordAt(head);
    return fits(head, size, least) && wordAt(behind(head, size - 4)) == size + 1;
  }
  // The head of the block that ends where the one at `head` begins, or of a damaged one before it:
  // for a report. Returns `head` itself if the walk does not come there.
  const void* blockBefore(const void* head) const;
  // The next head without a report; null at the end, and after a block whose size cannot be true.
  const void* after(const void* head) const;
  bool leadsTo(const void* head) const;  // whether the walk comes there

  void* first_;
  void* end_;
  bool cut_;

 private:
  bool holds(const void* head) const;
  bool holdsBusy(const void* mem) const;
  bool canBeHead(const void* head) const;
  const void* next(const void* head, const char* source, bool& isWhole) const;
};

// Of an empty chain no place is asked for.
inline Chain::Places::Places(const Chain& chain, unsigned least)
    : first_(chain.cut_ ? 4 : addressOf(chain.first_)),
      last_(chain.cut_ ? UINTPTR_MAX / ALIGN : (addressOf(chain.end_) - first_ - least) / ALIGN) {}

// Joins the chunk of `need` bytes at `chunk` to the chain that ends at `end`, null for none; sets
// `isCut` if it cannot be joined. Gives the head of its one block, busy, colour 0 and with its
// tail; the new end marker stands right behind it.
void* joinChunk(void* end, void* chunk, unsigned need, bool& isCut);

// Reports the block and fails an assertion of `source`, without the help of what may be broken.
[[gnu::cold]] void brokenBlock(const char* condition, const char* source, unsigned line,
                               const void* head);
// The same for a place where no block can begin, which is not read.
[[gnu::cold]] void strayBlock(const char* condition, const char* source, unsigned line,
                              const void* head);

}  // namespace Utils
