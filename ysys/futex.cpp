// futex.cpp: the kernel's side of sleeping and waking. See futex.h.
//
// The kernel's own time structure has two 64-bit members on every pointer size, for which 32-bit
// systems have a system call of their own.
#include "ysys/futex.h"

#include <limits.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "ysys/voice.h"

namespace ysys {

constinit unsigned _looks = 0;

namespace {

constexpr unsigned LOOKS = 100;
constexpr double LIMITLESS_SECONDS = 1e9;
constexpr int64_t SECOND = 1'000'000'000;

#ifdef SYS_futex_time64
constexpr long FUTEX_CALL = SYS_futex_time64;
#else
constexpr long FUTEX_CALL = SYS_futex;
#endif

struct KernelTime {
  int64_t seconds;
  int64_t nanoseconds;
};

__attribute__((constructor)) void countProcessors() {
  cpu_set_t usable;
  const bool known = sched_getaffinity(0, sizeof usable, &usable) == 0;
  _looks = known && CPU_COUNT(&usable) == 1 ? 0 : LOOKS;
}

}  // namespace

Deadline deadlineAfter(double seconds) {
  if (!(seconds > 0)) return AT_ONCE;
  if (seconds >= LIMITLESS_SECONDS) return FOREVER;
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * SECOND + now.tv_nsec + static_cast<int64_t>(seconds * SECOND);
}

bool futexSleep(const void* word, uint32_t seen, Deadline deadline) {
  const KeepErrno keep;
  const KernelTime end = {deadline / SECOND, deadline % SECOND};
  const KernelTime* limit = deadline == FOREVER ? nullptr : &end;
  const int wait = FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG;
  if (syscall(FUTEX_CALL, word, wait, seen, limit, nullptr, FUTEX_BITSET_MATCH_ANY) == 0)
    return true;
  if (errno == ETIMEDOUT) return false;
  if (errno != EAGAIN && errno != EINTR) {
    const NumberText error(static_cast<unsigned>(errno), 10);
    sayAndStop({"ysys: the system cannot put a task to sleep, error ", error.text(), "\n"});
  }
  return true;
}

void futexWake(const void* word, int count) {
  const KeepErrno keep;
  syscall(FUTEX_CALL, word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count, nullptr, nullptr, 0);
}

}  // namespace ysys
