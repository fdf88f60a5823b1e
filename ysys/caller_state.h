// SPDX-License-Identifier: MIT
// The state of the caller that an operation of the system layer preserves: `errno`, and whether the
// calling task can be cancelled.
#pragma once

#include "utils/sdk/base/errno_saver.h"

namespace ysys {

using Utils::ErrnoSaver;

// Defers the cancellation of the calling task (pthread_cancel) to the end of the scope. A task that
// is cancelled in a system call would leave its operation half done, and the destructors of its
// callers would not run.
class NoCancellation {
 public:
  NoCancellation();
  ~NoCancellation();
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;

 private:
  int before_;
};

}  // namespace ysys
