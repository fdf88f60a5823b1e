// memory_competitor.h: the allocator that a memory program measures.
//
// The memory programs are compiled once for each competitor, from the same sources with the same
// flags. BENCH_WHO is its name. With BENCH_YUTILS it is the library's process allocator, asked for
// anew at each call as a program does; without, it is malloc, which a peer replaces in its process
// by being linked before the C library. The compiler is told to know nothing of malloc and free.
#pragma once

#ifdef BENCH_YUTILS
#include "utils/sdk/allocator.h"
#else
#include <cstdlib>
#endif

namespace Bench {

constexpr char WHO[] = BENCH_WHO;

#ifdef BENCH_YUTILS
inline void* take(unsigned size) { return Utils::Allocator::theAllocator()->alloc(size); }
inline void give(void* mem) { Utils::Allocator::theAllocator()->free(mem); }
#else
inline void* take(unsigned size) { return std::malloc(size); }
inline void give(void* mem) { std::free(mem); }
#endif

// Stops the program when malloc is not that of the competitor it is named after. For the library,
// malloc has to be that of the C library.
void requireCompetitor();

}  // namespace Bench
