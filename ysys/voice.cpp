// voice.cpp: writing that finishes, and messages without the log. See voice.h.
//
// A write to a pipe whose reader has gone sends SIGPIPE to the writing task, one past the limit on
// file sizes SIGXFSZ. The dispositions of these signals belong to the host, so they are left alone:
// the task blocks the signals around the write, takes back the one that its own write has caused,
// and puts its mask as it was. A signal that was pending before stays pending; only one that the
// host itself has blocked can be.
#include "ysys/voice.h"

#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

namespace ysys {
namespace {

constexpr size_t PARTS_MAX = 12;

// Looks at `errno` after a failed write; waits for room where that is wanted.
bool canGoOn(int descriptor, WhenFull whenFull) {
  if (errno == EINTR) return true;
  if (errno != EAGAIN || whenFull == WhenFull::GIVE_UP) return false;
  pollfd room = {descriptor, POLLOUT, 0};
  return poll(&room, 1, -1) == 1 || errno == EINTR;
}

sigset_t setOf(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (int each : signals) sigaddset(&set, each);
  return set;
}

// Takes the bytes that were written off the pieces; returns the first piece that has any left.
iovec* advance(iovec* piece, const iovec* end, size_t written) {
  for (; piece != end && written >= piece->iov_len; ++piece) written -= piece->iov_len;
  if (piece != end) {
    piece->iov_base = static_cast<char*>(piece->iov_base) + written;
    piece->iov_len -= written;
  }
  return piece;
}

}  // namespace

NoWriteSignal::NoWriteSignal() : pendingBefore_(setOf({})) {
  const sigset_t signals = setOf({SIGPIPE, SIGXFSZ});
  pthread_sigmask(SIG_BLOCK, &signals, &before_);
  if (sigismember(&before_, SIGPIPE) == 1 || sigismember(&before_, SIGXFSZ) == 1)
    sigpending(&pendingBefore_);
}

void NoWriteSignal::takeBack() {
  if (errno != EPIPE && errno != EFBIG) return;
  const int caused = errno == EPIPE ? SIGPIPE : SIGXFSZ;
  if (sigismember(&pendingBefore_, caused) == 1) return;
  const sigset_t set = setOf({caused});
  const timespec atOnce = {};
  while (sigtimedwait(&set, nullptr, &atOnce) == -1 && errno == EINTR) {
  }
}

NumberText::NumberText(unsigned number, unsigned base) {
  char* at = room_ + sizeof room_ - 1;
  *at = '\0';
  do {
    *--at = "0123456789abcdef"[number % base];
    number /= base;
  } while (number != 0);
  if (base == 16) {
    *--at = 'x';
    *--at = '0';
  }
  text_ = at;
}

size_t writeUnguarded(int descriptor, const void* bytes, size_t count, WhenFull whenFull) {
  const char* from = static_cast<const char*>(bytes);
  size_t written = 0;
  while (written < count) {
    const ssize_t step = write(descriptor, from + written, count - written);
    if (step > 0) {
      written += static_cast<size_t>(step);
    } else if (step == 0 || !canGoOn(descriptor, whenFull)) {
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

void say(std::initializer_list<const char*> parts) {
  iovec pieces[PARTS_MAX];
  iovec* end = pieces;
  for (const char* part : parts) {
    if (part != nullptr) *end++ = {const_cast<char*>(part), strlen(part)};
  }
  const KeepErrno keep;
  const NoCancellation whole;
  NoWriteSignal quiet;
  for (iovec* from = pieces; from != end;) {
    const ssize_t written = writev(STDERR_FILENO, from, static_cast<int>(end - from));
    if (written > 0) {
      from = advance(from, end, static_cast<size_t>(written));
    } else if (written == 0 || !canGoOn(STDERR_FILENO, WhenFull::WAIT)) {
      quiet.takeBack();
      break;
    }
  }
}

void sayAndStop(std::initializer_list<const char*> parts) {
  say(parts);
  abort();
}

}  // namespace ysys
