// SPDX-License-Identifier: MIT
// The small allocators, and the interface's operations for a source without colours.
//
// The process allocator and the library's global operators are in process_allocator.cpp.
#include "utils/sdk/allocator.h"

#include "utils/sdk/memory/heap_moments.h"
#include "utils/sdk/ysys.h"

namespace Utils {

namespace {

constexpr char SOURCE[] = "utils/sdk/allocator";

}  // namespace

// --- Allocator: a source without colours ---

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
  samplePeak(oldColor_);
}

MemoryColor::~MemoryColor() { reset(); }

void MemoryColor::reset() {
  samplePeak(Allocator::theAllocator()->defaultColor());
  Allocator::theAllocator()->setDefaultColor(oldColor_, nullptr);
}

}  // namespace Utils
