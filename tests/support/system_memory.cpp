// SPDX-License-Identifier: MIT
#include "support/system_memory.h"

#include <dlfcn.h>

#include <cstdlib>

#include "utils/sdk/allocator.h"
#include "utils/sdk/ysys.h"

unsigned SystemMemory::inits_ = 0;
std::vector<unsigned> SystemMemory::sizes_;
unsigned SystemMemory::failFrom_ = 0;
bool SystemMemory::wasReset_ = false;

TakenMemory::TakenMemory() {
  SystemMemory::reset();
  SystemMemory::failFrom_ = 1;
  for (unsigned size = 20000000; size > 0; size /= 2) {
    while (void* mem = Utils::Allocator::theAllocator()->alloc(size)) blocks_.push_back(mem);
  }
}

void TakenMemory::giveBack() {
  SystemMemory::failFrom_ = 0;
  for (void* mem : blocks_) Utils::Allocator::theAllocator()->free(mem);
  blocks_.clear();
}

namespace {

template <class Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] void YIF_MemInit(unsigned int flags) noexcept {
  SystemMemory::inits_++;
  static auto* const real = next(&YIF_MemInit, "YIF_MemInit");
  real(flags);
}

[[gnu::visibility("default")]] void* YIF_MemAlloc(unsigned int size) noexcept {
  SystemMemory::sizes_.push_back(size);
  if (!SystemMemory::wasReset_ && std::getenv("SYSTEM_MEMORY_FAILS_AT_LOAD")) return nullptr;
  const auto asked = SystemMemory::sizes_.size();
  if (SystemMemory::failFrom_ != 0 && asked >= SystemMemory::failFrom_) return nullptr;
  static auto* const real = next(&YIF_MemAlloc, "YIF_MemAlloc");
  return real(size);
}
}
