// SPDX-License-Identifier: MIT
// The peaks seen, and what happens at each moment.
#include "utils/sdk/memory/heap_moments.h"

#include <algorithm>

#include "utils/sdk/base/layout.h"
#include "utils/sdk/memory/chain.h"

namespace Utils {

namespace {

constinit const Allocator* _arena = nullptr;
constinit unsigned _peaks[COLORS] = {};
constinit unsigned _countedPages = 0;

bool isSampled(const Allocator* arena) { return arena == _arena; }

void writePending() {
  if (pendingHeaps.load(std::memory_order_relaxed) != 0) [[unlikely]]
    writePendingHeap();
}

}  // namespace

DEBUGGER_ROOT(yutils_root_peaks, _peaks);

void setSampledArena(const Allocator* arena) { _arena = arena; }

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
  if (isSampled(arena)) _countedPages += size;
}

void beforeRequest(const Allocator* arena) {
  if (isSampled(arena)) writePending();
}

void interruptRequests() {
  if (_arena) leaveFastPath(_arena);
}

void beforeChunk(const Allocator* arena) {
  if (!isSampled(arena)) return;
  samplePeaks();
  writePending();
}

void afterRefusal(const Allocator* arena) {
  if (isSampled(arena)) writeExhaustedHeap();
}

}  // namespace Utils
