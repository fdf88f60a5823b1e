// SPDX-License-Identifier: MIT
// The process allocator, and the library's global operators, which allocate from it.
//
// The process allocator lies in static storage that no destructor is registered for: static objects
// of the library and of its users free memory when the process ends, in any order, and must find it
// whole. It is built at the first use, with 20 MiB taken from the system and kept as one free
// block. If the system has no 20 MiB, which is no error, each chunk is taken when it is needed.
//
// The global operators serve the library's own code alone: they are not visible outside it. They
// return null if there is no memory, which a plain new expression does not test. Code of the
// library therefore calls theAllocator() itself or creates objects of classes whose operator new is
// noexcept.
//
// Thread safety: the caller serialises, the first use included.
#include <new>

#include "utils/sdk/alloc.h"
#include "utils/sdk/allocator.h"
#include "utils/sdk/base/late_immortal.h"
#include "utils/sdk/base/layout.h"
#include "utils/sdk/memory/gaps.h"
#include "utils/sdk/memory/heap_moments.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/ysys.h"

namespace Utils {

namespace {

constexpr unsigned RESERVATION = 0x1400000;

constinit LateImmortal<HostAllocator> _host;
constinit LateImmortal<MemoryAllocator> _arena;

void reserve(void* arena) {
  Allocator* allocator = static_cast<MemoryAllocator*>(arena);
  if (void* reserved = allocator->alloc(RESERVATION)) allocator->free(reserved);
}

}  // namespace

DEBUGGER_ROOT(yutils_root_processArena, _arena);

// Requires: nothing called from here uses the global operators, which call this function.
Allocator* Allocator::buildTheAllocator() {
  static MemoryAllocator* built = nullptr;
  if (built) return built;
  YIF_MemInit(0);
  MemoryAllocator* arena = &_arena.make(&_host.make());
  noteGapsOf(arena);
  YfWithoutExhaustionReport(reserve, arena);
  setSampledArena(arena);
  return built = arena;
}

// Forces an exported out-of-line copy of the inline function, for callers that look it up by its
// symbol.
[[gnu::used]] static Allocator* (*const _accessor)() = &Allocator::theAllocator;

}  // namespace Utils

// --- The library's global operators ---

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (size > 0xffffffffu) return nullptr;
  return Utils::Allocator::theAllocator()->alloc(static_cast<unsigned>(size));
}

void operator delete(void* mem) noexcept { Utils::Allocator::theAllocator()->free(mem); }

void* operator new(std::size_t size) { return ::operator new(size, std::nothrow); }

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return ::operator new(size, std::nothrow);
}

void* operator new[](std::size_t size) { return ::operator new(size, std::nothrow); }

void operator delete(void* mem, const std::nothrow_t&) noexcept { ::operator delete(mem); }

void operator delete(void* mem, std::size_t) noexcept { ::operator delete(mem); }

void operator delete[](void* mem) noexcept { ::operator delete(mem); }

void operator delete[](void* mem, const std::nothrow_t&) noexcept { ::operator delete(mem); }

void operator delete[](void* mem, std::size_t) noexcept { ::operator delete(mem); }
