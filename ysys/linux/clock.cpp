// SPDX-License-Identifier: MIT
// The time of day, for people. Nothing measures or waits by it; waits run on the
// monotonic clock, which nobody sets. May be called from any task.
//
// A double holds today's 1.8 * 10^9 seconds with a step of a quarter of a microsecond.
#include "ysys/linux/posix.h"

#include <time.h>

#include "utils/sdk/ysys.h"

double YIF_CurrentTime() noexcept {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}
