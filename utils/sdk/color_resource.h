// SPDX-License-Identifier: MIT
// A memory resource for containers of std::pmr, whose memory is counted by a colour.
//
//   Utils::ColorResource resource(Utils::colorNamed("cache"));
//   std::pmr::vector<std::pmr::string> lines(&resource);
//
// As color_allocator.h in all else: not part of the library, throws std::bad_alloc if there is no
// memory, and the caller serialises.
#pragma once

#include <memory_resource>

#include "utils/sdk/color_allocator.h"

namespace Utils {

// Equal only to itself, so that memory does not pass from one resource to another. Requires: it is
// destroyed after the containers.
struct ColorResource : std::pmr::memory_resource {
  // Borrows the allocator.
  explicit ColorResource(unsigned color, Allocator* allocator = Allocator::theAllocator())
      : source_{allocator, color} {}

 private:
  void* do_allocate(std::size_t bytes, std::size_t align) override {
    return source_.allocate(bytes, align);
  }
  void do_deallocate(void* mem, std::size_t, std::size_t align) override {
    source_.deallocate(mem, align);
  }
  bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
    return this == &other;
  }

  ColorSource source_;
};

}  // namespace Utils
