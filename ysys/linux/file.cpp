// SPDX-License-Identifier: MIT
// Files that are open for writing.
//
// A file is its descriptor and a flag for writes that may send a signal. Nothing is buffered: the
// system has the bytes when a write returns, so a flush does nothing. Every file is in append mode,
// also one whose content was replaced, so lines of several processes do not overwrite each other.
//
// A FIFO opens only if it has a reader. A write to a FIFO whose reader has closed it, and a write
// past the limit on file sizes, are dropped without a signal. That costs two system calls for each
// write, half as much time as the write itself; files that are opened without such a limit do
// without them. A query of the limit before each write would cost as much.
//
// Thread safety: may be called from any task. Requires: a file is not closed while another task
// writes to it.
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

// Opens without waiting for the reader of a FIFO. The descriptor stays non-blocking, and writes
// wait for room by poll.
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

void repairFiles() {
  _files.repair([](OpenFile&) {});
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
