// SPDX-License-Identifier: MIT
// A process allocator whose requests fail, for tests: from the nth request on, or the nth alone.
//
//   Utils::Testing::FailingAllocator memory;
//   memory.failFrom(2);
//   Utils::Vector<int> numbers;
//   numbers.sizeTo(4);          // the first request is served
//   numbers.sizeTo(8);          // the second is not: size() stays 4
//   assert(memory.failed());
//
// While an object lives, the storage of the process allocator holds an allocator of a derived class
// with the same state: the chunks, the blocks, the totals and every operation are those of the
// process allocator, and blocks that were allocated before are freed as usual. Only alloc() may
// fail.
//
// Requires: one object lives at a time. A program calls theAllocator() anew after the object is
// created or destroyed, and does not use a pointer from before.
//
// Thread safety: one task alone uses the library while an object lives.
#pragma once

#include <new>

#include "utils/sdk/alloc.h"

namespace Utils::Testing {

struct FailingAllocator {
  FailingAllocator() {
    failFrom(0);
    replace<Counting>();
  }
  ~FailingAllocator() { replace<MemoryAllocator>(); }
  FailingAllocator(const FailingAllocator&) = delete;
  FailingAllocator& operator=(const FailingAllocator&) = delete;

  // Let the requests from the nth on, or the nth alone, return null. The next request is the first;
  // 0 lets none fail.
  void failFrom(unsigned nth) { fail(nth, false); }
  void failOnly(unsigned nth) { fail(nth, true); }

  bool failed() const { return asked_ >= nth_ && nth_ != 0; }  // true if the nth was reached
  unsigned asked() const { return asked_; }  // requests since the last failFrom or failOnly

 private:
  struct Counting : MemoryAllocator {
    explicit Counting(const MemoryAllocator& other) : MemoryAllocator(other) {}
    void* alloc(unsigned size, unsigned color) override {
      return isServed() ? MemoryAllocator::alloc(size, color) : nullptr;
    }
    void* alloc(unsigned size) override {
      return isServed() ? MemoryAllocator::alloc(size) : nullptr;
    }
  };
  static_assert(sizeof(Counting) == sizeof(MemoryAllocator), "it lies in the same storage");

  // Builds an A with the state of the process allocator in its storage. A copy of an arena serves
  // from the same chunks and lists; the destructor, which has no effect, is not run.
  template <class A>
  static void replace() {
    auto* process = static_cast<MemoryAllocator*>(Allocator::theAllocator());
    const MemoryAllocator state(*process);
    ::new (static_cast<void*>(process)) A(state);
  }

  static bool isServed() {
    asked_++;
    return nth_ == 0 || (isOnly_ ? asked_ != nth_ : asked_ < nth_);
  }
  static void fail(unsigned nth, bool isOnly) {
    nth_ = nth;
    isOnly_ = isOnly;
    asked_ = 0;
  }

  static inline unsigned nth_ = 0;
  static inline unsigned asked_ = 0;
  static inline bool isOnly_ = false;
};

}  // namespace Utils::Testing
