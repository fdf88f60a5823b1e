// SPDX-License-Identifier: MIT
// The steps that the arena allocators share.
//
// MemoryAllocator and MemoryBank have chunks, blocks, colours and totals in common, in fields of
// the same names; they differ in how free blocks are kept and found. Each step takes the arena `a`
// (or only a block) and is inlined into it. chain.h has the operations that need no
// fields. For the library's own sources, not installed.
//
// Adding a third arena: befriend ArenaSteps, declare the fields of init() and chain() and
// splitBlock(), and derive the arena's steps from ArenaSteps of its traits:
//
//   Arena         the class; its MemHead has sizeandcolor_ and color_
//   LEAST_FREE    bytes of its smallest free block of the chain
//   CHUNK_EXTRA   bytes that it requests from the parent beside the block that it needs; 8 of them
//                 are for the words before the first and after the last block
//   SOURCE        the module's name in failed assertions
//   HAS_PAGES     whether busy blocks can be pages of small blocks
//
// A step that can fail an assertion takes its `line` from the caller, so that SOURCE and line name
// the call in the arena's own source.
//
// Damage. A program can write over any word of the bookkeeping. A word is compared with the others
// that must agree with it before it decides which memory is read or written: a head with its tail,
// a link with the bounds of the chain and with the block that it leads to. A block whose words
// disagree is reported and left alone: its memory is lost, and no other block is affected.
//
// Thread safety: the caller serialises.
#pragma once

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

#include "utils/sdk/allocator.h"
#include "utils/sdk/memory/chain.h"
#include "utils/sdk/memory/gaps.h"
#include "utils/sdk/memory/page.h"
#include "utils/sdk/memory/sight.h"
#include "utils/sdk/ysys.h"

namespace Utils {

// Bytes in free blocks, counted anew.
struct FreeSums {
  void add(unsigned size, unsigned label) {
    total_ += size;
    colors_[label & COLOR_MASK] += size;
  }

  unsigned total_ = 0;
  unsigned colors_[COLORS] = {};
};

template <class Traits>
struct ArenaSteps {
  using Arena = typename Traits::Arena;
  using Head = std::remove_pointer_t<decltype(Arena::endHead_)>;
  static constexpr const char* SOURCE = Traits::SOURCE;

  static void init(Arena& a) {
    static_assert(sizeof a.allocatedColorMemory_ == sizeof FreeSums::colors_);
    static_assert(sizeof a.freeColorMemory_ == sizeof FreeSums::colors_);
    a.firstHead_ = a.endHead_ = nullptr;
    a.internalFree_ = a.allocatedMemory_ = 0;
    a.tryHard_ = true;
    a.cut_ = false;
    a.slow_ = Sight::isWanted() ? WATCHED : 0;
    a.defaultColor_ = 0;
    for (unsigned& total : a.allocatedColorMemory_) total = 0;
    for (unsigned& total : a.freeColorMemory_) total = 0;
  }

  static Chain chain(const Arena& a) { return {a.firstHead_, a.endHead_, a.cut_}; }

  // Returns whether the address lies between the first head and the end of the chain.
  static bool isInChain(const Arena& a, const void* address) {
    return addressOf(address) >= addressOf(a.firstHead_) &&
           addressOf(address) < addressOf(a.endHead_);
  }

  // --- From the free blocks to the caller ---

  // Returns a busy block of at least `amt` bytes at the start of a new chunk of the parent; the
  // rest of the chunk becomes a free block if it is large enough. Returns null, nothing changed, if
  // the parent has no memory. Bytes that would make a block too large for its head word stay
  // unused.
  [[gnu::noinline]] static Head* newChunk(Arena& a, unsigned amt,
                                          unsigned line = __builtin_LINE()) {
    const unsigned least = std::max(amt + Traits::CHUNK_EXTRA, SMALLEST_CHUNK);
    const unsigned need = (least + CHUNK_ALIGN - 1) & ~(CHUNK_ALIGN - 1);
    void* candidate = a.parent_ ? a.parent_->alloc(need) : YIF_MemAlloc(need);
    if (!candidate) return nullptr;
    if ((addressOf(candidate) & (CHUNK_ALIGN - 1)) != 0)
      YfAssert__("((unsigned long)candidate & (CHUNK_ALIGN - 1)) == 0", SOURCE, line);
    if (Sight::isOn_) Sight::addChunk(&a, candidate, need);
    const unsigned used = std::min(need, BLOCK_LIMIT);
    const bool wasCut = std::exchange(a.cut_, false);
    Head* h = static_cast<Head*>(joinChunk(a.endHead_, candidate, used, a.cut_));
    if (a.endHead_ && h != a.endHead_ && !a.cut_) noteGap(&a, a.endHead_);
    a.cut_ |= wasCut;
    a.endHead_ = static_cast<Head*>(offsetBy(h, sizeOf(h->sizeandcolor_)));
    if (!a.firstHead_) a.firstHead_ = h;
    h->color_ = 0;
    a.splitBlock(h, amt);
    return h;
  }

