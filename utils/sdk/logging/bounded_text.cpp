// SPDX-License-Identifier: MIT
// Plain directives are expanded here, all others by the runtime library.
//
// The runtime library computes the length of the whole text, at some nanoseconds a byte, and fails
// if it is above INT_MAX, although the room has long been full. So it gets a copy of the format
// with limited directives: for a room of 479 bytes "%s" becomes "%.479s", "%700s" becomes
// "%700.700s" and "%3000000000d" becomes "%1000000d".
#include "utils/sdk/logging/bounded_text.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/sdk/base/decimal.h"
#include "utils/sdk/base/errno_saver.h"

namespace Utils {

namespace {

// --- Plain directives ---

struct QuickText {
  bool expand(const char* format, std::va_list& args);
  bool directive(const char*& format, std::va_list& args);
  std::size_t rest() const { return static_cast<std::size_t>(end_ - at_); }
  void put(const char* text, std::size_t size) {
    size = std::min(size, rest());
    std::memcpy(at_, text, size);
    at_ += size;
  }
  void putNumber(unsigned long number, bool isNegative = false) {
    if (isNegative) {
      put("-", 1);
      number = 0ul - number;
    }
    const unsigned digits = decimalSize(number);
    if (digits > rest()) return putCutNumber(number, digits);
    putDecimal(at_, number, digits);
    at_ += digits;
  }
  void putCutNumber(unsigned long number, unsigned digits) {
    char text[3 * sizeof number];
    putDecimal(text, number, digits);
    put(text, digits);
  }

  char* at_;
  char* const end_;
};

// Returns false at the first other directive; the runtime library then starts from the beginning.
bool QuickText::expand(const char* format, std::va_list& args) {
  while (const char* percent = std::strchr(format, '%')) {
    put(format, static_cast<std::size_t>(percent - format));
    format = percent + 1;
    if (!directive(format, args)) return false;
  }
  put(format, std::strlen(format));
  return true;
}

bool QuickText::directive(const char*& format, std::va_list& args) {
  switch (*format++) {
    case '%':
      put("%", 1);
      return true;
    case 's': {
      const char* text = va_arg(args, const char*);
      if (text) put(text, strnlen(text, rest()));
      return text != nullptr;
    }
    case 'd': {
      const int number = va_arg(args, int);
      putNumber(static_cast<unsigned long>(number), number < 0);
      return true;
    }
    case 'u':
      putNumber(va_arg(args, unsigned));
      return true;
    case 'l':
      break;
    default:
      return false;
  }
  switch (*format++) {
    case 'd': {
      const long number = va_arg(args, long);
      putNumber(static_cast<unsigned long>(number), number < 0);
      return true;
    }
    case 'u':
      putNumber(va_arg(args, unsigned long));
      return true;
    default:
      return false;
  }
}

// --- All others ---

// A copy of a format with limited widths and precisions: a limited text still fills the room, and
// the length of the whole stays below INT_MAX. The number of a `*` is an argument and is not
// limited.
struct LimitedFormat {
  LimitedFormat(const char* format, unsigned roomSize);
  ~LimitedFormat() {
    if (text_ != room_) std::free(text_);
  }
  LimitedFormat(const LimitedFormat&) = delete;
  LimitedFormat& operator=(const LimitedFormat&) = delete;

  // The copy up to the first `directives` directives; the format itself if there is no memory.
  const char* copy(unsigned directives);

  unsigned directives_ = 0;  // at least the number in the format

 private:
  static constexpr unsigned LARGEST = 1000000;
  static constexpr unsigned SMALLEST = 64;  // longer than "(null)"
  static constexpr unsigned LONGEST = 11;   // a point and the digits of a number

  static bool isDigit(char c) { return c >= '0' && c <= '9'; }
  static bool isFlag(char c) {
    return c == '-' || c == '0' || c == '+' || c == ' ' || c == '#' || c == '\'' || c == 'I';
  }
  static bool isTypeSize(char c) {
    return c == 'l' || c == 'h' || c == 'z' || c == 'j' || c == 't' || c == 'L' || c == 'q' ||
           c == 'Z';
  }

