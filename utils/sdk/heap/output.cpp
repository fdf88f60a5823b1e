// SPDX-License-Identifier: MIT
// The buffer, and numbers as text.
#include "utils/sdk/heap/output.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "utils/sdk/base/decimal.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/result_codes.h"

namespace Utils {

namespace {

constinit char _buffer[4096] = {};
constinit char _beside[1100] = {};

}  // namespace

// The text that the program has printed comes first.
Output::Output(const char* path) : path_(path), file_(YfBeginFile(path, _beside, sizeof _beside)) {
  if (std::strcmp(path, "-") == 0) std::fflush(stdout);
}

int Output::end() {
  flush();
  const int failed = YfEndFile(file_, path_, _beside, isWhole_);
  return failed == 0 ? 0 : static_cast<int>(RESULT_FILE_WRITE_ERROR);
}

void Output::flush() {
  if (isWhole_) isWhole_ = YfAppend(file_, _buffer, used_) == 0;
  used_ = 0;
}

void Output::put(char byte) {
  if (used_ == sizeof _buffer) flush();
  _buffer[used_++] = byte;
}

void Output::text(const char* text) {
  for (; *text != '\0'; text++) put(*text);
}

void Output::number(unsigned long long number) {
  if (sizeof _buffer - used_ < 20) flush();
  const auto fits = static_cast<unsigned long>(number);
  const unsigned digits = decimalSize(fits);
  putDecimal(_buffer + used_, fits, digits);
  used_ += digits;
}

void Output::hex(unsigned char byte) {
  constexpr char DIGITS[] = "0123456789abcdef";
  put(DIGITS[byte >> 4]);
  put(DIGITS[byte & 15]);
}

void Output::print(const char* format, ...) {
  if (sizeof _buffer - used_ < 256) flush();
  std::va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(_buffer + used_, 256, format, args);
  va_end(args);
  if (length > 0) used_ += std::min(static_cast<unsigned>(length), 255u);
}

void Output::bytes(unsigned long long number) { bytes(number, 0); }

void Output::bytes(unsigned long long number, int width) {
  const char* const units[] = {"B", "KiB", "MiB", "GiB"};
  char room[40];
  unsigned unit = 0;
  unsigned long long tenths = number * 10;
  for (; tenths >= 10240 && unit < 3; tenths /= 1024) unit++;
  if (unit == 0) std::snprintf(room, sizeof room, "%llu B", number);
  if (unit != 0)
    std::snprintf(room, sizeof room, "%llu.%llu %s", tenths / 10, tenths % 10, units[unit]);
  print("%*s", width, room);
}

}  // namespace Utils
