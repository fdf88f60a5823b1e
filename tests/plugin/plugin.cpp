// SPDX-License-Identifier: MIT
// A library that a program loads at run time and that uses the process allocator.
#include "utils/sdk/allocator.h"

extern "C" {
[[gnu::visibility("default")]] void* pluginAllocator() { return Utils::Allocator::theAllocator(); }
[[gnu::visibility("default")]] void* pluginAlloc(unsigned size) {
  return Utils::Allocator::theAllocator()->alloc(size, 7);
}
[[gnu::visibility("default")]] unsigned pluginHeld() {
  return Utils::Allocator::theAllocator()->allocatedColorMemory(7);
}
[[gnu::visibility("default")]] void pluginFree(void* mem) {
  Utils::Allocator::theAllocator()->free(mem);
}
}
