// SPDX-License-Identifier: MIT
// The gap blocks in the chain of the process allocator.
//
// For the library's own sources, not installed. A gap block (chain.h) has the words of any busy
// block, and the memory between them belongs to others, so nothing in it shows that it is one. The
// process allocator therefore notes its gaps here. Other arenas do not, because they may work in
// other tasks at the same time.
//
// The heads lie in ascending order in pages, the first of which is static; each further one is
// taken from the system layer when the one before it is full. A page is never freed. Example: with
// 70 gaps in a 64-bit process, 62 heads lie in the first page and 8 in the second.
//
// Thread safety: the caller serialises, as for the process allocator.
#pragma once

#include "utils/sdk/export.h"

namespace Utils {

struct GapPage {
  static constexpr unsigned ROOM = 62;

  GapPage* next_;
  unsigned count_;
  const void* heads_[ROOM];
};

// Names the arena whose gaps are noted: the process allocator.
void noteGapsOf(const void* arena);
// Notes a gap block, unless it is one of another arena. If there is no memory for a page the block
// is taken for a caller's from then on. Requires: `head` lies after all heads noted before.
void noteGap(const void* arena, const void* head);
// Returns whether the block is a noted gap.
bool isGap(const void* head);

}  // namespace Utils
