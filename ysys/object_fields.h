// SPDX-License-Identifier: MIT
// The fields of locks and events, apart from their operations: lock.cpp and event.cpp derive from
// them, and layout.cpp describes them to a debugger.
//
// Thread safety: as stated in lock.cpp and event.cpp, which also show the values.
#pragma once

#include <stdint.h>

#include <atomic>

namespace ysys {

struct LockFields {
  static constexpr uint32_t SLEEPERS = 0x80000000u;

  std::atomic<uint32_t> word_{0};
  std::atomic<uint32_t> again_{0};
};

struct EventFields {
  static_assert(__atomic_always_lock_free(sizeof(uint64_t), nullptr));
  std::atomic<uint64_t> state_{0};
  bool manualReset_ = false;
  bool newcomersPass_ = false;
  bool isTicket_ = false;
  std::atomic<uint32_t> taker_{0};  // of a cooperative event: the last task released, 0 after a set
};

}  // namespace ysys
