// SPDX-License-Identifier: MIT
// Sleeping until a word in memory changes.
//
// The bottom of locks and events: a task that finds no way on looks again for a moment, then sleeps
// in the kernel until another one wakes it. It is not a lock: the meaning of the word is its
// owner's.
//
// Safe from any task; `errno` is kept. The word lies in memory that is never unmapped, so a wake
// that comes late, when the word already serves something else, wakes for nothing and does no harm.
#pragma once

#include <stdint.h>

namespace ysys {

// The end of a wait: nanoseconds of the monotonic clock, or one of the two ends of the scale.
using Deadline = int64_t;
constexpr Deadline AT_ONCE = 0;
constexpr Deadline FOREVER = INT64_MAX;

// AT_ONCE for 0, a negative value and a NaN; FOREVER from 10^9 seconds (31 years) on.
Deadline deadlineAfter(double seconds);

// Sleeps while the word is `seen`. True when it may have changed, false when the deadline has
// passed.
bool futexSleep(const void* word, uint32_t seen, Deadline deadline);

void futexWake(const void* word, int count);

// How often a task looks again before it sleeps: 0 where there is one processor only.
extern unsigned _spins;

inline void pauseProcessor() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  __asm__ __volatile__("yield");
#endif
}

// Calls `pass` until it gives true or the looks are used up; gives what it gave last.
template <class Pass>
bool spinUntil(Pass pass) {
  for (unsigned i = 0; i < _spins; ++i) {
    pauseProcessor();
    if (pass()) return true;
  }
  return false;
}

}  // namespace ysys
