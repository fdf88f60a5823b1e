// SPDX-License-Identifier: MIT
// The operations of an arena that a tool observes (sight.h).
//
// For the library's own sources, not installed. `Steps` are the steps of the arena (arena_steps.h)
// and have beside those: allocate() and release(), which return what alloc() and _free() of an
// unwatched arena return, and isBusyBlock() and isWhole(), which report nothing.
//
// Thread safety: the caller serialises.
#pragma once

#include <utility>

#include "utils/sdk/memory/arena_steps.h"
#include "utils/sdk/memory/sight.h"
#include "utils/sdk/platform.h"

namespace Utils {

template <class Steps>
struct WatchedSteps {
  using Arena = typename Steps::Arena;

  static bool isWatched(const Arena& a) { return (a.slow_ & WATCHED) != 0; }

  // The arena works as it does without a tool while an object lives.
  struct Unwatched {
    explicit Unwatched(Arena& a) : arena_(a), slow_(std::exchange(a.slow_, 0)), quiet_(true) {}
    ~Unwatched() { arena_.slow_ = static_cast<unsigned short>(arena_.slow_ | slow_); }
    Unwatched(const Unwatched&) = delete;
    Unwatched& operator=(const Unwatched&) = delete;

    Arena& arena_;
    const unsigned short slow_;
    const Sight::Quiet quiet_;
  };

  // A request for which there is no memory is repeated with what was held back.
  [[gnu::cold, gnu::noinline]] static void* allocate(Arena& a, unsigned request, unsigned color) {
    void* mem = allocateUnmarked(a, request, color);
    if (!mem && releaseHeld(a)) mem = allocateUnmarked(a, request, color);
    if (mem) YfMarkBusy(mem, request, Sight::isOutermost(a.parent_));
    return mem;
  }

  // Holds the block back, and releases the oldest that were held back. Returns the block's size;
  // 0 if it is no busy block, which the tool reports, and then the arena.
  [[gnu::cold, gnu::noinline]] static unsigned release(Arena& a, void* mem,
                                                       unsigned line = __builtin_LINE()) {
    const Unwatched plain(a);
    const bool isHeldBack = isHeld(a, mem);
    if (isHeldBack || !Steps::isBusyBlock(a, mem) || !Steps::isWhole(a, mem)) {
      YfReportWrongFree(mem);
      if (!isHeldBack) return Steps::release(a, mem);
      return Steps::refuse(a, brokenBlock, "busy(h)", line, headOfMemory(mem)).size_;
    }
    const unsigned size = sizeOf(wordAt(headOfMemory(mem)));
    YfMarkFree(mem, size - 4, Sight::isOutermost(a.parent_));
    return hold(a, {mem, size});
  }

  // For operations that read the arena: releases all that is held back. Returns whether that was
  // anything.
  static bool releaseHeld(Arena& a) {
    Watch* watch = Sight::findWatch(&a);
    if (!watch || watch->count_ == 0) return false;
    const Unwatched plain(a);
    while (watch->count_ != 0) releaseOldest(a, *watch);
    return true;
  }

  // An operation that reads the words of blocks, of an arena that may be watched.
  struct Reading {
    explicit Reading(const Arena& a) : quiet_(isWatched(a)) {
      if (quiet_.isWatched_) releaseHeld(const_cast<Arena&>(a));
    }

    const Sight::Quiet quiet_;
  };

  // Lets the program use the memory of the arena's chunks again. A copy that goes on with the
  // chunks has another address, and nothing happens when it is destroyed.
  [[gnu::cold, gnu::noinline]] static void destroy(Arena& a) {
    Watch* watch = Sight::findWatch(&a);
    if (!watch) return;
    const Sight::Quiet quiet(true);
    Steps::visitBlocks(a, [&](const BlockInfo& block) {
      if (block.kind == BlockInfo::BUSY)
        YfMarkFree(const_cast<void*>(block.memory), 0, Sight::isOutermost(a.parent_));
    });
    for (unsigned i = 0; i < watch->chunkCount_; i++)
      YfUnmarkChunk(watch->chunks_[i].begin_, watch->chunks_[i].size_);
    watch->count_ = watch->bytes_ = watch->chunkCount_ = 0;
    watch->arena_ = nullptr;
  }

 private:
  static void* allocateUnmarked(Arena& a, unsigned request, unsigned color) {
    const Unwatched plain(a);
    return Steps::allocate(a, request, color);
  }

  static bool isHeld(const Arena& a, const void* mem) {
    const Watch* watch = Sight::findWatch(&a);
    return watch && watch->holds(mem);
  }

  static unsigned hold(Arena& a, Watch::Held block) {
    Watch* watch = block.size_ < Sight::limit() ? Sight::watchOf(&a) : nullptr;
    if (!watch) return Steps::release(a, block.mem_);
    a.allocatedColorMemory_[colorOf(wordAt(headOfMemory(block.mem_)))] -= block.size_;
    watch->push(block);
    while (watch->isFull(Sight::limit())) releaseOldest(a, *watch);
    return block.size_;
  }

  static void releaseOldest(Arena& a, Watch& watch) {
    const Watch::Held block = watch.pop();
    a.allocatedColorMemory_[colorOf(wordAt(headOfMemory(block.mem_)))] += block.size_;
    Steps::release(a, block.mem_);
  }
};

}  // namespace Utils
