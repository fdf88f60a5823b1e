// SPDX-License-Identifier: MIT
// The allocator that a memory program measures.
//
// The memory programs are compiled once for each competitor, from the same sources with the same
// flags. BENCH_WHO is its name. With BENCH_YUTILS it is the library's process allocator, fetched at
// each call as a program does; with BENCH_ARENA it is an arena allocator of that class, set up and
// fetched in the same way. Without either it is malloc; a peer replaces it in its process because
// it is linked before the C library. A flag keeps the compiler from optimising malloc and free.
#pragma once

#if defined(BENCH_YUTILS)
#include "utils/sdk/allocator.h"
#elif defined(BENCH_ARENA)
#include "utils/sdk/alloc.h"
#include "utils/sdk/membank.h"
#else
#include <cstdlib>
#include <string_view>
#endif

namespace Bench {

constexpr char WHO[] = BENCH_WHO;

#if defined(BENCH_YUTILS)
constexpr bool REPLACES_MALLOC = false;
inline void* take(unsigned size) { return Utils::Allocator::theAllocator()->alloc(size); }
inline void give(void* mem) { Utils::Allocator::theAllocator()->free(mem); }
#elif defined(BENCH_ARENA)
constexpr bool REPLACES_MALLOC = false;
Utils::Allocator* makeArena();  // on the system layer, with 20 MiB free
inline Utils::Allocator* theArena() {
  static Utils::Allocator* arena = nullptr;
  if (!arena) arena = makeArena();
  return arena;
}
inline void* take(unsigned size) { return theArena()->alloc(size); }
inline void give(void* mem) { theArena()->free(mem); }
#else
constexpr bool REPLACES_MALLOC = std::string_view(WHO) != "glibc";
inline void* take(unsigned size) { return std::malloc(size); }
inline void give(void* mem) { std::free(mem); }
#endif

// Stops the program if malloc is not that of the competitor that the program is named after. For
// the library it must be that of the C library.
void requireCompetitor();

}  // namespace Bench
