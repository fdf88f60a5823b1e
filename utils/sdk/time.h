// SPDX-License-Identifier: MIT
// A signed fixed-point number with 16 fractional bits, as a plain value.
//
// Not a clock: nothing here reads the time, allocates or reports, and the caller decides what one
// unit is (a second, a frame). A Time is one 64-bit word.
//
// value_ is the number times 65536 in two's complement: 1 is 0x10000, -1.5 is -0x18000, and the
// smallest step is 1/65536. The operations are made for the range from tmin() to tmax(), that of a
// 32-bit integer part, but do not check it: sums are exact in all 64 bits and wrap beyond; products
// and dividends must be within 2^31 units and wrap beyond. Products and conversions to integers
// round down; quotients and conversions from floating-point numbers round towards zero: -1 / 3 is
// -21845 steps, and -1 step times half a unit is -1 step.
//
// A number and a Time compare and calculate in either order, as Time(number) does. chrono.h
// converts from and to the durations of std::chrono, hash.h has std::hash.
//
// Thread safety: functions share no state; the caller serialises changes of one Time.
#pragma once

#ifdef __cpp_impl_three_way_comparison
#include <compare>
#endif

#include "utils/sdk/export.h"

namespace Utils {

template <class T>
struct TimeConversion;  // of a type that converts to a Time by another header (chrono.h)

struct YUTILS_EXPORT Time {
  Time() = default;  // `Time t;` has no value, Time() is 0
  Time(unsigned u) : value_(static_cast<long long>(u) * ONE) {}
  Time(int i) : value_(i * ONE) {}
  // A number beyond the 64 bits becomes the nearest end of their range, a NaN becomes 0.
  Time(float f) : value_(rawOf(f * 65536.0)) {}
  Time(double d) : value_(rawOf(d * 65536.0)) {}
  template <class T,
            class Raw = decltype(TimeConversion<T>::rawOf(*static_cast<const T*>(nullptr)))>
  explicit Time(const T& value) : value_(TimeConversion<T>::rawOf(value)) {}
  Time(const Time&) = default;
  Time& operator=(const Time&) = default;

  operator unsigned() const { return static_cast<unsigned>(value_ >> 16); }  // modulo 2^32
  operator int() const { return static_cast<int>(value_ >> 16); }            // likewise
  operator float() const { return static_cast<float>(value_) / 65536.0f; }
  operator double() const { return static_cast<double>(value_) / 65536.0; }
  operator bool() const { return value_ != 0; }
  bool operator!() const { return value_ == 0; }

  Time operator-() const { return wrapped(0 - bits()); }
  Time operator+(const Time& t) const { return wrapped(bits() + t.bits()); }
  Time operator-(const Time& t) const { return wrapped(bits() - t.bits()); }
  Time operator*(const Time& t) const { return Time(signedOf(bits() * t.bits()) >> 16, true); }
  // A division by zero returns tmax(), tmin() or 0, by the sign of the dividend.
  Time operator/(const Time& t) const { return Time(quotient(value_, t.value_), true); }

  Time operator+(int i) const { return *this + Time(i); }
  Time operator-(int i) const { return *this - Time(i); }
  Time operator*(int i) const { return *this * Time(i); }
  Time operator/(int i) const { return *this / Time(i); }

  Time& operator+=(const Time& t) { return *this = *this + t; }
  Time& operator-=(const Time& t) { return *this = *this - t; }
  Time& operator*=(const Time& t) { return *this = *this * t; }
  Time& operator/=(const Time& t) { return *this = *this / t; }

  bool operator==(const Time& t) const { return value_ == t.value_; }
  bool operator!=(const Time& t) const { return value_ != t.value_; }
  bool operator<(const Time& t) const { return value_ < t.value_; }
  bool operator<=(const Time& t) const { return value_ <= t.value_; }
  bool operator>(const Time& t) const { return value_ > t.value_; }
  bool operator>=(const Time& t) const { return value_ >= t.value_; }

  bool operator==(int i) const { return *this == Time(i); }
  bool operator!=(int i) const { return *this != Time(i); }
  bool operator<(int i) const { return *this < Time(i); }
  bool operator<=(int i) const { return *this <= Time(i); }
  bool operator>(int i) const { return *this > Time(i); }
  bool operator>=(int i) const { return *this >= Time(i); }

