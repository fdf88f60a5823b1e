// SPDX-License-Identifier: MIT
// The parts of a line, appended one after the other.
#include "utils/sdk/logging/log_line.h"

#include <algorithm>
#include <cfloat>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "utils/sdk/base/decimal.h"
#include "utils/sdk/ysys.h"

namespace Utils {

// --- Room ---

// Returns the place for that many more bytes. Null if there is no memory, then and from then on.
inline char* LogLine::extend(std::size_t size) {
  if (!text_ || (size > capacity_ - used_ && !grow(size))) return nullptr;
  used_ += size;
  return text_ + used_ - size;
}

// Cold, so that the compiler does not inline it into each of the additions.
bool LogLine::grow(std::size_t size) {
  const std::size_t wanted = std::max(2 * capacity_, used_ + size);
  text_ = static_cast<char*>(std::realloc(block_, wanted));
  if (!text_) return false;
  if (!block_) std::memcpy(text_, room_, used_);
  block_ = text_;
  capacity_ = wanted;
  return true;
}

// --- Texts and numbers ---

inline void LogLine::add(const char* text, std::size_t size) {
  if (char* at = extend(size)) std::memcpy(at, text, size);
}

inline void LogLine::add(const char* text) { add(text, std::strlen(text)); }

inline void LogLine::add(char c) {
  if (char* at = extend(1)) *at = c;
}

inline void LogLine::add(unsigned long number, unsigned digits) {
  if (char* at = extend(digits)) putDecimal(at, number, digits);
}

inline void LogLine::add(unsigned long number) { add(number, decimalSize(number)); }

void LogLine::addEscaped(const char* text) {
  if (!text) return;
  while (const char* percent = std::strchr(text, '%')) {
    add(text, static_cast<std::size_t>(percent + 1 - text));
    add('%');
    text = percent + 1;
  }
  add(text);
}

// As "%f" in a locale whose decimal point is a point. From 2^9 to 2^32 - 1 the fraction has no
// more than 43 bits, and a million times as many units fit into 64: the digits are taken from one
// product, rounded to even as printf does it, in a tenth of its time.
inline void LogLine::addSeconds(double seconds) {
  constexpr unsigned BITS = 43;
  if (!(seconds >= 512 && seconds < 4294967295.0)) {
    constexpr unsigned LONGEST = 1 + DBL_MAX_10_EXP + 1 + 1 + 6;  // sign, digits, point, digits
    char text[LONGEST + 1];
    add(text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "%f", seconds)));
    return;
  }
  auto whole = static_cast<std::uint32_t>(seconds);
  const auto fraction = static_cast<std::uint64_t>((seconds - whole) * (std::uint64_t{1} << BITS));
  const std::uint64_t product = fraction * 1000000;
  const std::uint64_t rest = product & ((std::uint64_t{1} << BITS) - 1);
  auto micros = static_cast<std::uint32_t>(product >> BITS);
  const std::uint64_t half = std::uint64_t{1} << (BITS - 1);
  if (rest > half || (rest == half && micros % 2 != 0)) micros++;
  whole += micros / 1000000;
  add(static_cast<unsigned long>(whole));
  add('.');
  add(static_cast<unsigned long>(micros % 1000000), 6);
}

// --- The line ---

LogLine::LogLine(const char* className, const char* category, int level, const char* file,
                 unsigned line, const char* format, unsigned verbosity) {
  addHeader(className, category, level, file, line, verbosity);
  add('|');
  add(format ? format : "");
  add('\0');
}

inline void LogLine::addHeader(const char* className, const char* category, int level,
                               const char* file, unsigned line, unsigned verbosity) {
  add(className);
  if (level >= 0) {
    add('[');
    add(static_cast<unsigned long>(level));
    add(']');
  }
  add('|');
  addEscaped(category);
  if (verbosity == 0) return;
  add('|');
  addEscaped(file);
  add(':');
  add(static_cast<unsigned long>(line));
  if (verbosity == 1) return;
  add('|');
  addSeconds(YIF_CurrentTime());
  add('|');
  add(YIF_CurrentTaskId());
}

}  // namespace Utils
