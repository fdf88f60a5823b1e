// SPDX-License-Identifier: MIT
// The time of day, for people. Nothing measures or waits by it: waits use the monotonic clock,
// which cannot be set.
//
// A double holds today's 1.8 * 10^9 seconds in steps of a quarter of a microsecond.
//
// Thread safety: may be called from any task.
#include "ysys/linux/posix.h"

#include <time.h>

#include "utils/sdk/ysys.h"

double YIF_CurrentTime() noexcept {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}
