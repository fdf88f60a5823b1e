// SPDX-License-Identifier: MIT
// The blocks of arenas as a tool that checks memory sees them.
//
// For the library's own sources, not installed. A tool is valgrind's memory checker or the address
// sanitizer (platform.h). While one observes the process, each arena is watched: the tool learns
// the size that was requested for each block, to the byte, and blocks that are freed are held
// back for a while before they are used again, so that an access to one is found. Without a tool
// nothing here is called, except isWanted().
//
// An arena's field `slow_` decides: while it is not 0, alloc and free leave their fast paths. The
// entries (alloc.cpp, membank.cpp) then pass through the steps below, with `slow_` cleared
// meanwhile, so that pages, joined blocks and chunks that the arena takes for itself are not
// announced.
//
// A block that is held back stays busy in the arena. It is no longer in allocatedMemory() and in
// the total of its colour; every operation that reads other totals, or the blocks, first releases
// all that is held back. So each figure is the same with and without a tool.
//
// Thread safety: the caller serialises all calls for one arena. Different arenas may be used by
// different tasks.
#pragma once

#include <atomic>
#include <cstddef>

#include "utils/sdk/allocator.h"

namespace Utils {

// `slow_` of a watched arena. At least 512: alloc compares request | slow_ with the largest request
// that it serves on its fast path, one comparison as without `slow_`.
constexpr unsigned short WATCHED = 0x400;
// The same for one request, before which the arena is looked at (heap_moments.h).
constexpr unsigned short INTERRUPTED = 0x200;

// The notes on one watched arena: its quarantine, which is the blocks that are held back, the
// oldest first, and its chunks, of which adjacent ones are one entry. Lives as long as the process;
// another arena may get it after its arena was destroyed.
struct Watch {
  static constexpr unsigned ROOM = 2048;
  static constexpr unsigned MOST_CHUNKS = 2048;

  struct Held {
    void* mem_;
    unsigned size_;
  };

  struct Chunk {
    void* begin_;
    std::size_t size_;
  };

  bool isFull(unsigned limit) const { return count_ == ROOM || bytes_ > limit; }
  bool holds(const void* mem) const;
  void push(Held block);
  Held pop();
  // Notes a chunk. Later chunks than MOST_CHUNKS are not noted, and stay forbidden for ever.
  void add(void* chunk, std::size_t size);

  std::atomic<const void*> arena_;
  Watch* next_;
  unsigned first_;
  unsigned count_;
  unsigned bytes_;
  Held held_[ROOM];
  unsigned chunkCount_;
  Chunk chunks_[MOST_CHUNKS];
};

struct Sight {
  // Returns whether a tool observes the process; then arenas are watched from their construction.
  static bool isWanted();

  // The answer of the last isWanted(), for operations that have no arena.
  static inline constinit bool isOn_ = false;

  // While an object lives, valgrind ignores that the task reads words of blocks.
  struct Quiet {
    explicit Quiet(bool isWatched);
    ~Quiet();
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

    bool isWatched_;
  };

  // Returns whether the tool may count the blocks of an arena with that parent as blocks of their
  // own: the chunks come straight from the system layer.
  static bool isOutermost(const Allocator* parent);

  // Announces a new chunk of an arena.
  static void addChunk(const void* arena, void* chunk, unsigned size);

  // Returns the notes on an arena, which the first call creates. Null if there is no memory.
  static Watch* watchOf(const void* arena);
  static Watch* findWatch(const void* arena);  // null if none was created
  static unsigned limit();                     // of the bytes in a quarantine
};

}  // namespace Utils
