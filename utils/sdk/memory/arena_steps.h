// SPDX-License-Identifier: MIT
// What the arena allocators do alike with their fields.
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
// Damage. A program can write over any word of the bookkeeping. A word is compared with the others
// that must agree with it before it decides where something is read or written: a head with its
// tail, a link with the bounds of the chain and with the block that it leads to. A block whose
// words disagree is reported and left alone, so that its memory is lost and nothing else is.
//
// The caller serialises.
#pragma once

#include <algorithm>
#include <cstring>

#include "utils/sdk/allocator.h"
#include "utils/sdk/memory/chain.h"
#include "utils/sdk/ysys.h"

namespace Utils {

// Bytes in free blocks, counted anew.
struct FreeSums {
  void add(unsigned size, unsigned label) {
    total_ += size;
    colors_[label & COLOR_MASK] += size;
  }

  unsigned total_ = 0;
  unsigned colors_[COLOR_MASK + 1] = {};
};

struct ArenaSteps {
  template <class A>
  static void init(A& a) {
    a.firstHead_ = a.endHead_ = nullptr;
    a.internalFree_ = a.allocatedMemory_ = 0;
    a.tryHard_ = true;
    a.cut_ = false;
    a.defaultColor_ = 0;
    for (unsigned& total : a.allocatedColorMemory_) total = 0;
    for (unsigned& total : a.freeColorMemory_) total = 0;
  }

  template <class A>
  static Chain chain(const A& a) {
    return {a.firstHead_, a.endHead_, a.cut_};
  }

  // Whether the address lies between the first head and the end of the chain.
  template <class A>
  static bool isInChain(const A& a, const void* address) {
    return addressOf(address) >= addressOf(a.firstHead_) &&
           addressOf(address) < addressOf(a.endHead_);
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
    const unsigned used = std::min(need, BLOCK_LIMIT);
    Head h = static_cast<Head>(joinChunk(a.endHead_, candidate, used, a.cut_));
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

  [[gnu::cold]] static Returned refuse(decltype(brokenBlock) report, const char* condition,
                                       const char* source, unsigned line, const void* head) {
    report(condition, source, line, head);
    return {nullptr, 0, 0};
  }

  // A block of at least `least` bytes and with a tail, busy and colourless from then on, and off
  // the total of its colour. Any other block fails the assertion "busy(h)"; a tail that does not
  // fit fails `tailFits`.
  template <class A>
  static Returned takeBack(A& a, void* mem, unsigned least, const char* tailFits,
                           const char* source) {
    void* head = headOfMemory(mem);
    if (addressOf(mem) % ALIGN != 0 || !(a.cut_ || isInChain(a, mem))) [[unlikely]]
      return refuse(strayBlock, "busy(h)", source, __LINE__, head);
    const unsigned word = wordAt(head);
    const unsigned size = (word & SIZE_MASK) - 1;  // odd if the block is not busy
    if (!chain(a).fits(head, size, least)) [[unlikely]]
      return refuse(brokenBlock, "busy(h)", source, __LINE__, head);
    if (size + 1 != wordAt(behind(head, size - 4))) [[unlikely]]
      return refuse(brokenBlock, tailFits, source, __LINE__, head);
    wordAt(head) = size + 1;
    a.allocatedColorMemory_[colorOf(word)] -= size;
    return {head, size, colorOf(word)};
  }

  // --- Free neighbours of a busy block, to be joined with it ---

  // Whether a free block can join one of `size` bytes: a head word must be able to hold the sum.
  template <class Head>
  static bool joins(const Head* neighbour, unsigned size) {
    return neighbour && size + neighbour->sizeandcolor_ < BLOCK_LIMIT;
  }

  // Whether the words of a free block agree, its label included.
  template <class A, class Head>
  static bool isFree(const A& a, const Head* h, unsigned least) {
    return chain(a).isFree(h, least) && h->color_ <= COLOR_MASK;
  }

  // The one after a block of `size` bytes; null if that is busy, as the end marker is, or damaged.
  template <class A, class Head>
  static Head* freeBehind(const A& a, Head* h, unsigned size, unsigned least, const char* source) {
    Head* next = static_cast<Head*>(behind(h, size));
    if (isBusy(next->sizeandcolor_)) return nullptr;
    if (isFree(a, next, least)) return next;
    brokenBlock(DISAGREE, source, __LINE__, next);
    return nullptr;
  }

  // The one before a block, likewise. Its tail leads to it, and its head must say the same.
  template <class A, class Head>
  static Head* freeBefore(const A& a, Head* h, unsigned least, const char* source) {
    const char* address = static_cast<const char*>(static_cast<const void*>(h));
    const unsigned size = wordAt(address - 4) - 1;
    const std::uintptr_t most = addressOf(h) - addressOf(a.firstHead_);
    if (std::rotr(std::uintptr_t{size}, 3) > most / ALIGN || size < ALIGN) [[unlikely]]
      return refuseBefore(a, h, source);
    Head* previous = static_cast<Head*>(offsetBack(h, size));
    const unsigned word = previous->sizeandcolor_;
    if (isBusy(word) && sizeOf(word) == size) return nullptr;
    if (word == size && size >= least && previous->color_ <= COLOR_MASK) [[likely]]
      return previous;
    return refuseBefore(a, h, source);
  }

  // Null. The tail before `h` is not that of a block, unless it is the edge of a chunk.
  template <class A, class Head>
  [[gnu::cold, gnu::noinline]] static Head* refuseBefore(const A& a, Head* h, const char* source) {
    const char* address = static_cast<const char*>(static_cast<const void*>(h));
    if (h != a.firstHead_ && wordAt(address - 4) != EDGE)
      brokenBlock(DISAGREE, source, __LINE__, chain(a).blockBefore(h));
    return nullptr;
  }

  template <class Head>
  struct Joined {
    Head* head_;
    unsigned size_;
  };

  // Joins a busy block of `size` bytes and its free neighbours, the next one first; `remove` takes
  // a neighbour from where the free ones are kept and returns false if it is not there. Leaves the
  // words of the sum to the caller, who knows whether it stays busy.
  template <class A, class Head, class Remove>
  static Joined<Head> join(const A& a, Head* h, unsigned size, unsigned least, const char* source,
                           Remove remove) {
    Head* next = freeBehind(a, h, size, least, source);
    Head* previous = freeBefore(a, h, least, source);
    if (joins(next, size) && remove(next)) size += next->sizeandcolor_;
    if (!joins(previous, size) || !remove(previous)) return {h, size};
    return {previous, size + previous->sizeandcolor_};
  }

  // The same with a block that stays busy.
  template <class A, class Head, class Remove>
  static Head* coalesce(const A& a, Head* h, unsigned least, const char* source, Remove remove) {
    const auto sum = join(a, h, h->sizeandcolor_ - 1, least, source, remove);
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
    a.freeColorMemory_[label & COLOR_MASK] += size;
  }

  // --- After damage ---

  template <class A>
  static bool isCounted(const A& a, const FreeSums& sums) {
    return a.internalFree_ == sums.total_ &&
           std::memcmp(a.freeColorMemory_, sums.colors_, sizeof sums.colors_) == 0;
  }
  template <class A>
  static void recount(A& a, const FreeSums& sums) {
    a.internalFree_ = sums.total_;
    std::memcpy(a.freeColorMemory_, sums.colors_, sizeof sums.colors_);
  }

 protected:
  static constexpr char DISAGREE[] = "size == (t->size & ~1)";
};

}  // namespace Utils
