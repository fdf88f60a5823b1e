// SPDX-License-Identifier: MIT
// Writes of all bytes, and the signals that a write can raise.
//
// A write to a pipe without a reader sends SIGPIPE to the writing task, a write past the limit on
// file sizes sends SIGXFSZ. The dispositions of these signals belong to the host and are not
// changed: the task blocks the signals around the write, removes the one that its own write has
// raised, and restores its mask. A signal that was pending before stays pending; only a signal that
// the host itself has blocked can be.
#include "ysys/linux/descriptor.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <initializer_list>

#include "ysys/caller_state.h"

namespace ysys {

NoCancellation::NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }

NoCancellation::~NoCancellation() { pthread_setcancelstate(before_, nullptr); }

namespace {

sigset_t setOf(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (int each : signals) sigaddset(&set, each);
  return set;
}

}  // namespace

NoWriteSignal::NoWriteSignal() : pendingBefore_(setOf({})) {
  const sigset_t signals = setOf({SIGPIPE, SIGXFSZ});
  pthread_sigmask(SIG_BLOCK, &signals, &before_);
  if (sigismember(&before_, SIGPIPE) == 1 || sigismember(&before_, SIGXFSZ) == 1)
    sigpending(&pendingBefore_);
}

NoWriteSignal::~NoWriteSignal() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

void NoWriteSignal::takeBack() {
  if (errno != EPIPE && errno != EFBIG) return;
  const int caused = errno == EPIPE ? SIGPIPE : SIGXFSZ;
  if (sigismember(&pendingBefore_, caused) == 1) return;
  const sigset_t set = setOf({caused});
  const timespec atOnce = {};
  while (sigtimedwait(&set, nullptr, &atOnce) == -1 && errno == EINTR) {
  }
}

bool canWriteAgain(int descriptor, WhenFull whenFull) {
  if (errno == EINTR) return true;
  if (errno != EAGAIN || whenFull == WhenFull::GIVE_UP) return false;
  pollfd room = {descriptor, POLLOUT, 0};
  return poll(&room, 1, -1) == 1 || errno == EINTR;
}

size_t writeUnguarded(int descriptor, const void* bytes, size_t count, WhenFull whenFull) {
  const char* from = static_cast<const char*>(bytes);
  size_t written = 0;
  while (written < count) {
    const ssize_t step = write(descriptor, from + written, count - written);
    if (step > 0) {
      written += static_cast<size_t>(step);
    } else if (step == 0 || !canWriteAgain(descriptor, whenFull)) {
      break;
    }
  }
  return written;
}

size_t writeAll(int descriptor, const void* bytes, size_t count, WhenFull whenFull) {
  NoWriteSignal quiet;
  const size_t written = writeUnguarded(descriptor, bytes, count, whenFull);
  if (written < count) quiet.takeBack();
  return written;
}

}  // namespace ysys
