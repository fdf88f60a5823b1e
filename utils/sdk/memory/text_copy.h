// SPDX-License-Identifier: MIT
// Inside the library, the copies of short texts that its objects keep.
#pragma once

#include <cstring>

#include "utils/sdk/allocator.h"

namespace Utils {

// In a block of exactly its size, which the caller gives back to the process allocator; null when
// there is no memory.
inline char* copyOfText(const char* text) {
  const std::size_t bytes = std::strlen(text) + 1;
  if (bytes > 0xffffffffu) return nullptr;
  void* block = Allocator::theAllocator()->alloc(static_cast<unsigned>(bytes));
  return block ? static_cast<char*>(std::memcpy(block, text, bytes)) : nullptr;
}

}  // namespace Utils
