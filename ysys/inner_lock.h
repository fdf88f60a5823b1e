// SPDX-License-Identifier: MIT
// The lock that guards the system layer's own tables.
//
// Not recursive, has no owner and no handle. It is held for a few steps and never while the process
// is stopped, forked or put to sleep for another reason. The word is 0 if the lock is free, 1 if a
// task holds it, 2 if other tasks may also sleep for it.
//
// In the child of a fork a task that does not exist there may hold it: `repair` frees it. So the
// data that it guards is changed in an order in which every intermediate state is valid.
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
  void repair() { word_.store(0, std::memory_order_relaxed); }

 private:
  void lockContended() {
    repairNewChild();
    while (word_.exchange(2, std::memory_order_acquire) != 0) futexSleep(&word_, 2, FOREVER);
  }

  std::atomic<uint32_t> word_{0};
};

}  // namespace ysys
