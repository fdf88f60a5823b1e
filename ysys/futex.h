// SPDX-License-Identifier: MIT
// Sleeping until a word in memory changes.
//
// The base of locks and events: a task that cannot proceed spins for a moment, then sleeps in the
// kernel until another task wakes it. Not a lock: the owner of the word defines its meaning.
//
// The word is in memory that is never unmapped, so a late wake, when the word already has another
// use, only causes a spurious wake-up.
//
// Thread safety: all functions may be called from any task. `errno` is preserved.
#pragma once

#include <stdint.h>

namespace ysys {

// The end of a wait: nanoseconds of the monotonic clock, or one of the two ends of the scale.
using Deadline = int64_t;
constexpr Deadline AT_ONCE = 0;
constexpr Deadline FOREVER = INT64_MAX;

// Returns AT_ONCE for 0, a negative value and a NaN; FOREVER from 10^9 seconds (31 years) on.
Deadline deadlineAfter(double seconds);

// Sleeps while the word is `seen`. Returns true if it may have changed, false if the deadline has
// passed.
bool futexSleep(const void* word, uint32_t seen, Deadline deadline);

void futexWake(const void* word, int count);

// How often a task spins before it sleeps: 0 if there is only one processor.
extern unsigned _spins;

inline void pauseProcessor() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  __asm__ __volatile__("yield");
#endif
}

// Calls `pass` until it returns true, at most _spins times. Returns its last result.
template <class Pass>
bool spinUntil(Pass pass) {
  for (unsigned i = 0; i < _spins; ++i) {
    pauseProcessor();
    if (pass()) return true;
  }
  return false;
}

}  // namespace ysys
