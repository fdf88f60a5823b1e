// SPDX-License-Identifier: MIT
// An allocator for containers of the standard library, whose memory is counted by a colour.
//
//   using Names = std::vector<int, Utils::ColorAllocator<int>>;
//   Names names(Utils::ColorAllocator<int>(Utils::colorNamed("names")));
//
// color_resource.h has the same for std::pmr. Not part of the library: a program that includes it
// compiles all of it. Unlike the library it throws std::bad_alloc if there is no memory, since
// containers of the standard library expect that; a program without exceptions is aborted.
//
// A block for an alignment above 8 is requested with as many bytes more. The word before the
// aligned address has the address of the block: for 20 bytes aligned to 64, block 0x1008 has its
// memory at 0x1040 and its own address at 0x1038 (64-bit).
//
// Thread safety: as in allocator.h. The caller serialises all that a container allocates and frees
// with all other calls on the allocator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "utils/sdk/allocator.h"

namespace Utils {

// Memory of a colour from an allocator, for any alignment.
struct ColorSource {
  static constexpr std::size_t ALIGNED = 8;  // what every allocator returns

  [[nodiscard]] void* allocate(std::size_t bytes, std::size_t align) const {
    const std::size_t extra = align > ALIGNED ? align : 0;
    if (extra > LIMIT || bytes > LIMIT - extra) fail();
    void* block = allocator_->alloc(static_cast<unsigned>(bytes + extra), color_);
    if (!block) fail();
    return extra == 0 ? block : aligned(block, align);
  }

  void deallocate(void* mem, std::size_t align) const {
    if (align > ALIGNED) std::memcpy(&mem, static_cast<char*>(mem) - sizeof mem, sizeof mem);
    allocator_->free(mem);
  }

  [[noreturn]] static void fail() {
#if defined(__cpp_exceptions)
    throw std::bad_alloc();
#else
    std::abort();
#endif
  }

  Allocator* allocator_;
  unsigned color_;

 private:
  static constexpr std::size_t LIMIT = 0xffffffffu;

  static void* aligned(void* block, std::size_t align) {
    const auto past = reinterpret_cast<std::uintptr_t>(block) & (align - 1);
    char* mem = static_cast<char*>(block) + (align - past);
    std::memcpy(mem - sizeof block, &block, sizeof block);
    return mem;
  }
};

// Two are equal if allocator and colour are the same. A container that is assigned to keeps its
// colour. Requires: two containers that are swapped have equal ones.
template <class T>
struct ColorAllocator {
  using value_type = T;

  // Borrows the allocator.
  explicit ColorAllocator(unsigned color, Allocator* allocator = Allocator::theAllocator())
      : source_{allocator, color} {}
  template <class Other>
  ColorAllocator(const ColorAllocator<Other>& other) : source_(other.source_) {}

  [[nodiscard]] T* allocate(std::size_t count) {
    if (count > 0xffffffffu / sizeof(T)) ColorSource::fail();
    return static_cast<T*>(source_.allocate(count * sizeof(T), alignof(T)));
  }
  void deallocate(T* items, std::size_t) { source_.deallocate(items, alignof(T)); }

  template <class Other>
  bool operator==(const ColorAllocator<Other>& other) const {
    return source_.allocator_ == other.source_.allocator_ && source_.color_ == other.source_.color_;
  }
  template <class Other>
  bool operator!=(const ColorAllocator<Other>& other) const {
    return !(*this == other);
  }

  ColorSource source_;
};

}  // namespace Utils
