// SPDX-License-Identifier: MIT
#include "support/scripted_parent.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

ScriptedParent::ScriptedParent(std::size_t range) : range_(range) {
  void* map = mmap(nullptr, range + 2 * GUARD, PROT_NONE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  base_ = next_ = static_cast<char*>(map) + GUARD;
  if (map == MAP_FAILED || mprotect(base_, range, PROT_READ | PROT_WRITE) != 0) std::abort();
}

ScriptedParent::~ScriptedParent() { munmap(base_ - GUARD, range_ + 2 * GUARD); }

void* ScriptedParent::alloc(unsigned size) {
  sizes_.push_back(size);
  const bool fails = fails_ || size > static_cast<std::size_t>(base_ + range_ - next_);
  chunks_.push_back(fails ? nullptr : next_);
  if (fails) return nullptr;
  std::memset(next_, 0xa5, std::min(size, 4096u));  // nobody has promised cleared memory
  next_ += size;
  return chunks_.back();
}

void ScriptedParent::free(void*) { freed_++; }
