// SPDX-License-Identifier: MIT
// The two rare cases of a Time, in functions of their own so that the inline code stays short.
//
// saturated() converts a NaN or a number beyond the 64 bits. rareQuotient() divides by raw 0 or raw
// -1, the two divisors for which the processor may trap. Both are pure functions that only time.h
// calls.
#include "utils/sdk/time.h"

#include <climits>

namespace Utils {

long long Time::saturated(double scaled) {
  if (scaled > 0) return LLONG_MAX;
  return scaled < 0 ? LLONG_MIN : 0;
}

// Tests the sign of the dividend before the shift, which can lose its upper bits.
long long Time::rareQuotient(long long dividend, long long divisor) {
  if (divisor != 0) return signedOf(0 - (static_cast<Bits>(dividend) << 16));
  if (dividend == 0) return 0;
  return dividend > 0 ? TMAX : -TMAX - 1;
}

}  // namespace Utils
