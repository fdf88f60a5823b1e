// SPDX-License-Identifier: MIT
// The lock that guards the system layer's own tables.
//
// Not recursive, knows no holder, and has no handle. It is held for a few steps and never while
// the process is stopped, forked or put to sleep for another reason. The word is 0 when it is free,
// 1 when a task holds it, 2 when others may sleep for it too.
//
// The child of a fork may find it held by a task that it does not have: `mend` frees it there. So
// what it guards is changed in an order in which every state between two steps is a good one.
#pragma once

#include <stdint.h>

#include <atomic>

#include "ysys/fork.h"
#include "ysys/futex.h"

namespace ysys {

// For std::lock_guard.
class InnerLock {
 public:
  constexpr InnerLock() = default;
  InnerLock(const InnerLock&) = delete;
  InnerLock& operator=(const InnerLock&) = delete;

  void lock() {
    uint32_t nobody = 0;
    if (!word_.compare_exchange_strong(nobody, 1, std::memory_order_acquire)) lockContended();
  }
  void unlock() {
    if (word_.exchange(0, std::memory_order_release) == 2) futexWake(&word_, 1);
  }
  void mend() { word_.store(0, std::memory_order_relaxed); }

 private:
  void lockContended() {
    mendNewChild();
    while (word_.exchange(2, std::memory_order_acquire) != 0) futexSleep(&word_, 2, FOREVER);
  }

  std::atomic<uint32_t> word_{0};
};

}  // namespace ysys
