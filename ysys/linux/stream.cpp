// SPDX-License-Identifier: MIT
// A line on a stream of the runtime library.
//
// The runtime library drops the rest of a line when a write takes a part of it: where a pipe is
// full and its descriptor does not block, or a signal's handler interrupts the write. So the line
// is made in memory and written to the stream's descriptor until all of it is there, after what the
// stream holds back.
//
// The runtime library writes the line itself to a stream without a descriptor, to a regular file,
// which takes every write whole and whose position the stream counts, and when there is no memory
// for the line or its format has no text.
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
  char* block_ = nullptr;  // of a line that the room is too small for
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
    return;  // a text that was changed meanwhile
  text[length] = '\n';
  size_ = static_cast<size_t>(length) + 1;
}

bool takesPartsOfLines(int descriptor) {
  struct stat status;
  return descriptor != -1 && !(fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode));
}

// Returns false, nothing written, where the runtime library has to do it.
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
    flockfile(stream);  // no line of another task between the text and its end
    saver.restore();
    vfprintf(stream, format, args);
    fprintf(stream, "\n");
    fflush(stream);
    funlockfile(stream);
  }
  va_end(again);
  quiet.takeBack();
}
