// SPDX-License-Identifier: MIT
// Inside the library, numbers as digits, written where they are to stand.
//
// They are not made elsewhere and copied: a wide load from bytes that were just stored one by one
// waits for them longer than the digits take.
#pragma once

#include <climits>

namespace Utils {

// How many digits the number has; 1 for 0.
inline unsigned decimalSize(unsigned long number) {
  unsigned digits = 1;
  for (unsigned long bound = 10; number >= bound; bound *= 10) {
    digits++;
    if (bound > ULONG_MAX / 10) break;
  }
  return digits;
}

// The last `digits` digits of the number, zeros in front where it has less.
inline void putDecimal(char* at, unsigned long number, unsigned digits) {
  for (; digits != 0; number /= 10) at[--digits] = static_cast<char>('0' + number % 10);
}

}  // namespace Utils
