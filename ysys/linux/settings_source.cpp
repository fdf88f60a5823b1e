// SPDX-License-Identifier: MIT
// The environment of the process, and settings files through file descriptors.
#include "ysys/linux/posix.h"

#include "ysys/settings_source.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ysys {

const char* environmentValue(const char* name) { return secure_getenv(name); }

SettingsFile::~SettingsFile() {
  if (isOpen()) close(descriptor_);
}

const char* SettingsFile::open(const char* path) {
  const int opened = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (opened == -1) return strerrordesc_np(errno);
  struct stat status;
  const char* reason = nullptr;
  if (fstat(opened, &status) != 0) {
    reason = strerrordesc_np(errno);
  } else if (!S_ISREG(status.st_mode)) {
    reason = "it is not a regular file";
  }
  if (reason == nullptr) {
    descriptor_ = opened;
  } else {
    close(opened);
  }
  return reason;
}

int64_t SettingsFile::readAt(uint64_t offset, char* buffer, size_t size,
                             const char*& reason) const {
  size_t got = 0;
  while (got < size) {
    const ssize_t step =
        pread(descriptor_, buffer + got, size - got, static_cast<off_t>(offset + got));
    if (step == 0) break;
    if (step > 0) {
      got += static_cast<size_t>(step);
    } else if (errno != EINTR) {
      reason = strerrordesc_np(errno);
      return -1;
    }
  }
  return static_cast<int64_t>(got);
}

}  // namespace ysys