  // Compare as fixed-point numbers: equal to every float that converts to the same step.
  bool operator==(float f) const { return *this == Time(f); }
  bool operator!=(float f) const { return *this != Time(f); }
  bool operator<(float f) const { return *this < Time(f); }
  bool operator<=(float f) const { return *this <= Time(f); }
  bool operator>(float f) const { return *this > Time(f); }
  bool operator>=(float f) const { return *this >= Time(f); }

#ifdef __cpp_impl_three_way_comparison
  std::strong_ordering operator<=>(const Time& t) const { return value_ <=> t.value_; }
  std::strong_ordering operator<=>(int i) const { return *this <=> Time(i); }
  std::strong_ordering operator<=>(float f) const { return *this <=> Time(f); }
#endif

  static Time tmin() { return Time(-TMAX - 1, true); }  // -2147483648
  static Time tmax() { return Time(TMAX, true); }       // one step below 2147483648

  // Round to the whole unit at or below t, or at or above t. ceil wraps in the highest unit of the
  // 64 bits.
  static Time floor(const Time& t) { return Time(t.value_ & -ONE, true); }
  static Time ceil(const Time& t) { return floor(wrapped(t.bits() + (ONE - 1))); }

 protected:
  Time(long long raw, bool) : value_(raw) {}  // sets the word itself

 private:
  template <class T>
  friend struct TimeConversion;

  using Bits = unsigned long long;

  static constexpr long long ONE = 0x10000;
  static constexpr long long TMAX = 0x7fffffffffff;

  static long long signedOf(Bits bits) { return static_cast<long long>(bits); }
  static Time wrapped(Bits bits) { return Time(signedOf(bits), true); }
  Bits bits() const { return static_cast<Bits>(value_); }

  static long long rawOf(double scaled) {
    const bool fits = scaled >= -0x1p63 && scaled < 0x1p63;
    return fits ? static_cast<long long>(scaled) : saturated(scaled);
  }

  static long long quotient(long long dividend, long long divisor) {
    if (static_cast<Bits>(divisor) + 1 <= 1) return rareQuotient(dividend, divisor);
    return signedOf(static_cast<Bits>(dividend) << 16) / divisor;
  }

  static long long saturated(double scaled);
  static long long rareQuotient(long long dividend, long long divisor);

 protected:
  long long value_;
};

static_assert(sizeof(Time) == 8, "one word");

// Has a type for every operand that is no object of a class. Such an object, even if it converts to
// a number, keeps its own operators.
template <bool isClass>
struct TimeOperand {};
template <>
struct TimeOperand<false> {
  using Type = int;
};

// A number beside a Time counts as a Time. Without these operators it would be converted to int, or
// the Time to one of several numbers. The + refuses a Time, which several numbers can stand for. An
// int on the right is left to the members above, as they are no templates.
#define YUTILS_TIME_AND_NUMBER(OP)                                            \
  template <class Number, typename TimeOperand<__is_class(Number)>::Type = 0> \
  auto operator OP(const Time& a, Number b)->decltype(a OP Time(+b)) {        \
    return a OP Time(+b);                                                     \
  }                                                                           \
  template <class Number, typename TimeOperand<__is_class(Number)>::Type = 0> \
  auto operator OP(Number a, const Time& b)->decltype(Time(+a) OP b) {        \
    return Time(+a) OP b;                                                     \
  }
YUTILS_TIME_AND_NUMBER(+)
YUTILS_TIME_AND_NUMBER(-)
YUTILS_TIME_AND_NUMBER(*)
YUTILS_TIME_AND_NUMBER(/)
YUTILS_TIME_AND_NUMBER(==)
YUTILS_TIME_AND_NUMBER(!=)
YUTILS_TIME_AND_NUMBER(<)
YUTILS_TIME_AND_NUMBER(<=)
YUTILS_TIME_AND_NUMBER(>)
YUTILS_TIME_AND_NUMBER(>=)
#undef YUTILS_TIME_AND_NUMBER

}  // namespace Utils
