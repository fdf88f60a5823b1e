// arena_steps.h: what the arena allocators do alike with their fields.
//
// For the library's own sources, not installed. MemoryAllocator and MemoryBank have chunks, blocks,
// colours and totals in common, in fields of the same names; they differ in where a free block is
// kept and found. Each step here is told the allocator `a` (or only a block) and is inlined into
// it; the module's name `source` goes into the assertions that it may fail. What needs no fields is
// chain.h.
//
// A head is of the allocator's own MemHead, of which sizeandcolor_ and color_ are used. Adding a
// third arena: befriend ArenaSteps, have the fields of init() and chain(), and splitBlock.
//
// The caller serialises.
#pragma once

#include <algorithm>

#include "utils/sdk/allocator.h"
#include "utils/sdk/chain.h"
#include "utils/sdk/ysys.h"

namespace Utils {

struct ArenaSteps {
  template <class A>
  static void init(A& a) {
    a.firstHead_ = a.endHead_ = nullptr;
    a.internalFree_ = a.allocatedMemory_ = 0;
    a.tryHard_ = true;
    a.defaultColor_ = 0;
    for (unsigned& total : a.allocatedColorMemory_) total = 0;
    for (unsigned& total : a.freeColorMemory_) total = 0;
  }

  template <class A>
  static Chain chain(const A& a) {
    return {a.firstHead_, a.endHead_};
  }

  // --- Out of the free blocks, to the caller ---

  // A chunk from the parent, cut to a busy block of `amt` bytes; null, nothing changed, when there
  // is none. `around` are the bytes asked for beside it, of which 8 close the chunk off. What would
  // make the block too large for its head word is left unused.
  template <class A>
  [[gnu::noinline]] static auto newChunk(A& a, unsigned amt, unsigned around, const char* source)
      -> decltype(a.endHead_) {
    using Head = decltype(a.endHead_);
    const unsigned least = std::max(amt + around, SMALLEST_CHUNK);
    const unsigned need = (least + CHUNK_ALIGN - 1) & ~(CHUNK_ALIGN - 1);
    void* candidate = a.parent_ ? a.parent_->alloc(need) : YIF_MemAlloc(need);
    if (!candidate) return nullptr;
    if ((addressOf(candidate) & (CHUNK_ALIGN - 1)) != 0)
      YfAssert__("((unsigned long)candidate & (CHUNK_ALIGN - 1)) == 0", source, __LINE__);
    Head h = static_cast<Head>(joinChunk(a.endHead_, candidate, std::min(need, BLOCK_LIMIT)));
    a.endHead_ = static_cast<Head>(behind(h, sizeOf(h->sizeandcolor_)));
    if (!a.firstHead_) a.firstHead_ = h;
    h->color_ = 0;
    a.splitBlock(h, amt);
    return h;
  }

  // Makes the first `amt` of a block's `size` bytes a busy block. Gives the rest, free and with the
  // block's label.
  template <class Head>
  static Head* cut(Head* h, unsigned size, unsigned amt) {
    Head* rest = static_cast<Head*>(behind(h, amt));
    rest->sizeandcolor_ = size - amt;
    rest->color_ = h->color_;
    writeTail(rest, size - amt);
    h->sizeandcolor_ = amt + 1;
    writeTail(h, amt);
    return rest;
  }

  // Counts a block as the caller's and makes its head word. Gives its memory.
  template <class A, class Head>
  static void* handOver(A& a, Head* h, unsigned size, unsigned color) {
    color &= COLOR_MASK;
    a.allocatedMemory_ += size;
    a.allocatedColorMemory_[color] += size;
    h->sizeandcolor_ = color << COLOR_SHIFT | (size + 1);
    return behind(h, 4);
  }

  // The same for a busy block of the chain.
  template <class A, class Head>
  static void* handOverChecked(A& a, Head* h, unsigned color, const char* source) {
    void* mem = handOver(a, h, h->sizeandcolor_ - 1, color);
    if ((addressOf(mem) & (ALIGN - 1)) != 0)
      YfAssert__("((unsigned int)mem & (ALIGN - 1)) == 0", source, __LINE__);
    return mem;
  }

  // --- Back from the caller, to the free blocks ---

  struct Returned {
    void* head_;  // null for what was no busy block: that is left alone
    unsigned size_;
    unsigned color_;
  };

  // A block with a tail, busy and colourless from then on, and off the total of its colour. A tail
  // that does not fit fails the assertion `tailFits`.
  template <class A>
  static Returned takeBack(A& a, void* mem, const char* tailFits, const char* source) {
    void* head = headOfMemory(mem);
    const unsigned word = wordAt(head);
    if (!isBusy(word)) {
      brokenBlock("busy(h)", source, __LINE__, head);
      return {nullptr, 0, 0};
    }
    const unsigned size = sizeOf(word);
    wordAt(head) = size + 1;
    a.allocatedColorMemory_[colorOf(word)] -= size;
    if (size + 1 != wordAt(behind(head, size - 4))) brokenBlock(tailFits, source, __LINE__, head);
    return {head, size, colorOf(word)};
  }

  // Whether a free neighbour joins a block of `size` bytes: the head word must be able to hold the
  // sum.
  template <class Head>
  static bool joins(const Head* neighbour, unsigned size) {
    return !isBusy(neighbour->sizeandcolor_) && size + neighbour->sizeandcolor_ < BLOCK_LIMIT;
  }

  template <class Head>
  struct Joined {
    Head* head_;
    unsigned size_;
  };

  // Joins a busy block of `size` bytes and its free neighbours, the next one first; `remove` takes
  // a neighbour from where the free ones are kept. Leaves the words of the sum to the caller, who
  // knows whether it stays busy.
  template <class Head, class Remove>
  static Joined<Head> join(Head* h, unsigned size, Remove remove) {
    Head* next = static_cast<Head*>(behind(h, size));
    Head* previous = static_cast<Head*>(previousHead(h));
    if (joins(next, size)) {
      remove(next);
      size += next->sizeandcolor_;
    }
    if (!joins(previous, size)) return {h, size};
    remove(previous);
    return {previous, size + previous->sizeandcolor_};
  }

  // The same with a block that stays busy.
  template <class Head, class Remove>
  static Head* coalesce(Head* h, Remove remove) {
    const auto sum = join(h, h->sizeandcolor_ - 1, remove);
    sum.head_->sizeandcolor_ = sum.size_ + 1;
    writeTail(sum.head_, sum.size_);
    return sum.head_;
  }

  // --- The totals of free memory, for a block with a free head word ---

  template <class A, class Head>
  static void count(A& a, const Head* h) {
    countFree(a, h->sizeandcolor_, h->color_);
  }

  template <class A, class Head>
  static void uncount(A& a, const Head* h) {
    countFree(a, 0 - h->sizeandcolor_, h->color_);
  }

  // `size` may be negative, in the way of unsigned numbers.
  template <class A>
  static void countFree(A& a, unsigned size, unsigned label) {
    a.internalFree_ += size;
    a.freeColorMemory_[label] += size;
  }
};

}  // namespace Utils
