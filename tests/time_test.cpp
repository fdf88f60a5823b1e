// SPDX-License-Identifier: MIT
// Time: random words beside exact arithmetic, and what that cannot see: the conversions in an
// expression, the rare quotients, and floating-point numbers that have no place in 64 bits.
#include "utils/sdk/time.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

#include "gtest/gtest.h"
#include "support/seed.h"

namespace {

using Utils::Time;

struct RawTime : Time {
  explicit RawTime(std::int64_t raw) : Time(raw, true) {}
  explicit RawTime(const Time& t) : Time(t) {}
  std::int64_t raw() const { return value_; }
};

Time timeOf(std::int64_t raw) { return RawTime(raw); }
std::int64_t rawOf(const Time& t) { return RawTime(t).raw(); }

// --- Exact arithmetic ---

// The low 64 bits of the product, added up digit by digit.
std::int64_t productOf(std::int64_t a, std::int64_t b) {
  std::uint64_t product = 0;
  for (unsigned i = 0; i < 64; i++)
    if (static_cast<std::uint64_t>(b) >> i & 1) product += static_cast<std::uint64_t>(a) << i;
  return static_cast<std::int64_t>(product);
}

std::int64_t floorOf(std::int64_t n, std::int64_t divisor) {
  const std::int64_t quotient = n / divisor;
  return n % divisor < 0 ? quotient - 1 : quotient;
}

std::int64_t sumOf(std::int64_t a, std::int64_t b) {
  std::int64_t sum;
  return __builtin_add_overflow(a, b, &sum), sum;
}

std::int64_t differenceOf(std::int64_t a, std::int64_t b) {
  std::int64_t difference;
  return __builtin_sub_overflow(a, b, &difference), difference;
}

std::int64_t quotientOf(std::int64_t a, std::int64_t b) {
  if (b == 0) return a == 0 ? 0 : rawOf(a > 0 ? Time::tmax() : Time::tmin());
  const std::int64_t dividend = productOf(a, 65536);
  return b == -1 ? productOf(dividend, -1) : dividend / b;
}

// The number cut towards zero and kept within 64 bits, from the bits that it is made of.
std::int64_t cutOf(double d) {
  if (std::isnan(d)) return 0;
  if (std::isinf(d)) return d < 0 ? INT64_MIN : INT64_MAX;
  int exponent;
  const std::int64_t mantissa = static_cast<std::int64_t>(std::ldexp(std::frexp(d, &exponent), 53));
  exponent += 16 - 53;
  if (mantissa != 0 && exponent > 10) return d < 0 ? INT64_MIN : INT64_MAX;
  if (exponent >= 0) return productOf(mantissa, std::int64_t{1} << exponent);
  return exponent <= -53 ? 0 : mantissa / (std::int64_t{1} << -exponent);
}

// --- The random run ---

// Words of every length, and those next to a power of two.
std::int64_t anyWord(Random& random) {
  const std::uint64_t bits = static_cast<std::uint64_t>(random.engine_()) << 32 | random.engine_();
  const unsigned length = random.below(64);
  if (random.below(4) != 0) return static_cast<std::int64_t>(bits) >> length;
  const std::uint64_t nearPower = (std::uint64_t{1} << length) + random.below(3) - 1;
  return static_cast<std::int64_t>(random.below(2) ? nearPower : 0 - nearPower);
}

void checkArithmetic(std::int64_t a, std::int64_t b) {
  Time t = timeOf(a), u = timeOf(b);
  const std::int64_t product = floorOf(productOf(a, b), 65536);
  EXPECT_EQ(rawOf(-t), differenceOf(0, a));
  EXPECT_EQ(rawOf(t + u), sumOf(a, b));
  EXPECT_EQ(rawOf(t - u), differenceOf(a, b));
  EXPECT_EQ(rawOf(t * u), product);
  EXPECT_EQ(rawOf(t / u), quotientOf(a, b));
  Time v = t;
  EXPECT_EQ(rawOf(((v += u) -= u) *= u), product);
  v = t;
  EXPECT_EQ(rawOf(v /= u), quotientOf(a, b));
  EXPECT_EQ(&(v += v), &v);
  EXPECT_EQ(rawOf(Time::floor(t)), floorOf(a, 65536) * 65536);
  EXPECT_EQ(rawOf(Time::ceil(t)), floorOf(sumOf(a, 65535), 65536) * 65536);
}

template <class Right>
void checkOrder(const Time& t, Right right, std::int64_t a, std::int64_t b) {
  EXPECT_EQ(t == right, a == b);
  EXPECT_EQ(t != right, a != b);
  EXPECT_EQ(t < right, a < b);
  EXPECT_EQ(t <= right, a <= b);
  EXPECT_EQ(t > right, a > b);
  EXPECT_EQ(t >= right, a >= b);
}

void checkIntegers(std::int64_t a, int i) {
  EXPECT_EQ(rawOf(Time(i)), std::int64_t{i} * 65536);
  EXPECT_EQ(static_cast<int>(timeOf(a)), static_cast<int>(floorOf(a, 65536)));
  EXPECT_EQ(static_cast<unsigned>(timeOf(a)), static_cast<unsigned>(floorOf(a, 65536)));
  EXPECT_EQ(static_cast<unsigned>(Time(static_cast<unsigned>(i))), static_cast<unsigned>(i));
}

void checkFloating(std::uint64_t bits, std::int64_t a) {
  double d;
  std::memcpy(&d, &bits, sizeof d);
  EXPECT_EQ(rawOf(Time(d)), cutOf(d)) << d;
  const float f =
      static_cast<float>(std::ldexp(static_cast<double>(a), -(1 + static_cast<int>(bits % 64))));
  EXPECT_EQ(rawOf(Time(f)), cutOf(f)) << f;
  checkOrder(timeOf(a), f, a, cutOf(f));
  EXPECT_TRUE(Time(f) == f);
  const std::int64_t narrow = a / (1 << 11), narrower = a / (std::int64_t{1} << 40);
  EXPECT_EQ(rawOf(Time(static_cast<double>(timeOf(narrow)))), narrow);
  EXPECT_EQ(rawOf(Time(static_cast<float>(timeOf(narrower)))), narrower);
  EXPECT_EQ(static_cast<bool>(timeOf(a)), a != 0);
  EXPECT_EQ(!timeOf(a), a == 0);
}

TEST(Time, RandomRunFollowsExactArithmetic) {
  Random random(4);
  for (int step = 0; step < 40000 && !testing::Test::HasFailure(); step++) {
    const std::int64_t a = anyWord(random), b = anyWord(random);
    SCOPED_TRACE(testing::Message() << "words " << a << " and " << b);
    checkArithmetic(a, b);
    checkOrder(timeOf(a), timeOf(b), a, b);
    checkOrder(timeOf(a), timeOf(a), a, a);
    checkIntegers(a, static_cast<int>(b >> random.below(33)));
    checkFloating(static_cast<std::uint64_t>(b), a);
    checkFloating(
        std::uint64_t{1023 + random.below(64)} << 52 | (static_cast<std::uint64_t>(b) >> 12), a);
  }
}

// --- What the words cannot see ---

TEST(Time, RareQuotients) {
  EXPECT_EQ(rawOf(Time(3) / Time(0)), rawOf(Time::tmax()));
  EXPECT_EQ(rawOf(Time(-3) / 0), rawOf(Time::tmin()));
  EXPECT_EQ(rawOf(Time(0) / 0), 0);
  EXPECT_EQ(rawOf(timeOf(INT64_MIN) / 0), rawOf(Time::tmin()))
      << "nothing of it is left in the shift";
  EXPECT_EQ(rawOf(Time::tmin() / timeOf(-1)), INT64_MIN);
}

TEST(Time, FloatingPointOutOfRange) {
  const double beyond = 140737488355328;  // 2^47: its word would be 2^63
  EXPECT_EQ(rawOf(Time(std::nextafter(beyond, 0))), 0x7ffffffffffffc00);
  EXPECT_EQ(rawOf(Time(beyond)), INT64_MAX);
  EXPECT_EQ(rawOf(Time(-beyond)), INT64_MIN);
  EXPECT_EQ(rawOf(Time(static_cast<float>(beyond))), INT64_MAX);
  EXPECT_EQ(rawOf(Time(-std::numeric_limits<double>::max())), INT64_MIN);
  EXPECT_EQ(rawOf(Time(std::numeric_limits<float>::infinity())), INT64_MAX);
  EXPECT_EQ(rawOf(Time(std::numeric_limits<float>::quiet_NaN())), 0);
  EXPECT_EQ(rawOf(Time(-std::numeric_limits<double>::quiet_NaN())), 0);
  const volatile double widest = timeOf(INT64_MAX);  // rounded, which a register need not be
  EXPECT_EQ(widest, beyond);
  EXPECT_EQ(static_cast<float>(timeOf(INT64_MIN)), -static_cast<float>(beyond));
}

// As one writes them; each must find one operator and no other conversion.
TEST(Time, Expressions) {
  EXPECT_TRUE(Time(0.5) * 2 == 1);
  EXPECT_TRUE(Time(1) / 2 == 0.5f);
  EXPECT_TRUE(Time(1) + 1 == Time(2u));
  EXPECT_TRUE(Time(1) - 3 == -2);
  EXPECT_TRUE(Time(2.5) > 2);
  EXPECT_TRUE(Time(0.1f) == 0.1f);
  EXPECT_EQ(static_cast<int>(Time(-1.5f)), -2);
  EXPECT_EQ(rawOf(Time(-1) / Time(3)), -21845);
  EXPECT_EQ(rawOf(timeOf(-1) * timeOf(1)), -1);
  EXPECT_TRUE(!Time(-0.00001f));
  EXPECT_TRUE(Time(0xffffffffu) > Time::tmax());
  EXPECT_EQ(rawOf(Time::tmin()), -0x800000000000);
  EXPECT_EQ(rawOf(Time::tmax()), 0x7fffffffffff);
}

static_assert(std::is_trivially_copyable<Time>::value);

}  // namespace
