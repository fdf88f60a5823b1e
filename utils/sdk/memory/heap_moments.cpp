// SPDX-License-Identifier: MIT
// The peaks seen, and what happens at each moment.
#include "utils/sdk/memory/heap_moments.h"

#include <algorithm>

#include "utils/sdk/memory/chain.h"

namespace Utils {

namespace {

constinit const Allocator* _arena = nullptr;
constinit unsigned _peaks[COLORS] = {};
constinit unsigned _countedPages = 0;

bool isWatched(const Allocator* arena) { return arena == _arena; }

void writePending() {
  if (pendingHeaps.load(std::memory_order_relaxed) != 0) [[unlikely]]
    writePendingHeap();
}

}  // namespace

void watchArena(const Allocator* arena) { _arena = arena; }

void samplePeak(unsigned color) {
  color &= COLOR_MASK;
  const unsigned total = _arena->allocatedColorMemory(color);
  _peaks[color] = std::max(_peaks[color], color == 0 ? total - _countedPages : total);
}

void samplePeaks() {
  for (unsigned color = 0; color < COLORS; color++) samplePeak(color);
}

unsigned peakSeen(unsigned color) { return _peaks[color & COLOR_MASK]; }

void notePage(const Allocator* arena, unsigned size) {
  if (isWatched(arena)) _countedPages += size;
}

void beforeRefill(const Allocator* arena) {
  if (isWatched(arena)) writePending();
}

void beforeChunk(const Allocator* arena) {
  if (!isWatched(arena)) return;
  samplePeaks();
  writePending();
}

void afterRefusal(const Allocator* arena) {
  if (isWatched(arena)) writeExhaustedHeap();
}

}  // namespace Utils
