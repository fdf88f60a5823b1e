// SPDX-License-Identifier: MIT
// The two rare cases of a Time, kept out of the way of what its users compile in place.
//
// What reaches saturated() is not a number or has no place in 64 bits. What reaches
// rareQuotient() is a division by raw 0 or by raw -1, the two that the processor may trap at.
// Both are pure functions, and nothing but time.h calls them.
#include "utils/sdk/time.h"

#include <climits>

namespace Utils {

long long Time::saturated(double scaled) {
  if (scaled > 0) return LLONG_MAX;
  return scaled < 0 ? LLONG_MIN : 0;
}

// The dividend's own sign counts: its top bits, the sign with them, may not survive the shift.
long long Time::rareQuotient(long long dividend, long long divisor) {
  if (divisor != 0) return signedOf(0 - (static_cast<Bits>(dividend) << 16));
  if (dividend == 0) return 0;
  return dividend > 0 ? TMAX : -TMAX - 1;
}

}  // namespace Utils
