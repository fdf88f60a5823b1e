// task.cpp: the identity of the calling task.
//
// Both ids are the kernel's number of the thread: it differs among all living threads of the
// machine, tools show it, and it is never -1. A forked child is a new task: the fork handler asks
// again for it. Safe from any task; nothing is set up before the first call.
#include "ysys/task.h"

#include <unistd.h>

#include "utils/sdk/ysys.h"

namespace ysys {

constinit thread_local unsigned _taskId __attribute__((tls_model("initial-exec"))) = 0;

unsigned refreshTaskId() { return _taskId = static_cast<unsigned>(gettid()); }

}  // namespace ysys

unsigned long YIF_CurrentTaskId() noexcept { return ysys::taskId(); }

unsigned long YIF_CurrentTaskIdCoop() noexcept { return ysys::taskId(); }
