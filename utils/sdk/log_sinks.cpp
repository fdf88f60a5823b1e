// log_sinks.cpp: the sinks. None of them tells its caller how it went.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/sdk/allocator.h"
#include "utils/sdk/decimal.h"
#include "utils/sdk/kept_errno.h"
#include "utils/sdk/log.h"
#include "utils/sdk/platform.h"

namespace Utils {

template struct Ref<Logger>;

namespace {

// --- What the sinks share ---

// What most messages are made of, expanded into a room.
struct QuickText {
  bool expand(const char* format, std::va_list& args);
  bool directive(const char*& format, std::va_list& args);
  bool put(const char* text, std::size_t size) {
    if (size > static_cast<std::size_t>(end_ - at_)) return false;
    std::memcpy(at_, text, size);
    at_ += size;
    return true;
  }
  bool putNumber(unsigned long number, bool isNegative = false) {
    if (isNegative) number = 0ul - number;
    const unsigned digits = decimalSize(number);
    if (static_cast<std::size_t>(end_ - at_) < digits + isNegative) return false;
    if (isNegative) *at_++ = '-';
    putDecimal(at_, number, digits);
    at_ += digits;
    return true;
  }

  char* at_;
  char* const end_;
};

// False where it meets anything else or the room ends; printf then begins anew.
bool QuickText::expand(const char* format, std::va_list& args) {
  while (const char* percent = std::strchr(format, '%')) {
    if (!put(format, static_cast<std::size_t>(percent - format))) return false;
    format = percent + 1;
    if (!directive(format, args)) return false;
  }
  return put(format, std::strlen(format));
}

bool QuickText::directive(const char*& format, std::va_list& args) {
  switch (*format++) {
    case '%':
      return put("%", 1);
    case 's': {
      const char* text = va_arg(args, const char*);
      return text && put(text, std::strlen(text));
    }
    case 'd': {
      const int number = va_arg(args, int);
      return putNumber(static_cast<unsigned long>(number), number < 0);
    }
    case 'u':
      return putNumber(va_arg(args, unsigned));
    case 'l':
      break;
    default:
      return false;
  }
  switch (*format++) {
    case 'd': {
      const long number = va_arg(args, long);
      return putNumber(static_cast<unsigned long>(number), number < 0);
    }
    case 'u':
      return putNumber(va_arg(args, unsigned long));
    default:
      return false;
  }
}

}  // namespace

Logger::~Logger() {}

int Logger::expand(char* text, unsigned size, const char* format, std::va_list args) {
  if (size == 0) return -1;
  QuickText quick{text, text + size - 1};
  std::va_list again;
  va_copy(again, args);
  const bool done = quick.expand(format, again);
  va_end(again);
  if (done) {
    *quick.at_ = '\0';
    return static_cast<int>(quick.at_ - text);
  }
  if (std::vsnprintf(text, size, format, args) < 0) return -1;
  return static_cast<int>(std::strlen(text));
}

// A line of at most 478 characters in a block from the process allocator; where that has none, on
// the stack.
struct Logger::BoundedLine {
  BoundedLine(const char* format, std::va_list args, const char* end)
      : block_(static_cast<char*>(Allocator::theAllocator()->alloc(BLOCK_SIZE))) {
    kept_.putBack();
    const int size = expand(text(), BOUND, format, args);
    if (size < 0) return;
    const std::size_t endSize = std::strlen(end);
    std::memcpy(text() + size, end, endSize + 1);
    size_ = static_cast<unsigned>(size) + static_cast<unsigned>(endSize);
  }
  ~BoundedLine() {
    if (block_) Allocator::theAllocator()->free(block_);
  }
  BoundedLine(const BoundedLine&) = delete;
  BoundedLine& operator=(const BoundedLine&) = delete;

  bool valid() const { return size_ != 0; }  // false where the format cannot be expanded
  char* text() { return block_ ? block_ : spare_; }
  unsigned size() const { return size_; }

 private:
  static constexpr int BOUND = 479;            // with the terminator
  static constexpr unsigned BLOCK_SIZE = 481;  // and a line end of two characters

  const KeptErrno kept_;
  char* const block_;
  unsigned size_ = 0;
  char spare_[BLOCK_SIZE];
};

// --- NullLogger ---

NullLogger::~NullLogger() {}

void NullLogger::print(MessageClass, const char*, std::va_list) {}

// --- FileLogger ---

FileLogger::FileLogger(const char* path, OpenMode mode) {
  const KeptErrno kept;
  handle_ = YIF_Open(path, mode == Replace ? YIF_OPEN_REPLACE : YIF_OPEN_APPEND, 1);
}

FileLogger::~FileLogger() {
  if (valid()) YIF_Close(handle_);
}

void FileLogger::print(MessageClass, const char* format, std::va_list args) {
  if (!valid()) return;
  BoundedLine line(format, args, "\r\n");
  if (!line.valid()) return;
  YIF_Write(handle_, line.text(), line.size());
  YIF_Flush(handle_);
}

// --- StdLogger ---

StdLogger::~StdLogger() {}

void StdLogger::print(MessageClass, const char* format, std::va_list args) {
  YfPrintLine(channel_ == Stdout ? stdout : stderr, format, args);
}

// --- SystemLogger ---

SystemLogger::SystemLogger(const char* name) : name_(nullptr) {
  if (!name) return;
  const KeptErrno kept;
  OutputDebugStringA(name);
  OutputDebugStringA(": Initialised\n");
  name_ = strdup(name);
}

SystemLogger::~SystemLogger() {
  if (!name_) return;
  OutputDebugStringA(name_);
  OutputDebugStringA(": Finish\n");
  std::free(name_);
}

void SystemLogger::print(MessageClass, const char* format, std::va_list args) {
  BoundedLine line(format, args, "\n");
  if (!line.valid()) return;
  if (name_) {
    OutputDebugStringA(name_);
    OutputDebugStringA(": ");
  }
  OutputDebugStringA(line.text());
}

// --- DialogLogger ---

DialogLogger::~DialogLogger() {}

void DialogLogger::print(MessageClass, const char* format, std::va_list args) {
  BoundedLine line(format, args, "\n");
  if (line.valid()) MessageBoxA(nullptr, line.text(), "Error", 0);
}

}  // namespace Utils
