// task.h: the id of the calling task, for the families that compare it.
//
// The kernel's number of the thread, asked once a task and kept in thread-local storage of the
// initial-exec kind, so that reading it is one instruction. Never 0, below 2^22.
#pragma once

namespace ysys {

extern constinit thread_local unsigned _taskId __attribute__((tls_model("initial-exec")));

// Asks the kernel and keeps the answer.
unsigned refreshTaskId();

inline unsigned taskId() {
  const unsigned id = _taskId;
  return __builtin_expect(id != 0, 1) ? id : refreshTaskId();
}

}  // namespace ysys
