// SPDX-License-Identifier: MIT
// The sums that all pictures of the heap show, and the walk along its memory.
//
// For the library's own sources, not installed. The walk divides the chain into pieces without a
// space between them: a block, or the bytes of a page that are in none of its small blocks.
// Example: a page of 10248 bytes with blocks of 512 bytes gives a piece of 8 bytes, one for each of
// the 19 small blocks, and one of 512 bytes.
//
// Thread safety: the caller serialises, as for the process allocator.
#pragma once

#include "utils/sdk/alloc.h"
#include "utils/sdk/colors.h"
#include "utils/sdk/memory/chain.h"

namespace Utils {

struct Piece {
  const char* start;  // its head word, if it is a block
  unsigned size;
  unsigned color;
  BlockInfo::Kind kind;  // PAGE for the bytes of either kind of page
};

struct Snapshot {
  void take();

  // Calls visit(piece) for all pieces in ascending order. Returns false if the walk ends at a
  // damaged block.
  template <class Visit>
  static bool visitPieces(Visit visit);

  static const MemoryAllocator& heap() {
    return *static_cast<const MemoryAllocator*>(Allocator::theAllocator());
  }
  // Whether the table shows the colour: it has a name or a number that is not 0.
  bool isShown(unsigned color) const;

  ColorInfo colors_[COLORS];
  unsigned long long held_, free_, allocated_;
  unsigned long long pages_;  // bytes of pages in no small block
  unsigned long long gaps_;   // bytes between chunks
  const char* first_;         // the head of the first block, null if there is none
  unsigned long long span_;   // from there to the end of the chain
  unsigned long long used_;   // from there to the end of the last piece that is not free
  bool isWhole_;
};

template <class Visit>
bool Snapshot::visitPieces(Visit visit) {
  struct Walk {
    void goTo(const char* place) {
      if (at_ && place > at_)
        visit_(Piece{at_, static_cast<unsigned>(place - at_), 0, BlockInfo::PAGE});
      at_ = place;
    }
    static void step(const BlockInfo& block, void* walk) { static_cast<Walk*>(walk)->step(block); }
    void step(const BlockInfo& block) {
      const char* head = static_cast<const char*>(headOfMemory(block.memory));
      goTo(head);
      if (block.kind == BlockInfo::PAGE || block.kind == BlockInfo::COUNTED_PAGE) {
        pageEnd_ = head + block.size;
      } else {
        visit_(Piece{head, block.size, block.color, block.kind});
        at_ = head + block.size;
      }
    }

    Visit& visit_;
    const char* at_ = nullptr;
    const char* pageEnd_ = nullptr;
  };
  Walk walk{visit};
  const bool isWhole = heap().visitBlocks(Walk::step, &walk);
  if (walk.at_ < walk.pageEnd_) walk.goTo(walk.pageEnd_);
  return isWhole;
}

}  // namespace Utils
