// SPDX-License-Identifier: MIT
// A parent allocator that does what the test says.
//
// Returns chunks from a reserved range of its own, by default each directly after the one before,
// and counts the requests. `skip` and `placeAt` decide where the next chunk lies. A request for
// which the range has no room returns null.
#pragma once

#include <cstddef>
#include <vector>

#include "utils/sdk/allocator.h"

struct ScriptedParent : Utils::Allocator {
  static constexpr std::size_t RANGE = std::size_t{320} << 20;
  static constexpr std::size_t GUARD = std::size_t{64} << 20;  // on both sides, never readable

  explicit ScriptedParent(std::size_t range = RANGE);
  ~ScriptedParent();
  ScriptedParent& operator=(ScriptedParent&&) = delete;

  using Allocator::alloc;
  void* alloc(unsigned size) override;
  void free(void* mem) override;
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
