// SPDX-License-Identifier: MIT
// The id of the calling task, for the families that compare it.
//
// It is computed once for each task and cached in thread-local storage of the initial-exec model,
// so that a read is one instruction. Never 0, below 2^31. See task.cpp.
#pragma once

namespace ysys {

constexpr unsigned NUMBER_BITS = 22;  // of the thread number in an id; the rest is the generation

extern constinit thread_local unsigned _taskId __attribute__((tls_model("initial-exec")));

// Computes the id of the calling task and caches it.
unsigned makeTaskId();

inline unsigned taskId() {
  const unsigned id = _taskId;
  return __builtin_expect(id != 0, 1) ? id : makeTaskId();
}

}  // namespace ysys