  // Makes the first `amt` of a block's `size` bytes a busy block. Returns the rest, free and with
  // the block's label.
  static Head* cut(Head* h, unsigned size, unsigned amt) {
    Head* rest = static_cast<Head*>(offsetBy(h, amt));
    rest->sizeandcolor_ = size - amt;
    rest->color_ = h->color_;
    writeTail(rest, size - amt);
    h->sizeandcolor_ = amt + 1;
    writeTail(h, amt);
    return rest;
  }

  // Counts a block as the caller's and writes its head word. Returns its memory.
  static void* handOver(Arena& a, Head* h, unsigned size, unsigned color) {
    color &= COLOR_MASK;
    a.allocatedMemory_ += size;
    a.allocatedColorMemory_[color] += size;
    h->sizeandcolor_ = color << COLOR_SHIFT | (size + 1);
    return offsetBy(h, 4);
  }

  // The same for a busy block of the chain.
  static void* handOverChecked(Arena& a, Head* h, unsigned color,
                               unsigned line = __builtin_LINE()) {
    void* mem = handOver(a, h, h->sizeandcolor_ - 1, color);
    if ((addressOf(mem) & (ALIGN - 1)) != 0)
      YfAssert__("((unsigned int)mem & (ALIGN - 1)) == 0", SOURCE, line);
    return mem;
  }

  // --- From the caller back to the free blocks ---

  struct Returned {
    Head* head_;  // null if there was no such busy block; then nothing was changed
    unsigned size_;
    unsigned color_;
  };

  [[gnu::cold]] static Returned refuse(const Arena& a, decltype(brokenBlock) report,
                                       const char* condition, unsigned line, const void* head) {
    report(chain(a), condition, SOURCE, line, head);
    return {nullptr, 0, 0};
  }

  // Returns whether `mem` is the memory of a block that is busy. Reports nothing.
  static bool isBusyBlock(const Arena& a, const void* mem) {
    return addressOf(mem) % ALIGN == 0 && (a.cut_ || isInChain(a, mem)) &&
           isBusy(wordAt(headOfMemory(mem)));
  }

  // Returns whether takeBack() takes the busy block.
  static bool agrees(const Arena& a, const void* mem) {
    const void* head = headOfMemory(mem);
    const unsigned size = sizeOf(wordAt(head));
    return chain(a).fits(head, size, Traits::LEAST_FREE) &&
           wordAt(offsetBy(head, size - 4)) == size + 1;
  }

  // Takes a busy block with a tail back from the caller: clears its colour and subtracts it from
  // the total of that colour; its busy bit stays set. Any other address fails the assertion
  // "busy(h)", and a tail that disagrees with the head fails `tailFits`.
  static Returned takeBack(Arena& a, void* mem, const char* tailFits,
                           unsigned line = __builtin_LINE()) {
    void* head = headOfMemory(mem);
    if (addressOf(mem) % ALIGN != 0 || !(a.cut_ || isInChain(a, mem))) [[unlikely]]
      return refuse(a, strayBlock, "busy(h)", line, head);
    const unsigned word = wordAt(head);
    const unsigned size = (word & SIZE_MASK) - 1;  // odd if the block is not busy
    if (!chain(a).fits(head, size, Traits::LEAST_FREE)) [[unlikely]]
      return refuse(a, brokenBlock, "busy(h)", line, head);
    if (size + 1 != wordAt(offsetBy(head, size - 4))) [[unlikely]]
      return refuse(a, brokenBlock, tailFits, line, head);
    wordAt(head) = size + 1;
    a.allocatedColorMemory_[colorOf(word)] -= size;
    return {static_cast<Head*>(head), size, colorOf(word)};
  }

  // --- Free neighbours of a busy block, to be joined with it ---

  // Returns whether a free block can join one of `size` bytes: a head word must be able to hold the
  // sum.
  static bool joins(const Head* neighbour, unsigned size) {
    return neighbour && size + neighbour->sizeandcolor_ < BLOCK_LIMIT;
  }

  // Returns whether the words of a free block agree, its label included.
  static bool isFree(const Arena& a, const Head* h) {
    return chain(a).isFree(h, Traits::LEAST_FREE) && h->color_ <= COLOR_MASK;
  }

  // Returns the free block after a block of `size` bytes. Null if the next block is busy, as the
  // end marker is, or damaged.
  static Head* freeAfter(const Arena& a, Head* h, unsigned size, unsigned line = __builtin_LINE()) {
    Head* next = static_cast<Head*>(offsetBy(h, size));
    if (isBusy(next->sizeandcolor_)) return nullptr;
    if (isFree(a, next)) return next;
    brokenBlock(chain(a), DISAGREE, SOURCE, line, next);
    return nullptr;
  }

