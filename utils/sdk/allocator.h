// SPDX-License-Identifier: MIT
// The interface of every memory source, the process allocator, and two simple sources.
//
// The library allocates from `Allocator::theAllocator()`, the process allocator, which is a
// MemoryAllocator (alloc.h), except where a header names another source. HostAllocator passes
// requests on to the system layer (ysys.h), AllocationLimiter serves them from one pool; neither
// reuses memory that is freed.
//
// A busy block is one that was allocated and not yet freed. A memory colour is a label from 0 to 63
// that an arena allocator stores in each busy block; it counts the bytes of each colour, so that a
// program can see how much memory each of its parts holds. A colour has no influence on where
// memory comes from. Colours are reduced to six bits (value & 63) when they are used.
//
// Sizes, totals and colours are 32-bit on every platform. Nothing here throws.
//
// Thread safety: the caller serialises all calls on one allocator, also those that only read. Most
// of the library allocates from the process allocator, so the caller serialises that as well.
#pragma once

#include <cstddef>

#include "utils/sdk/export.h"
#include "utils/sdk/result_codes.h"

namespace Utils {

// The comments are the contract of every implementation. An operation that is not pure has a
// default implementation, for sources without colours; "Default:" says where that differs.
struct YUTILS_EXPORT Allocator {
  // Returns the process allocator, which is built at the first call, even if that is before the
  // library's static objects are constructed. Never null. Valid until the process ends: no
  // destructor runs for it.
  static Allocator* theAllocator() {
    static Allocator* a = nullptr;
    if (!a) a = buildTheAllocator();
    return a;
  }

  // Returns at least `size` bytes aligned to 8, which the caller owns until free(). Null if there
  // is no memory. Without a colour the block gets the default colour. Default: ignores the colour.
  [[nodiscard]] virtual void* alloc(unsigned size, unsigned color);
  [[nodiscard]] virtual void* alloc(unsigned size) = 0;
  virtual void free(void* mem) = 0;  // Requires: a busy block of this allocator, or null

  // Returns the bytes of a busy block, its bookkeeping included.
  virtual unsigned size(const void* mem) const = 0;
  virtual unsigned allocatedMemory() const = 0;  // bytes in busy blocks, bookkeeping included
  virtual unsigned internalFree() const = 0;     // bytes in the allocator's free blocks

  virtual unsigned color(const void* mem) const;         // of a busy block. Default: 0
  virtual unsigned setColor(void* mem, unsigned color);  // RESULT_NOT_IMPLEMENTED, in arenas too
  virtual bool valid(const void* mem) const;  // true for a well-formed busy block. Default: false

  // Sets the default colour, that of the blocks of alloc(size), stores the former one in `oldColor`
  // unless that is null, and returns 0. Default: returns RESULT_NOT_IMPLEMENTED and stores nothing.
  virtual unsigned setDefaultColor(unsigned color, unsigned* oldColor);
  virtual unsigned defaultColor() const;  // as it was set, not reduced. Default: 0

  // Return the bytes in busy blocks of a colour, and in free blocks that had that colour when they
  // were freed. Default: 0.
  virtual unsigned allocatedColorMemory(unsigned color) const;
  virtual unsigned freeColorMemory(unsigned color) const;
  // Adds to the total of busy bytes of one colour and to nothing else. Default: does nothing.
  virtual void adjustColorMemory(unsigned color, int delta);

 protected:
  ~Allocator() = default;  // not virtual: no allocator is destroyed through a pointer to this class

 private:
  static Allocator* buildTheAllocator();  // returns the same one at every call
};

// A block of an arena, as a visitor gets it.
struct BlockInfo {
  enum Kind : unsigned char {
    BUSY,          // allocated by a caller
    FREE,          // `color` is that of the block that was freed
    PAGE,          // holds small blocks, which follow; in no total
    COUNTED_PAGE,  // the same, but its bytes are in allocatedMemory()
    GAP            // fills the space between two chunks; in no total
  };

  const void* memory;  // the first byte for callers
  unsigned size;       // its bookkeeping included
  unsigned color;
  Kind kind;
};

// The two classes below may be derived from, but objects of these are not destroyed through a
// pointer to them either.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// Memory directly from the system layer. If that has no memory, alloc() fails the assertion "m" and
// then returns null; the assertion stops the process only if YSYS_ASSERT is "stop" (YfAssert__ in
// ysys.h). size(), color() and all totals return 0, valid() returns false.
struct YUTILS_EXPORT HostAllocator : Allocator {
  using Allocator::alloc;
  [[nodiscard]] void* alloc(unsigned size) override;
  void free(void* mem) override;  // does nothing: the system layer cannot free memory
  unsigned size(const void* mem) const override;
  unsigned allocatedMemory() const override;
  unsigned internalFree() const override;
  [[nodiscard]] virtual void* alloc(unsigned size, char unused);  // the same as alloc(size)
  [[nodiscard]] void* alloc(unsigned size, int color) {
    return alloc(size, static_cast<unsigned>(color));
  }
};

// Serves requests one after the other from a pool of a fixed size; their sizes are not rounded, and
// the memory is not aligned. A request that does not fit is served by the system layer, and the
// rest of the pool stays for smaller requests. The pool is allocated at the first request and never
// freed. A copy that is made after that has the same pool, but a position of its own in it: both
// may return the same bytes. size(), color() and all totals return 0, valid() returns false: the
// rest of the pool does not count as free.
struct YUTILS_EXPORT AllocationLimiter : Allocator {
  AllocationLimiter(unsigned poolSize);

  // Returns null: the library creates no limiter.
  static AllocationLimiter* theLimiter();

  using Allocator::alloc;
  // Null if neither the pool nor the system layer has memory. If the pool itself cannot be
  // allocated, a request of up to its size returns null; the next request tries to allocate it
  // again.
  [[nodiscard]] void* alloc(unsigned size) override;
  void free(void* mem) override;  // does nothing
  unsigned size(const void* mem) const override;
  unsigned allocatedMemory() const override;
  unsigned internalFree() const override;
  [[nodiscard]] virtual void* alloc(unsigned size, char unused);  // the same as alloc(size)
  [[nodiscard]] void* alloc(unsigned size, int color) {
    return alloc(size, static_cast<unsigned>(color));
  }

 private:
  void init();
  bool acquirePool();

  static AllocationLimiter* theLimiter_;

  unsigned poolSize_;
  char* pool_;      // null until it is allocated
  char* poolNext_;  // the first free byte
  char* poolEnd_;
};

#pragma GCC diagnostic pop

// Sets the default colour of the process allocator for a scope. Scopes nest within one task. There
// is one default colour for the whole process, so scopes in different tasks change each other's.
struct YUTILS_EXPORT MemoryColor {
  [[nodiscard]] explicit MemoryColor(unsigned color);
  ~MemoryColor();
  MemoryColor(const MemoryColor&) = default;
  MemoryColor& operator=(const MemoryColor&) = default;

  void reset();  // restores the former colour; the destructor does so again

 private:
  unsigned oldColor_;
};

}  // namespace Utils
