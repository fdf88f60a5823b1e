// SPDX-License-Identifier: MIT
// The interface of every memory source, the process's own source, and two small ones.
//
// `Allocator::theAllocator()` is where all memory of the library comes from; MemoryAllocator
// (alloc.h) stands behind it. HostAllocator passes requests on to the system layer,
// AllocationLimiter cuts them from one pool; neither ever takes memory back.
//
// A memory colour is a label from 0 to 63 that an arena allocator keeps in each busy block and
// counts bytes by, so that a program can see how much each of its parts holds. It does not decide
// where memory comes from. Colours are reduced to six bits (value & 63) where they are used.
//
// Sizes, totals and colours are 32-bit on every platform. Nothing here throws: what cannot be had
// is null. No class here locks: the caller serialises every call that allocates, frees, or asks
// while another task does so.
#pragma once

#include <cstddef>

#include "utils/sdk/export.h"
#include "utils/sdk/result_codes.h"

namespace Utils {

// What an implementation does is told here. All but the pure operations have a body for sources
// that know no colours; where it does something else, that is told too.
struct YUTILS_EXPORT Allocator {
  // The process's allocator, built at the first call, which may come before any static object of
  // the library is there; never null, and the same and usable to the last instruction of the
  // process.
  static Allocator* theAllocator() {
    static Allocator* a = nullptr;
    if (!a) a = buildTheAllocator();
    return a;
  }

  // `size` bytes aligned to 8, owned by the caller until freed; null when there is no memory.
  // Without a colour in the default colour. A source without colours drops it.
  virtual void* alloc(unsigned size, unsigned color);
  virtual void* alloc(unsigned size) = 0;
  virtual void free(void* mem) = 0;  // a block of this allocator, or null

  virtual unsigned size(
      const void* mem) const = 0;                 // bytes of a busy block, its bookkeeping included
  virtual unsigned allocatedMemory() const = 0;   // bytes that callers hold, counted likewise
  virtual unsigned internalFree() const = 0;      // bytes that the allocator holds free
  virtual unsigned color(const void* mem) const;  // of a busy block; here 0
  virtual unsigned setColor(void* mem, unsigned color);  // here RESULT_NOT_IMPLEMENTED, always
  virtual bool valid(const void* mem) const;             // a well-formed busy block; here false

  // Sets the colour of alloc(size) and stores the former one, unless `oldColor` is null; gives 0.
  // Here RESULT_NOT_IMPLEMENTED, nothing stored.
  virtual unsigned setDefaultColor(unsigned color, unsigned* oldColor);
  virtual unsigned defaultColor() const;  // as it was set, not reduced; here 0

  virtual unsigned allocatedColorMemory(unsigned color) const;  // bytes in busy blocks; here 0
  virtual unsigned freeColorMemory(
      unsigned color) const;  // bytes in free blocks last of it; here 0
  // Adds to the total of busy bytes of one colour and to nothing else; here without effect.
  virtual void adjustColorMemory(unsigned color, int delta);

 private:
  static Allocator* buildTheAllocator();  // gives the same one however often it is called
};

// Memory straight from the system layer. An exhausted system layer fails the assertion "m" before
// null is given; the process goes on, unless YSYS_ASSERT says otherwise (YfAssert__ in ysys.h).
// Every question is answered with 0.
struct YUTILS_EXPORT HostAllocator : Allocator {
  using Allocator::alloc;
  void* alloc(unsigned size) override;
  void free(void* mem) override;  // keeps the memory: the system layer takes none back
  unsigned size(const void* mem) const override;
  unsigned allocatedMemory() const override;
  unsigned internalFree() const override;
  virtual void* alloc(unsigned size, char unused);  // alloc(size)
  void* alloc(unsigned size, int color) { return alloc(size, static_cast<unsigned>(color)); }
};

// Requests cut one behind the other from a pool of fixed size, neither rounded nor aligned; what
// does not fit comes from the system layer, and the pool keeps its rest for what does. The pool is
// taken at the first request and never given back. A copy goes on in the same pool with a cursor of
// its own.
struct YUTILS_EXPORT AllocationLimiter : Allocator {
  AllocationLimiter(unsigned poolSize);

  // theLimiter_, which is null: the library makes no limiter.
  static AllocationLimiter* theLimiter();

  using Allocator::alloc;
  // Null when neither pool nor system layer has memory. While the pool itself cannot be had, a
  // request of up to its size gives null, and the next request asks for the pool again.
  void* alloc(unsigned size) override;
  void free(void* mem) override;  // keeps the memory
  unsigned size(const void* mem) const override;
  unsigned allocatedMemory() const override;
  unsigned internalFree() const override;           // 0: the rest of the pool does not count
  virtual void* alloc(unsigned size, char unused);  // alloc(size)
  void* alloc(unsigned size, int color) { return alloc(size, static_cast<unsigned>(color)); }

 private:
  void init();
  bool acquirePool();

  static AllocationLimiter* theLimiter_;

  unsigned poolSize_;
  char* pool_;      // null until it was taken
  char* poolNext_;  // the first free byte
  char* poolEnd_;
};

// Gives the process allocator a default colour for a scope. Scopes nest in one task; the default
// colour is one for the whole process, so those of different tasks change each other's.
struct YUTILS_EXPORT MemoryColor {
  explicit MemoryColor(unsigned color);
  ~MemoryColor();
  MemoryColor(const MemoryColor&) = default;
  MemoryColor& operator=(const MemoryColor&) = default;

  void reset();  // puts the former colour back, as the destructor does again

 private:
  unsigned oldColor_;
};

}  // namespace Utils
