// decimal.h: inside the library, numbers as digits.
#pragma once

namespace Utils {

// Digits of an unsigned long, at most.
constexpr unsigned DECIMAL_SIZE = 20;

// Writes the number in front of `end`, with at least that many digits; gives where it begins.
inline char* decimalBefore(char* end, unsigned long number, unsigned digits = 1) {
  char* at = end;
  for (; number != 0 || at > end - digits; number /= 10) {
    *--at = static_cast<char>('0' + number % 10);
  }
  return at;
}

}  // namespace Utils
