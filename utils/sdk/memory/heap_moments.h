// SPDX-License-Identifier: MIT
// The moments at which the process allocator is looked at: samples of the peaks of its colours, and
// pictures of its heap that were requested.
//
// For the library's own sources, not installed. The peak of a colour cannot be followed exactly
// without a cost for every request, so it is the largest total that was seen at the moments that
// colors.h lists. Other arenas are not looked at.
//
// Thread safety: the caller serialises, as for the process allocator.
#pragma once

#include <atomic>

#include "utils/sdk/allocator.h"

namespace Utils {

// Names the arena that is looked at from then on: the process allocator.
void setSampledArena(const Allocator* arena);

// --- The peaks seen ---

void samplePeak(unsigned color);  // after the total of one colour has grown
void samplePeaks();
unsigned peakSeen(unsigned color);
// Notes a page that the arena counts as allocated, and that is in no block of colour 0.
void notePage(const Allocator* arena, unsigned size);

// --- The slow steps of an arena: the arena is whole, and nothing of the request is done yet ---

void beforeRequest(const Allocator* arena);  // the next one after interruptRequests()
void beforeChunk(const Allocator* arena);
void afterRefusal(const Allocator* arena);  // the system had no memory for the chunk

// --- Pictures (heap/heap_setting.cpp) ---

// One bit for each request by a signal, set by the handler, which then calls interruptRequests().
extern std::atomic<unsigned> pendingHeaps;

// Lets the next request of the process allocator write what is pending. For signal handlers.
void interruptRequests();
void leaveFastPath(const Allocator* arena);  // a step of that, in alloc.cpp

void writePendingHeap();    // writes what the bits request, and clears them
void writeExhaustedHeap();  // the first time that a request fails

}  // namespace Utils
