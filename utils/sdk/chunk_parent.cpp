// SPDX-License-Identifier: MIT
// Requests chunks from the source and aligns them.
#include "utils/sdk/chunk_parent.h"

#include "utils/sdk/memory/chain.h"

namespace Utils {

void* ChunkParent::alloc(unsigned size) {
  constexpr unsigned EXTRA = CHUNK_ALIGN - ALIGN;
  if (size > ~EXTRA) return nullptr;
  void* mem = source_->alloc(size + EXTRA, color_);
  return mem && addressOf(mem) % CHUNK_ALIGN != 0 ? offsetBy(mem, EXTRA) : mem;
}

void ChunkParent::free(void*) {}

unsigned ChunkParent::size(const void*) const { return 0; }

unsigned ChunkParent::allocatedMemory() const { return 0; }

unsigned ChunkParent::internalFree() const { return 0; }

}  // namespace Utils
