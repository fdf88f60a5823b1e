// SPDX-License-Identifier: MIT
// The process allocator, made to fail from the nth request on, or at the nth.
//
// While one lives, the process allocator answers as this class does: its table of virtual
// operations is exchanged, which is all that tells the two apart, since this class adds no data.
// One at a time.
#pragma once

#include <cstring>

#include "utils/sdk/alloc.h"

struct FailingAllocator {
  FailingAllocator() { swapTables(); }
  ~FailingAllocator() {
    failFrom(0);
    swapTables();
  }
  FailingAllocator(const FailingAllocator&) = delete;
  FailingAllocator& operator=(const FailingAllocator&) = delete;

  // Requests from the nth on, or that one alone, counted from 1 and from now, give null; 0 for
  // none.
  void failFrom(unsigned nth) { fail(nth, false); }
  void failOnly(unsigned nth) { fail(nth, true); }
  bool failed() const { return Counting::failed(); }  // whether one has since then
  unsigned asked() const { return Counting::asked_; }

 private:
  struct Counting : Utils::MemoryAllocator {
    void* alloc(unsigned size, unsigned color) override {
      asked_++;
      return fails() ? nullptr : MemoryAllocator::alloc(size, color);
    }
    void* alloc(unsigned size) override {
      asked_++;
      return fails() ? nullptr : MemoryAllocator::alloc(size);
    }
    static bool failed() { return failFrom_ != 0 && asked_ >= failFrom_; }
    static bool fails() { return failed() && (!only_ || asked_ == failFrom_); }

    static inline unsigned failFrom_ = 0;
    static inline unsigned asked_ = 0;
    static inline bool only_ = false;
  };
  static_assert(sizeof(Counting) == sizeof(Utils::MemoryAllocator));

  void fail(unsigned nth, bool only) {
    Counting::failFrom_ = nth;
    Counting::only_ = only;
    Counting::asked_ = 0;
  }

  void swapTables() {
    char kept[sizeof(void*)];
    void* process = Utils::Allocator::theAllocator();
    std::memcpy(kept, process, sizeof kept);
    std::memcpy(process, static_cast<void*>(&counting_), sizeof kept);
    std::memcpy(static_cast<void*>(&counting_), kept, sizeof kept);
  }

  Counting counting_;
};
