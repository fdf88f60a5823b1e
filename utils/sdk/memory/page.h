// SPDX-License-Identifier: MIT
// The pages of small blocks, and how one is recognised.
//
// For the library's own sources, not installed. A page is a busy block of the chain (alloc.h). Its
// caller's memory, at an address that is a multiple of 8, begins with a mark of 4 bytes; its small
// blocks follow each other from there. The mark contains the class of the blocks, and the page's
// own address, so that a copy of the bytes elsewhere is no mark:
//
//   ((kind ^ lower half of the address) & ~7) | (class - 4)
//
// Example: a page of blocks of 32 bytes (class 5), made of a free block, with its memory at
// 0x7f20c0de0408, has the mark 0x9a6e4d58 ^ 0xc0de0408 with 1 in the lowest bits: 0x5ab04951.
//
// Thread safety: the caller serialises.
#pragma once

#include "utils/sdk/memory/chain.h"

namespace Utils {

constexpr unsigned PAGE = 10240;  // bytes that a page is used for, at least

// The kinds of marks: the page was a free block, or was allocated like a caller's large block and
// is counted as that.
constexpr unsigned PAGE_MARK = 0x9a6e4d58;
constexpr unsigned COUNTED_PAGE_MARK = 0x4c8b61d0;
constexpr unsigned PAGE_CLASS = 4;  // the mark contains the class less this

inline unsigned markOfPage(unsigned kind, const void* mem, unsigned k) {
  return ((kind ^ static_cast<unsigned>(addressOf(mem))) & ~7u) | (k - PAGE_CLASS);
}

// The small blocks of a page: `count_` blocks of `size_` bytes, the first one with its head at
// `first_`. Without blocks for a block that is no page.
struct SmallBlocks {
  // For the caller's memory of a busy block of the chain, of `blockSize` bytes.
  SmallBlocks(const void* mem, unsigned blockSize) {
    if (blockSize < PAGE) return;
    const unsigned mark = wordAt(mem);
    const unsigned k = (mark & 7) + PAGE_CLASS;
    isCounted_ = mark == markOfPage(COUNTED_PAGE_MARK, mem, k);
    if (k > LARGEST_CLASS || k == PAGE_CLASS ||
        (!isCounted_ && mark != markOfPage(PAGE_MARK, mem, k)))
      return;
    first_ = offsetBy(mem, 4);
    size_ = 1u << k;
    count_ = ((isCounted_ ? PAGE : blockSize - OVERHEAD) - 4) >> k;
  }

  static constexpr unsigned LARGEST_CLASS = 9;

  const void* first_ = nullptr;
  unsigned size_ = 0;
  unsigned count_ = 0;
  bool isCounted_ = false;
};

}  // namespace Utils
