// SPDX-License-Identifier: MIT
// Conversion between Time and the durations of std::chrono. One unit of the Time is a second.
//
//   Utils::Time timeout(std::chrono::milliseconds(250));  // 0.25
//   std::this_thread::sleep_for(Utils::durationOf<std::chrono::microseconds>(timeout));
//
// Both directions round to the nearest step, halves up: one millisecond is 65.536 steps of 1/65536
// second and becomes 66 of them, which are again 1 millisecond. A value beyond the range of the
// result becomes the nearest end of the range. With a floating-point number of ticks, both are
// those of Time(double) and of its conversion to double.
//
// Thread safety: functions share no state.
#pragma once

#include <chrono>
#include <limits>
#include <type_traits>

#include "utils/sdk/time.h"

namespace Utils {

template <class Rep, class Period>
struct TimeConversion<std::chrono::duration<Rep, Period>> {
  using Duration = std::chrono::duration<Rep, Period>;

  static long long rawOf(const Duration& duration) {
    if constexpr (std::is_floating_point_v<Rep>) {
      return Time(static_cast<double>(duration.count()) * NUM / DEN).value_;
    } else {
      const long long seconds = product(clamped<long long>(duration.count()), NUM);
      const long long whole = floorOf(seconds, DEN);
      return sum(product(whole, ONE), (restOf(seconds, DEN) * ONE + DEN / 2) / DEN);
    }
  }

  static Duration durationOf(const Time& time) {
    if constexpr (std::is_floating_point_v<Rep>) {
      return Duration(static_cast<Rep>(static_cast<double>(time) * DEN / NUM));
    } else {
      const long long whole = floorOf(time.value_, ONE);
      const long long part = restOf(time.value_, ONE) * DEN;  // in ticks / 65536
      const long long ticks = sum(product(whole, DEN), part / ONE);
      const long long count = floorOf(ticks, NUM);
      const long long rest = restOf(ticks, NUM) * ONE + part % ONE;
      return Duration(clamped<Rep>(sum(count, rest >= (NUM * ONE + 1) / 2)));
    }
  }

 private:
  static constexpr long long ONE = 0x10000;
  static constexpr long long NUM = Period::num;
  static constexpr long long DEN = Period::den;
  static constexpr long long LOWEST = std::numeric_limits<long long>::min();
  static constexpr long long HIGHEST = std::numeric_limits<long long>::max();
  static_assert(NUM < 1LL << 46 && DEN < 1LL << 46, "the products with 65536 fit");

  template <class To, class From>
  static To clamped(From value) {
    using Limits = std::numeric_limits<To>;
    if (value < 0 && (!Limits::is_signed || static_cast<long long>(value) < LOWEST_OF<Limits>))
      return Limits::min();
    if (value > 0 && static_cast<unsigned long long>(value) > HIGHEST_OF<Limits>)
      return Limits::max();
    return static_cast<To>(value);
  }
  template <class Limits>
  static constexpr long long LOWEST_OF = static_cast<long long>(Limits::min());
  template <class Limits>
  static constexpr unsigned long long HIGHEST_OF = static_cast<unsigned long long>(Limits::max());

  static long long floorOf(long long a, long long b) { return a / b - (a % b < 0); }
  static long long restOf(long long a, long long b) { return a % b + (a % b < 0 ? b : 0); }
  static long long product(long long a, long long b) {
    long long result;
    return __builtin_mul_overflow(a, b, &result) ? a < 0 ? LOWEST : HIGHEST : result;
  }
  static long long sum(long long a, long long b) {
    long long result;
    return __builtin_add_overflow(a, b, &result) ? a < 0 ? LOWEST : HIGHEST : result;
  }
};

// Returns the Time, in seconds, as a duration.
template <class Duration>
Duration durationOf(const Time& time) {
  return TimeConversion<Duration>::durationOf(time);
}

}  // namespace Utils
