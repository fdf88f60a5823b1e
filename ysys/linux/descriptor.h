// SPDX-License-Identifier: MIT
// Writes to file descriptors that raise no signal and continue until all bytes are written or the
// system refuses.
//
// Thread safety: may be called from any task, with different or equal descriptors.
#pragma once

#include <signal.h>
#include <stddef.h>

namespace ysys {

// Blocks the signals that a write sends to the calling task: SIGPIPE if a pipe has no reader,
// SIGXFSZ at the limit on file sizes. Restores the signal mask at the end of the scope.
class NoWriteSignal {
 public:
  NoWriteSignal();
  ~NoWriteSignal();
  NoWriteSignal(const NoWriteSignal&) = delete;
  NoWriteSignal& operator=(const NoWriteSignal&) = delete;

  // Removes the signal that a failed write raised. Requires: `errno` is that of the write. A signal
  // that was pending before stays pending.
  void takeBack();

 private:
  sigset_t before_;
  sigset_t pendingBefore_;
};

// The action of a write to a non-blocking pipe that is full.
enum class WhenFull { WAIT, GIVE_UP };

// Returns true if a failed write can be tried again, by its `errno`. Waits for room first if
// `whenFull` is WAIT.
bool canWriteAgain(int descriptor, WhenFull whenFull);

// Writes until all bytes are written or the system refuses; returns the number of bytes written. A
// pipe without a reader and the limit on file sizes are refusals that raise no signal.
size_t writeAll(int descriptor, const void* bytes, size_t count, WhenFull whenFull);

// Does the same without the cost of blocking signals. Requires: the write can raise no signal, or a
// NoWriteSignal is active.
size_t writeUnguarded(int descriptor, const void* bytes, size_t count, WhenFull whenFull);

}  // namespace ysys
