// SPDX-License-Identifier: MIT
// The small allocators, the process's allocator, and the library's global operators.
//
// The process allocator lies in static storage that no destructor is registered for: static objects
// of the library and of its users free memory when the process ends, in whatever order, and must
// find it whole. It is built at the first use, with 20 MiB taken from the system and kept as one
// free block; without them, which is no error, each chunk is taken when it is needed.
//
// The global operators serve the library's own code alone, they are not visible outside. They give
// null where there is no memory, which a plain new expression does not look for: code of the
// library calls theAllocator() itself or makes objects of classes whose operator new is noexcept.
#include "utils/sdk/allocator.h"

#include <new>

#include "utils/sdk/alloc.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/ysys.h"

namespace Utils {

namespace {

constexpr char SOURCE[] = "utils/sdk/allocator";
constexpr unsigned RESERVATION = 0x1400000;

alignas(HostAllocator) unsigned char _host[sizeof(HostAllocator)];
alignas(MemoryAllocator) unsigned char _arena[sizeof(MemoryAllocator)];

void reserve(void* arena) {
  Allocator* allocator = static_cast<MemoryAllocator*>(arena);
  if (void* reserved = allocator->alloc(RESERVATION)) allocator->free(reserved);
}

}  // namespace

// --- Allocator: the process's own, and a source without colours ---

// Nothing called from here may use the global operators: they would come back here.
Allocator* Allocator::buildTheAllocator() {
  static MemoryAllocator* built = nullptr;
  if (built) return built;
  YIF_MemInit(0);
  HostAllocator* host = ::new (_host) HostAllocator;
  MemoryAllocator* arena = ::new (_arena) MemoryAllocator(host);
  YfWithoutExhaustionReport(reserve, arena);
  return built = arena;
}

// Also there for who finds it by its symbol.
[[gnu::used]] static Allocator* (*const _accessor)() = &Allocator::theAllocator;

void* Allocator::alloc(unsigned size, unsigned) { return alloc(size); }

unsigned Allocator::color(const void*) const { return 0; }

unsigned Allocator::setColor(void*, unsigned) { return RESULT_NOT_IMPLEMENTED; }

bool Allocator::valid(const void*) const { return false; }

unsigned Allocator::setDefaultColor(unsigned, unsigned*) { return RESULT_NOT_IMPLEMENTED; }

unsigned Allocator::defaultColor() const { return 0; }

unsigned Allocator::allocatedColorMemory(unsigned) const { return 0; }

unsigned Allocator::freeColorMemory(unsigned) const { return 0; }

void Allocator::adjustColorMemory(unsigned, int) {}

// --- HostAllocator ---

void* HostAllocator::alloc(unsigned size) {
  void* m = YIF_MemAlloc(size);
  if (!m) YfAssert__("m", SOURCE, __LINE__);
  return m;
}

void* HostAllocator::alloc(unsigned size, char) { return alloc(size); }

void HostAllocator::free(void*) {}

unsigned HostAllocator::size(const void*) const { return 0; }

unsigned HostAllocator::allocatedMemory() const { return 0; }

unsigned HostAllocator::internalFree() const { return 0; }

// --- AllocationLimiter ---

AllocationLimiter* AllocationLimiter::theLimiter_ = nullptr;

AllocationLimiter::AllocationLimiter(unsigned poolSize) : poolSize_(poolSize) { init(); }

void AllocationLimiter::init() { pool_ = poolNext_ = poolEnd_ = nullptr; }

AllocationLimiter* AllocationLimiter::theLimiter() { return theLimiter_; }

bool AllocationLimiter::acquirePool() {
  pool_ = static_cast<char*>(YIF_MemAlloc(poolSize_));
  if (!pool_) return false;
  poolNext_ = pool_;
  poolEnd_ = pool_ + poolSize_;
  return true;
}

void* AllocationLimiter::alloc(unsigned size) {
  if (!pool_ && !acquirePool()) return size <= poolSize_ ? nullptr : YIF_MemAlloc(size);
  if (size > static_cast<std::size_t>(poolEnd_ - poolNext_)) return YIF_MemAlloc(size);
  char* mem = poolNext_;
  poolNext_ += size;
  return mem;
}

void* AllocationLimiter::alloc(unsigned size, char) { return alloc(size); }

void AllocationLimiter::free(void*) {}

unsigned AllocationLimiter::size(const void*) const { return 0; }

unsigned AllocationLimiter::allocatedMemory() const { return 0; }

unsigned AllocationLimiter::internalFree() const { return 0; }

// --- MemoryColor ---

MemoryColor::MemoryColor(unsigned color) {
  Allocator::theAllocator()->setDefaultColor(color, &oldColor_);
}

MemoryColor::~MemoryColor() { reset(); }

void MemoryColor::reset() { Allocator::theAllocator()->setDefaultColor(oldColor_, nullptr); }

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
