// SPDX-License-Identifier: MIT
// Reports as one writev on descriptor 2.
#include "ysys/stderr_report.h"

#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

#include "ysys/caller_state.h"
#include "ysys/linux/descriptor.h"

namespace ysys {
namespace {

constexpr size_t PARTS_MAX = 12;

// Removes the written bytes from the pieces. Returns the first piece that has bytes left.
iovec* advance(iovec* piece, const iovec* end, size_t written) {
  for (; piece != end && written >= piece->iov_len; ++piece) written -= piece->iov_len;
  if (piece != end) {
    piece->iov_base = static_cast<char*>(piece->iov_base) + written;
    piece->iov_len -= written;
  }
  return piece;
}

}  // namespace

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

void report(std::initializer_list<const char*> parts) {
  iovec pieces[PARTS_MAX];
  iovec* end = pieces;
  for (const char* part : parts) {
    if (part != nullptr) *end++ = {const_cast<char*>(part), strlen(part)};
  }
  const ErrnoSaver saver;
  const NoCancellation whole;
  NoWriteSignal quiet;
  for (iovec* from = pieces; from != end;) {
    const ssize_t written = writev(STDERR_FILENO, from, static_cast<int>(end - from));
    if (written > 0) {
      from = advance(from, end, static_cast<size_t>(written));
    } else if (written == 0 || !canWriteAgain(STDERR_FILENO, WhenFull::WAIT)) {
      quiet.takeBack();
      break;
    }
  }
}

void reportAndStop(std::initializer_list<const char*> parts) {
  report(parts);
  abort();
}

}  // namespace ysys
