// SPDX-License-Identifier: MIT
// A parent that lets an arena take its chunks from another allocator, such as the process
// allocator.
//
//   Utils::ChunkParent parent(Utils::Allocator::theAllocator(), Utils::colorNamed("parser"));
//   Utils::MemoryAllocator arena(&parent);
//
// An arena requires chunks that are aligned to 16, and an allocator aligns to 8: each chunk is
// requested with 8 bytes more and begins at the first of them that is aligned. Not for general use:
// a chunk has no size and no colour here, and is never freed, as no arena frees one.
//
// Thread safety: as in allocator.h, serialised with all calls on the source.
#pragma once

#include "utils/sdk/allocator.h"
#include "utils/sdk/export.h"

namespace Utils {

// size(), color() and all totals return 0, valid() returns false; the source counts the chunks.
struct YUTILS_EXPORT ChunkParent : Allocator {
  // Chunks come from source->alloc(size, color). Borrows the source.
  explicit ChunkParent(Allocator* source = theAllocator(), unsigned color = 0)
      : source_(source), color_(color) {}

  using Allocator::alloc;
  // Aligned to 16. Null if the source has no memory for 8 bytes more than that.
  [[nodiscard]] void* alloc(unsigned size) override;
  void free(void* mem) override;  // does nothing
  unsigned size(const void* mem) const override;
  unsigned allocatedMemory() const override;
  unsigned internalFree() const override;

 private:
  Allocator* source_;
  unsigned color_;
};

}  // namespace Utils
