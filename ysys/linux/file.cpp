// SPDX-License-Identifier: MIT
// Files that are open for writing.
//
// A file is its descriptor and whether a write may send a signal. Nothing is kept back: a write is
// with the system when it returns, so flushing has nothing left to do. Every file is in append
// mode, one whose content was replaced too; so the lines of several processes land one behind the
// other.
//
// A FIFO opens only when somebody reads it. A write to one whose reader has gone and a write past
// the limit on file sizes are dropped without a signal. That costs two system calls a write, half
// as much time as the write itself, and files that are opened without such a limit do without them.
// A look at the limit ahead of each write would cost as much.
//
// May be called from any task; closing a file that another task is writing to is the caller's
// mistake.
#include "ysys/linux/posix.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "utils/sdk/ysys.h"
#include "ysys/caller_state.h"
#include "ysys/fork.h"
#include "ysys/handle_table.h"
#include "ysys/linux/descriptor.h"

namespace ysys {
namespace {

struct OpenFile {
  void init(int descriptor, bool mayRaiseSignal) {
    descriptor_ = descriptor;
    mayRaiseSignal_ = mayRaiseSignal;
  }

  int descriptor_ = -1;
  bool mayRaiseSignal_ = false;
};

constinit HandleTable<OpenFile, OPEN_FILE> _files;

// Does not wait for the reader of a FIFO. A write then waits for room by itself.
int openForWriting(const char* path, int mode) {
  const int replace = mode == YIF_OPEN_REPLACE ? O_TRUNC : 0;
  const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | replace;
  int descriptor;
  do {
    descriptor = open(path, flags, 0666);
  } while (descriptor == -1 && errno == EINTR);
  return descriptor;
}

bool mayRaiseSignal(int descriptor) {
  struct stat status;
  struct rlimit size;
  if (fstat(descriptor, &status) != 0 || getrlimit(RLIMIT_FSIZE, &size) != 0) return true;
  return S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode) || size.rlim_cur != RLIM_INFINITY;
}

}  // namespace

void mendFiles() {
  _files.mend([](OpenFile&) {});
}

}  // namespace ysys

using namespace ysys;

YIF_Handle YIF_Open(const char* path, int mode, int) noexcept {
  const NoCancellation whole;
  const int descriptor = path == nullptr ? -1 : openForWriting(path, mode);
  if (descriptor == -1) return YIF_NO_FILE;
  const YIF_Handle made = _files.create(descriptor, mayRaiseSignal(descriptor));
  if (made != 0) return made;
  close(descriptor);
  return YIF_NO_FILE;
}

void YIF_Write(YIF_Handle file, const void* bytes, unsigned int count) noexcept {
  const ErrnoSaver saver;
  const NoCancellation whole;
  const OpenFile& target = _files.at(file, __func__);
  const auto writeOut = target.mayRaiseSignal_ ? writeAll : writeUnguarded;
  writeOut(target.descriptor_, bytes, count, WhenFull::WAIT);
}

void YIF_Flush(YIF_Handle file) noexcept { _files.at(file, __func__); }

void YIF_Close(YIF_Handle file) noexcept {
  const ErrnoSaver saver;
  const NoCancellation whole;
  const int descriptor = _files.at(file, __func__).descriptor_;
  _files.destroy(file, __func__);
  close(descriptor);
}
