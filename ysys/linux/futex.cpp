// SPDX-License-Identifier: MIT
// Sleeping and waking by the futex system call.
//
// A 64-bit system has one such call, whose time structure has two 64-bit members. A 32-bit system
// has a second call for that structure, which kernels before 5.1 and some system call filters
// refuse. Then the first call is used, with 32-bit seconds: a later deadline (68 years after the
// start of the machine) is cut, and the caller of futexSleep tests its word and sleeps again.
#include "ysys/futex.h"

#include <limits.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "ysys/caller_state.h"
#include "ysys/stderr_report.h"

namespace ysys {

constinit unsigned _spins = 0;

namespace {

constexpr unsigned SPINS = 100;
constexpr double LIMITLESS_SECONDS = 1e9;
constexpr int64_t SECOND = 1'000'000'000;

struct KernelTime {
  int64_t seconds;
  int64_t nanoseconds;
};

// These return false if the kernel refuses; `errno` is then the reason.
bool futexCall(long call, const void* word, int operation, uint32_t value, const void* limit) {
  return syscall(call, word, operation, value, limit, nullptr, FUTEX_BITSET_MATCH_ANY) >= 0;
}

#ifdef SYS_futex_time64
constinit std::atomic<bool> _hasLongTime{true};

struct ShortKernelTime {
  int32_t seconds;
  int32_t nanoseconds;
};

bool shortFutex(const void* word, int operation, uint32_t value, const KernelTime* limit) {
  if (limit == nullptr) return futexCall(SYS_futex, word, operation, value, nullptr);
  const bool isCut = limit->seconds > INT32_MAX;
  const ShortKernelTime end = {static_cast<int32_t>(isCut ? INT32_MAX : limit->seconds),
                               static_cast<int32_t>(limit->nanoseconds)};
  return futexCall(SYS_futex, word, operation, value, &end) || (isCut && errno == ETIMEDOUT);
}

bool futex(const void* word, int operation, uint32_t value, const KernelTime* limit) {
  if (_hasLongTime.load(std::memory_order_relaxed)) {
    if (futexCall(SYS_futex_time64, word, operation, value, limit)) return true;
    if (errno != ENOSYS && errno != EPERM) return false;  // filters use either
    _hasLongTime.store(false, std::memory_order_relaxed);
  }
  return shortFutex(word, operation, value, limit);
}
#else
bool futex(const void* word, int operation, uint32_t value, const KernelTime* limit) {
  return futexCall(SYS_futex, word, operation, value, limit);
}
#endif

__attribute__((constructor)) void countProcessors() {
  cpu_set_t usable;
  const bool known = sched_getaffinity(0, sizeof usable, &usable) == 0;
  _spins = known && CPU_COUNT(&usable) == 1 ? 0 : SPINS;
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
  const ErrnoSaver saver;
  const KernelTime end = {deadline / SECOND, deadline % SECOND};
  const KernelTime* limit = deadline == FOREVER ? nullptr : &end;
  if (futex(word, FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, seen, limit)) return true;
  if (errno == ETIMEDOUT) return false;
  if (errno != EAGAIN && errno != EINTR) {
    const NumberText error(static_cast<unsigned>(errno), 10);
    reportAndStop({"ysys: the system cannot put a task to sleep, error ", error.text(), "\n"});
  }
  return true;
}

void futexWake(const void* word, int count) {
  const ErrnoSaver saver;
  futex(word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, static_cast<uint32_t>(count), nullptr);
}

}  // namespace ysys