  // Returns the free block before a block. Null if that is busy or damaged. Its tail leads to it,
  // and its head must contain the same size.
  static Head* freeBefore(const Arena& a, Head* h, unsigned line = __builtin_LINE()) {
    const unsigned size = wordAt(offsetBack(h, 4)) - 1;
    const std::uintptr_t most = addressOf(h) - addressOf(a.firstHead_);
    if (std::rotr(std::uintptr_t{size}, 3) > most / ALIGN || size < ALIGN) [[unlikely]]
      return refuseBefore(a, h, line);
    Head* previous = static_cast<Head*>(offsetBack(h, size));
    const unsigned word = previous->sizeandcolor_;
    if (isBusy(word) && sizeOf(word) == size) return nullptr;
    if (word == size && size >= Traits::LEAST_FREE && previous->color_ <= COLOR_MASK) [[likely]]
      return previous;
    return refuseBefore(a, h, line);
  }

  // The tail before `h` is not that of a block: reports the block before `h`, unless `h` is the
  // first of a chunk. Returns null.
  [[gnu::cold, gnu::noinline]] static Head* refuseBefore(const Arena& a, Head* h, unsigned line) {
    if (h != a.firstHead_ && wordAt(offsetBack(h, 4)) != EDGE)
      brokenBlock(chain(a), DISAGREE, SOURCE, line, chain(a).blockBefore(h));
    return nullptr;
  }

  struct Joined {
    Head* head_;
    unsigned size_;
  };

  // Joins a busy block of `size` bytes and its free neighbours, the next one first. `remove`
  // unlinks a free neighbour and returns false if the arena does not hold it. Does not write the
  // words of the joined block: the caller knows whether it stays busy.
  template <class Remove>
  static Joined join(const Arena& a, Head* h, unsigned size, Remove remove,
                     unsigned line = __builtin_LINE()) {
    Head* next = freeAfter(a, h, size, line);
    Head* previous = freeBefore(a, h, line);
    if (joins(next, size) && remove(next)) size += next->sizeandcolor_;
    if (!joins(previous, size) || !remove(previous)) return {h, size};
    return {previous, size + previous->sizeandcolor_};
  }

  // The same for a block that stays busy.
  template <class Remove>
  static Head* coalesce(const Arena& a, Head* h, Remove remove, unsigned line = __builtin_LINE()) {
    const Joined sum = join(a, h, h->sizeandcolor_ - 1, remove, line);
    sum.head_->sizeandcolor_ = sum.size_ + 1;
    writeTail(sum.head_, sum.size_);
    return sum.head_;
  }

  // --- The totals of free memory, for a block with a free head word ---

  static void count(Arena& a, const Head* h) { countFree(a, h->sizeandcolor_, h->color_); }

  static void uncount(Arena& a, const Head* h) { countFree(a, 0 - h->sizeandcolor_, h->color_); }

  // `size` may be negative: it is added modulo 2^32.
  static void countFree(Arena& a, unsigned size, unsigned label) {
    a.internalFree_ += size;
    a.freeColorMemory_[label & COLOR_MASK] += size;
  }

  // --- The visit of all blocks, without reports ---

  // Calls visit(info) for each block of the chain. Returns false if it ends at a damaged block.
  template <class Visit>
  static bool visitBlocks(const Arena& a, const Visit& visit) {
    const Chain blocks = chain(a);
    for (const void* head = a.firstHead_; head && head != a.endHead_;) {
      if (a.cut_ && wordAt(head) == SEAM) return true;
      if (!blocks.canBeHead(head)) return false;
      const unsigned size = sizeOf(wordAt(head));
      if constexpr (Traits::HAS_PAGES) {
        visitPage(head, size, visit);
      } else {
        visit(infoOf(head, size));
      }
      head = offsetBy(head, size);
    }
    return true;
  }

  // Visits a block that may be a page, and then its small blocks.
  template <class Visit>
  static void visitPage(const void* page, unsigned size, const Visit& visit) {
    BlockInfo info = infoOf(page, size);
    const SmallBlocks smalls(info.memory, info.kind == BlockInfo::BUSY ? size : 0);
    if (smalls.count_ != 0)
      info.kind = smalls.isCounted_ ? BlockInfo::COUNTED_PAGE : BlockInfo::PAGE;
    visit(info);
    for (unsigned i = 0; i < smalls.count_; i++)
      visit(infoOf(offsetBy(smalls.first_, std::size_t{i} * smalls.size_), smalls.size_));
  }

  static BlockInfo infoOf(const void* head, unsigned size) {
    const unsigned word = wordAt(head);
    const void* mem = offsetBy(head, 4);
    if (!isBusy(word))
      return {mem, size, static_cast<const Head*>(head)->color_ & COLOR_MASK, BlockInfo::FREE};
    return {mem, size, colorOf(word), isGap(head) ? BlockInfo::GAP : BlockInfo::BUSY};
  }

  // --- After damage ---

  static bool isCounted(const Arena& a, const FreeSums& sums) {
    return a.internalFree_ == sums.total_ &&
           std::memcmp(a.freeColorMemory_, sums.colors_, sizeof sums.colors_) == 0;
  }
  static void recount(Arena& a, const FreeSums& sums) {
    a.internalFree_ = sums.total_;
    std::memcpy(a.freeColorMemory_, sums.colors_, sizeof sums.colors_);
  }

 protected:
  static constexpr char DISAGREE[] = "size == (t->size & ~1)";
};

}  // namespace Utils
