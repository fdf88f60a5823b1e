// SPDX-License-Identifier: MIT
// Writes to file descriptors that end with all bytes written or with a refusal, without a signal.
//
// Thread safety: may be used from any task, with different or equal descriptors.
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

  // After a write that failed, `errno` still as the write left it: removes the signal that the
  // write raised. A signal that was pending before stays pending.
  void takeBack();

 private:
  sigset_t before_;
  sigset_t pendingBefore_;
};

// What a write does while a pipe that does not block is full.
enum class WhenFull { WAIT, GIVE_UP };

// True if a write that failed can be tried again, by `errno`; waits for room if that is asked for.
bool canWriteAgain(int descriptor, WhenFull whenFull);

// Writes until all bytes are written or the system refuses; returns the number of bytes written. A
// pipe without a reader and the limit on file sizes are refusals and raise no signal.
size_t writeAll(int descriptor, const void* bytes, size_t count, WhenFull whenFull);

// The same at the cost of the write alone. Requires: no signal can come, or a NoWriteSignal lives.
size_t writeUnguarded(int descriptor, const void* bytes, size_t count, WhenFull whenFull);

}  // namespace ysys
