// SPDX-License-Identifier: MIT
// Numbers as decimal digits. Private to the library.
//
// The digits are written directly to their final place. Copying them from a buffer is slower than
// computing them: the wide load of the copy has to wait for the single bytes stored just before.
#pragma once

#include <climits>

namespace Utils {

// Returns the number of digits; 1 for 0.
inline unsigned decimalSize(unsigned long number) {
  unsigned digits = 1;
  for (unsigned long bound = 10; number >= bound; bound *= 10) {
    digits++;
    if (bound > ULONG_MAX / 10) break;
  }
  return digits;
}

// Writes the last `digits` digits of the number, with leading zeros if it has fewer.
inline void putDecimal(char* at, unsigned long number, unsigned digits) {
  for (; digits != 0; number /= 10) at[--digits] = static_cast<char>('0' + number % 10);
}

}  // namespace Utils
