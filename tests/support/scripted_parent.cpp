// SPDX-License-Identifier: MIT
#include "support/scripted_parent.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

ScriptedParent::ScriptedParent() {
  void* range =
      mmap(nullptr, RANGE + GUARD, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (range == MAP_FAILED || mprotect(range, RANGE, PROT_READ | PROT_WRITE) != 0) std::abort();
  base_ = next_ = static_cast<char*>(range);
}

ScriptedParent::~ScriptedParent() { munmap(base_, RANGE + GUARD); }

void* ScriptedParent::alloc(unsigned size) {
  sizes_.push_back(size);
  asked_++;
  const bool fails = (failFrom_ != 0 && asked_ >= failFrom_) ||
                     size > static_cast<std::size_t>(base_ + RANGE - next_);
  chunks_.push_back(fails ? nullptr : next_);
  if (fails) return nullptr;
  std::memset(next_, 0xa5, std::min(size, 4096u));  // nobody has promised cleared memory
  next_ += size;
  return chunks_.back();
}

void ScriptedParent::free(void*) { freed_++; }
