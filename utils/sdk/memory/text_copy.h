// SPDX-License-Identifier: MIT
// Copies of short texts, which objects of the library keep. For the library's own sources, not
// installed.
#pragma once

#include <cstring>

#include "utils/sdk/allocator.h"

namespace Utils {

// Returns a copy in a block of exactly its size, which the caller frees with theAllocator(). Null
// if there is no memory.
inline char* copyOfText(const char* text) {
  const std::size_t bytes = std::strlen(text) + 1;
  if (bytes > 0xffffffffu) return nullptr;
  void* block = Allocator::theAllocator()->alloc(static_cast<unsigned>(bytes));
  return block ? static_cast<char*>(std::memcpy(block, text, bytes)) : nullptr;
}

}  // namespace Utils
