// SPDX-License-Identifier: MIT
// One misuse of memory, for the tools that check memory: `misuse CASE SOURCE`.
//
// The source is the process allocator, or an arena of the program's own. Each case that a tool
// reports stands on a line of its own, which the report names. Ends with status 0 if nothing stops
// the process.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "utils/sdk/alloc.h"
#include "utils/sdk/membank.h"
#include "utils/sdk/string.h"

namespace {

using Utils::Allocator;

// A parent of the program's own: blocks of the runtime library's heap.
struct OnHeap : Allocator {
  using Allocator::alloc;
  void* alloc(unsigned size) override {
    return chunks_[count_++] = std::aligned_alloc(16, (std::size_t{size} + 15) / 16 * 16);
  }
  void free(void*) override {}
  unsigned size(const void*) const override { return 0; }
  unsigned allocatedMemory() const override { return 0; }
  unsigned internalFree() const override { return 0; }

  void* chunks_[32];
  unsigned count_ = 0;
};

// The arenas are never destroyed: a tool would forget their blocks before it looks for lost ones.
Allocator* sourceNamed(const char* name) {
  static OnHeap heap;
  if (std::strcmp(name, "bank") == 0) return new Utils::MemoryBank;
  if (std::strcmp(name, "arena") == 0) return new Utils::MemoryAllocator;
  if (std::strcmp(name, "heap") == 0) return new Utils::MemoryBank(&heap);
  return Allocator::theAllocator();
}

volatile char* fill(void* mem, unsigned size) {
  return static_cast<char*>(std::memset(mem, 1, size));
}

// A list of all blocks that are kept, in memory of the process allocator and of the heap in turn.
struct Kept {
  Kept* next_;
  volatile void* block_;
};
Kept* _first;

void keep(volatile void* block) {
  for (void* mem : {Allocator::theAllocator()->alloc(sizeof(Kept)), std::malloc(sizeof(Kept))})
    _first = ::new (mem) Kept{_first, block};
}

void useWell(Allocator* m) {
  for (unsigned size = 0; size < 2000; size++) {
    void* mem = m->alloc(size, size);
    fill(mem, size);
    if (size % 3 != 0) {
      m->free(mem);
    } else {
      keep(mem);
    }
  }
}

}  // namespace

int main(int, char** arguments) {
  Allocator* m = sourceNamed(arguments[2]);
  volatile char* small = fill(m->alloc(100), 100);
  volatile char* large = fill(m->alloc(5000), 5000);
  volatile char* blank = static_cast<char*>(m->alloc(100));
  for (volatile char* block : {small, large, blank}) keep(block);
  volatile char sum = 0;
  switch (std::atoi(arguments[1])) {
    case 0:
      useWell(m);
      break;
    case 1:
      small[100] = 'x';
      break;
    case 2:
      large[5000] = 'x';
      break;
    case 3:
      small[-1] = 'x';
      break;
    case 4:
      m->free(const_cast<char*>(small));
      small[0] = 'x';
      break;
    case 5:
      m->free(const_cast<char*>(small));
      sum = small[50];
      break;
    case 6:
      m->free(const_cast<char*>(large));
      large[2000] = 'x';
      break;
    case 7:
      m->free(const_cast<char*>(small));
      m->free(const_cast<char*>(small));
      break;
    case 8:
      if (blank[10] == 3) std::puts("three");
      break;
    case 9:
      m->free(const_cast<char*>(small + 8));
      break;
    case 10: {
      Utils::String text("some text that is longer");
      const char* kept = text;
      text = Utils::String("other");
      sum = kept[3];
      break;
    }
    case 12:  // a freed block is held back
      m->free(const_cast<char*>(small));
      blank = static_cast<char*>(m->alloc(100));
      keep(blank);
      if (blank == small) std::puts("used again");
      break;
    case 11:
      fill(m->alloc(77), 77);
      break;
  }
  return sum & 0;
}
