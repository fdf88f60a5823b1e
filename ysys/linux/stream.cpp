// SPDX-License-Identifier: MIT
// A line on a stream of the runtime library.
//
// The runtime library drops the rest of a line if a write takes only a part of it: a pipe is full
// and its descriptor does not block, or a signal handler interrupts the write. So the line is
// formatted in memory and written to the stream's descriptor until all of it is written, after the
// stream's own buffer.
//
// The runtime library writes the line itself in four cases: the stream has no descriptor; it is a
// regular file, which takes every write whole and whose position the stream counts; there is no
// memory for the line; the format cannot be expanded.
#include "ysys/linux/posix.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "utils/sdk/platform.h"
#include "ysys/caller_state.h"
#include "ysys/linux/descriptor.h"

namespace ysys {
namespace {

// A format with its arguments and a line end.
class LineText {
 public:
  LineText(const char* format, va_list args);
  ~LineText() { free(block_); }
  LineText(const LineText&) = delete;
  LineText& operator=(const LineText&) = delete;

  bool isWhole() const { return size_ != 0; }
  size_t size() const { return size_; }
  const char* text() const { return block_ == nullptr ? room_ : block_; }

 private:
  size_t size_ = 0;
  char* block_ = nullptr;  // memory for a line that does not fit in room_
  char room_[1024];
};

LineText::LineText(const char* format, va_list args) {
  const ErrnoSaver saver;
  va_list again;
  va_copy(again, args);
  int length = vsnprintf(room_, sizeof room_, format, again);
  va_end(again);
  const size_t size = static_cast<size_t>(length) + 1;
  char* text = room_;
  if (length >= 0 && size > sizeof room_) {
    text = block_ = static_cast<char*>(malloc(size));
    saver.restore();
    length = text == nullptr ? -1 : vsnprintf(text, size, format, args);
  }
  if (length < 0 || static_cast<size_t>(length) >= size)
    return;  // another task has changed an argument meanwhile
  text[length] = '\n';
  size_ = static_cast<size_t>(length) + 1;
}

bool takesPartsOfLines(int descriptor) {
  struct stat status;
  return descriptor != -1 && !(fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode));
}

// Returns false, and writes nothing, if the runtime library has to write the line.
bool writeToDescriptor(FILE* stream, const char* format, va_list args) {
  const LineText line(format, args);
  if (!line.isWhole()) return false;
  fflush(stream);
  writeUnguarded(fileno(stream), line.text(), line.size(), WhenFull::WAIT);
  return true;
}

}  // namespace
}  // namespace ysys

using namespace ysys;

void YfPrintLine(FILE* stream, const char* format, va_list args) noexcept {
  const ErrnoSaver saver;
  const NoCancellation whole;
  NoWriteSignal quiet;
  va_list again;
  va_copy(again, args);
  const bool mayBreak = takesPartsOfLines(fileno(stream));
  saver.restore();
  if (!mayBreak || !writeToDescriptor(stream, format, again)) {
    flockfile(stream);  // so that no line of another task gets between the text and its end
    saver.restore();
    vfprintf(stream, format, args);
    fprintf(stream, "\n");
    fflush(stream);
    funlockfile(stream);
  }
  va_end(again);
  quiet.takeBack();
}
