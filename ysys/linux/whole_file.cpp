// SPDX-License-Identifier: MIT
// Files that replace another one when they are complete.
//
// The bytes go to a file beside the wanted one, with the number of the process in its name:
// heap.svg of process 1234 is written as heap.svg.1234.part. A rename then gives it the wanted
// name, so that no reader finds a part of a file. An existing device, FIFO or link is not replaced
// but written to, and so is a file in a directory in which no other can be created.
//
// A new file can be read by its owner alone: it may hold bytes of the process's memory.
//
// Thread safety: may be called from any task. Two tasks do not write the same file at the same
// time.
#include "ysys/linux/posix.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "utils/sdk/platform.h"
#include "ysys/caller_state.h"
#include "ysys/linux/descriptor.h"

namespace ysys {
namespace {

constexpr mode_t OWNER_ONLY = 0600;
constexpr int FOR_WRITING = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

bool isStandardOutput(const char* path) { return strcmp(path, "-") == 0; }

bool canBeReplaced(const char* path) {
  struct stat status;
  return lstat(path, &status) != 0 ? errno == ENOENT : S_ISREG(status.st_mode);
}

// Returns -1 if the file cannot be created or its name has no room.
int openBeside(const char* path, char* beside, unsigned room) {
  const int length = snprintf(beside, room, "%s.%ld.part", path, static_cast<long>(getpid()));
  if (length < 0 || static_cast<unsigned>(length) >= room) return -1;
  unlink(beside);  // of a process that had the same number
  return open(beside, FOR_WRITING | O_EXCL, OWNER_ONLY);
}

}  // namespace
}  // namespace ysys

using namespace ysys;

unsigned long YfProcessId() noexcept { return static_cast<unsigned long>(getpid()); }

int YfBeginFile(const char* path, char* beside, unsigned int room) noexcept {
  const ErrnoSaver saver;
  const NoCancellation whole;
  if (isStandardOutput(path)) {
    *beside = '\0';
    return STDOUT_FILENO;
  }
  const int file = canBeReplaced(path) ? openBeside(path, beside, room) : -1;
  if (file != -1) return file;
  *beside = '\0';
  return open(path, FOR_WRITING | O_TRUNC, OWNER_ONLY);
}

int YfAppend(int file, const void* bytes, unsigned int count) noexcept {
  const ErrnoSaver saver;
  const NoCancellation whole;
  return writeAll(file, bytes, count, WhenFull::WAIT) == count ? 0 : 1;
}

int YfEndFile(int file, const char* path, const char* beside, int isWhole) noexcept {
  const ErrnoSaver saver;
  const NoCancellation whole;
  bool isDone = isWhole != 0;
  if (!isStandardOutput(path) && close(file) != 0) isDone = false;
  if (*beside == '\0') return isDone ? 0 : 1;
  if (isDone) isDone = rename(beside, path) == 0;
  if (!isDone) unlink(beside);
  return isDone ? 0 : 1;
}
