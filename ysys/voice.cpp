// voice.cpp: writing that finishes, and messages without the log. See voice.h.
//
// A write to a pipe whose reader has gone sends SIGPIPE to the writing task. The disposition of
// that signal belongs to the host, so it is left alone: the task blocks the signal around the
// write, takes back the one that its own write has caused, and puts its mask as it was. A SIGPIPE
// that was pending before stays pending.
#include "ysys/voice.h"

#include <poll.h>
#include <pthread.h>
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

}  // namespace

NoPipeSignal::NoPipeSignal() {
  sigset_t pending;
  sigpending(&pending);
  wasPending_ = sigismember(&pending, SIGPIPE) == 1;
  sigemptyset(&pipe_);
  sigaddset(&pipe_, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
}

void NoPipeSignal::takeBack() {
  const timespec atOnce = {};
  if (errno != EPIPE || wasPending_) return;
  while (sigtimedwait(&pipe_, nullptr, &atOnce) == -1 && errno == EINTR) {
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

size_t writeAllToFile(int descriptor, const void* bytes, size_t count, WhenFull whenFull) {
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
  NoPipeSignal quiet;
  const size_t written = writeAllToFile(descriptor, bytes, count, whenFull);
  if (written < count) quiet.takeBack();
  return written;
}

void say(std::initializer_list<const char*> parts) {
  iovec pieces[PARTS_MAX];
  int count = 0;
  for (const char* part : parts) {
    if (part != nullptr) pieces[count++] = {const_cast<char*>(part), strlen(part)};
  }
  const KeepErrno keep;
  NoPipeSignal quiet;
  ssize_t written;
  do {
    written = writev(STDERR_FILENO, pieces, count);
  } while (written == -1 && canGoOn(STDERR_FILENO, WhenFull::WAIT));
  if (written == -1) quiet.takeBack();
}

void sayAndStop(std::initializer_list<const char*> parts) {
  say(parts);
  abort();
}

}  // namespace ysys
