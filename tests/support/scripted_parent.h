// SPDX-License-Identifier: MIT
// A parent allocator that does what the test says.
//
// Returns chunks from a reserved range of its own, by default each directly after the one before,
// and counts the requests. `skip` and `placeAt` decide where the next chunk lies. A request for
// which the range has no room returns null.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "utils/sdk/allocator.h"

struct ScriptedParent : Utils::Allocator {
  static constexpr std::size_t RANGE = std::size_t{320} << 20;
  static constexpr std::size_t GUARD = std::size_t{64} << 20;  // on both sides, never readable

  explicit ScriptedParent(std::size_t range = RANGE) : range_(range) {
    void* map = mmap(nullptr, range + 2 * GUARD, PROT_NONE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    base_ = next_ = static_cast<char*>(map) + GUARD;
    if (map == MAP_FAILED || mprotect(base_, range, PROT_READ | PROT_WRITE) != 0) std::abort();
  }
  ~ScriptedParent() { munmap(base_ - GUARD, range_ + 2 * GUARD); }
  ScriptedParent& operator=(ScriptedParent&&) = delete;

  using Allocator::alloc;
  void* alloc(unsigned size) override {
    sizes_.push_back(size);
    const bool fails = fails_ || size > static_cast<std::size_t>(base_ + range_ - next_);
    chunks_.push_back(fails ? nullptr : next_);
    if (fails) return nullptr;
    std::memset(next_, 0xa5, std::min(size, 4096u));  // nobody has promised cleared memory
    next_ += size;
    return chunks_.back();
  }
  void free(void*) override { freed_++; }
  unsigned size(const void*) const override { return 0; }
  unsigned allocatedMemory() const override { return 0; }
  unsigned internalFree() const override { return 0; }

  void skip(std::size_t bytes) { next_ += bytes; }
  void placeAt(std::size_t offset) { next_ = base_ + offset; }

  const std::size_t range_;
  char* base_;
  char* next_;
  bool fails_ = false;           // then requests return null
  unsigned freed_ = 0;           // must stay 0
  std::vector<unsigned> sizes_;  // every request
  std::vector<char*> chunks_;    // what each was given
};
