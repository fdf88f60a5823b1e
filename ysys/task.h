// SPDX-License-Identifier: MIT
// The id of the calling task, for the families that compare it.
//
// Asked once a task and kept in thread-local storage of the initial-exec kind, so that reading it
// is one instruction. Never 0, below 2^31. See task.cpp.
#pragma once

namespace ysys {

extern constinit thread_local unsigned _taskId __attribute__((tls_model("initial-exec")));

// Makes the id and keeps it.
unsigned makeTaskId();

inline unsigned taskId() {
  const unsigned id = _taskId;
  return __builtin_expect(id != 0, 1) ? id : makeTaskId();
}

}  // namespace ysys