  const char* copyDirective(const char* from);
  const char* copyNumber(const char* from, unsigned& number);
  template <class Belongs>
  const char* copyWhile(Belongs belongs, const char* from) {
    while (belongs(*from)) *at_++ = *from++;
    return from;
  }
  const char* copyOne(const char* from) {
    *at_++ = *from;
    return from + 1;
  }
  void put(unsigned number) {
    const unsigned digits = decimalSize(number);
    putDecimal(at_, number, digits);
    at_ += digits;
  }

  const char* const format_;
  const unsigned roomSize_;
  unsigned limit_;
  char* text_ = room_;
  char* at_ = nullptr;
  char room_[512];
};

LimitedFormat::LimitedFormat(const char* format, unsigned roomSize)
    : format_(format), roomSize_(roomSize) {
  const char* end = format;
  for (; *end != '\0'; end++) directives_ += *end == '%';
  limit_ = std::max(roomSize, std::min(LARGEST, INT_MAX / 2 / (directives_ + 1)));
  const std::size_t size =
      static_cast<std::size_t>(end - format) + std::size_t{directives_} * LONGEST + 1;
  if (size > sizeof room_) text_ = static_cast<char*>(std::malloc(size));
}

const char* LimitedFormat::copy(unsigned directives) {
  if (!text_) return format_;
  at_ = text_;
  for (const char* from = format_; *from != '\0';) {
    const bool isDirective = *from == '%' && from[1] != '%';
    if (isDirective && directives-- == 0) break;
    from = isDirective ? copyDirective(from) : copyOne(*from == '%' ? copyOne(from) : from);
  }
  *at_ = '\0';
  return text_;
}

// %[position$][flags][width][.precision][size of the type]type
const char* LimitedFormat::copyDirective(const char* from) {
  from = copyOne(from);
  const char* position = from;
  while (isDigit(*position)) position++;
  if (*position == '$') from = copyOne(copyWhile(isDigit, from));
  unsigned width = 0, precision = 0;
  from = copyNumber(copyWhile(isFlag, from), width);
  const bool hasPrecision = *from == '.';
  if (hasPrecision) from = copyNumber(copyOne(from), precision);
  const char* type = from;
  while (isTypeSize(*type)) type++;
  if (!hasPrecision && (*type == 's' || *type == 'S')) {
    *at_++ = '.';
    put(std::max({roomSize_, width, SMALLEST}));
  }
  from = copyWhile(isTypeSize, from);
  return *from != '\0' ? copyOne(from) : from;
}

// Copies a width or a precision, if there is one. A `*` counts as the limit.
const char* LimitedFormat::copyNumber(const char* from, unsigned& number) {
  if (*from == '*') {
    number = limit_;
    from = copyWhile(isDigit, copyOne(from));
    return *from == '$' ? copyOne(from) : from;
  }
  if (!isDigit(*from)) return from;
  for (; isDigit(*from); from++) {
    const auto digit = static_cast<unsigned>(*from - '0');
    number = number > (limit_ - digit) / 10 ? limit_ : number * 10 + digit;
  }
  put(number);
  return from;
}

// If an argument makes a directive too long, the text ends before that directive.
int expandLimited(char* room, unsigned size, const char* format, std::va_list args) {
  const ErrnoSaver saver;
  LimitedFormat limited(format, size);
  for (unsigned directives = limited.directives_;; directives--) {
    const char* copy = limited.copy(directives);
    std::va_list again;
    va_copy(again, args);
    saver.restore();
    const int result = std::vsnprintf(room, size, copy, again);
    va_end(again);
    if (result >= 0) return static_cast<int>(std::strlen(room));
    if (errno != EOVERFLOW || directives == 0 || copy == format) return -1;
  }
}

}  // namespace

int expandText(char* room, unsigned size, const char* format, std::va_list args) {
  QuickText quick{room, room + size - 1};
  std::va_list again;
  va_copy(again, args);
  const bool done = quick.expand(format, again);
  va_end(again);
  if (done) {
    *quick.at_ = '\0';
    return static_cast<int>(quick.at_ - room);
  }
  return expandLimited(room, size, format, args);
}

}  // namespace Utils
