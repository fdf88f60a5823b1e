// voice.h: how the system layer writes to a descriptor and speaks on standard error.
//
// It allocates nothing, takes no lock and knows no handle, so it can be used with the heap broken,
// the log gone, and by the fork handlers. It is not a log: what it says is for the person who has
// to find out why a process stopped or why a setting is not followed.
//
// Safe from any task. A message of several parts is one system call, unless the system takes it in
// parts, so that the lines of two tasks do not mix: {"ysys: ", "YIF_SetEvent", ": no event\n"}
// leaves as one line of 29 bytes.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>

#include <initializer_list>

namespace ysys {

// Leaves `errno` as it was found.
class KeepErrno {
 public:
  KeepErrno() = default;
  ~KeepErrno() { putBack(); }
  KeepErrno(const KeepErrno&) = delete;
  KeepErrno& operator=(const KeepErrno&) = delete;

  void putBack() const { errno = saved_; }

 private:
  int saved_ = errno;
};

// Puts off the cancellation of the calling task (pthread_cancel): a task that is cancelled in a
// system call would leave what it has half done, and its callers' destructors would not run.
class NoCancellation {
 public:
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~NoCancellation() { pthread_setcancelstate(before_, nullptr); }
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;

 private:
  int before_;
};

// Holds back the signals that a write sends to the calling task: SIGPIPE where a pipe has no
// reader, SIGXFSZ at the limit on file sizes.
class NoWriteSignal {
 public:
  NoWriteSignal();
  ~NoWriteSignal() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  NoWriteSignal(const NoWriteSignal&) = delete;
  NoWriteSignal& operator=(const NoWriteSignal&) = delete;
  void takeBack();  // the one that a write has caused; `errno` tells which

 private:
  sigset_t before_;
  sigset_t pendingBefore_;
};

// The text of a number, digits of base 10 or 16 (the latter behind "0x").
class NumberText {
 public:
  NumberText(unsigned number, unsigned base);
  const char* text() const { return text_; }

 private:
  char room_[16];
  const char* text_;
};

enum class WhenFull { WAIT, GIVE_UP };

// Writes until all is written or the system refuses; returns the number of bytes that it took. A
// pipe without a reader and the limit on file sizes are refusals and no signals.
size_t writeAll(int descriptor, const void* bytes, size_t count, WhenFull whenFull);

// The same where no signal can come or a NoWriteSignal is there, at the price of the write alone.
size_t writeUnguarded(int descriptor, const void* bytes, size_t count, WhenFull whenFull);

// One message of at most 12 parts on standard error; a null part counts as empty.
void say(std::initializer_list<const char*> parts);

// Says it and stops the process.
[[noreturn]] void sayAndStop(std::initializer_list<const char*> parts);

}  // namespace ysys
