// SPDX-License-Identifier: MIT
// Time: words worked out by hand, conversions, and what one finds in an expression. The order is
// tested in comparison_test.cpp.
#include "utils/sdk/time.h"

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "gtest/gtest.h"

namespace {

using Utils::Time;

struct RawTime : Time {
  explicit RawTime(std::int64_t raw) : Time(raw, true) {}
  explicit RawTime(const Time& t) : Time(t) {}
  std::int64_t raw() const { return value_; }
};

Time timeOf(std::int64_t raw) { return RawTime(raw); }
std::int64_t rawOf(const Time& t) { return RawTime(t).raw(); }

struct Operands {
  std::int64_t a, b, sum, difference, product, quotient;
};

// The exact results, cut to 64 bits; the dividend is cut before it is divided.
constexpr Operands OPERANDS[] = {
    {0x18000, 0x28000, 0x40000, -0x10000, 0x3c000, 0x9999},
    {-0x18000, 0x28000, 0x10000, -0x40000, -0x3c000, -0x9999},
    {-1, 1, 0, -2, -1, -0x10000},
    {-0x10000, 0x30000, 0x20000, -0x40000, -0x30000, -0x5555},
    {0x7fff, -0x8000, -1, 0xffff, -0x4000, -0xfffe},
    {0x123456789abc, -0x7edcba98, 0x1233d79be024, 0x1234d5555554, -0x74ce81b47999, -0x24bc44e1},
    {-0x123456789abcdef, 0x1ffff, -0x123456789a9cdf0, -0x123456789adcdee, 0x7654320fedcd,
     -0x22b3d62fd20f},
    {0x7fffffffffff, -0x800000000000, -1, 0xffffffffffff, 0x80000000, -0xffff},
    {-0x800000000000, -1, -0x800000000001, -0x7fffffffffff, 0x80000000, INT64_MIN},
    {INT64_MAX, 0x10001, -0x7fffffffffff0000, 0x7ffffffffffefffe, 0x7ffffffffffe, 0},
    {INT64_MIN, -1, INT64_MAX, -0x7fffffffffffffff, -0x800000000000, 0},
    {INT64_MIN, INT64_MAX, -1, 1, -0x800000000000, 0},
    {5, 0, 5, 5, 0, 0x7fffffffffff},
    {-5, 0, -5, -5, 0, -0x800000000000},
    {INT64_MIN, 0, INT64_MIN, INT64_MIN, 0, -0x800000000000},
    {0, 0, 0, 0, 0, 0},
};

TEST(Time, ArithmeticIsExact) {
  for (const auto& [a, b, sum, difference, product, quotient] : OPERANDS) {
    SCOPED_TRACE(testing::Message() << "words " << a << " and " << b);
    Time t = timeOf(a), u = timeOf(b), v = t, w = t;
    EXPECT_EQ(rawOf(t + u), sum);
    EXPECT_EQ(rawOf(t - u), difference);
    EXPECT_EQ(rawOf(t * u), product);
    EXPECT_EQ(rawOf(t / u), quotient);
    EXPECT_EQ(rawOf(-t), rawOf(timeOf(0) - t));
    EXPECT_EQ(rawOf((v += u) -= u), a);
    EXPECT_EQ(rawOf(v *= u), product);
    EXPECT_EQ(rawOf(w /= u), quotient);
    EXPECT_EQ(static_cast<bool>(t), a != 0);
    EXPECT_EQ(!t, a == 0);
  }
}

struct Whole {
  std::int64_t raw, floor, ceil;
  int integer;
};

TEST(Time, FromAndToWholeUnits) {
  const Whole numbers[] = {{0, 0, 0, 0},
                           {1, 0, 0x10000, 0},
                           {-1, -0x10000, 0, -1},
                           {-0x18000, -0x20000, -0x10000, -2},
                           {INT64_MAX, 0x7fffffffffff0000, INT64_MIN, -1},
                           {INT64_MIN, INT64_MIN, INT64_MIN, 0}};
  for (const auto& [raw, floor, ceil, integer] : numbers) {
    EXPECT_EQ(rawOf(Time::floor(timeOf(raw))), floor);
    EXPECT_EQ(rawOf(Time::ceil(timeOf(raw))), ceil);
    EXPECT_EQ(static_cast<int>(timeOf(raw)), integer);
    EXPECT_EQ(static_cast<unsigned>(timeOf(raw)), static_cast<unsigned>(integer));
  }
  EXPECT_EQ(rawOf(INT32_MIN), -0x800000000000);
  EXPECT_EQ(rawOf(0xffffffffu), 0xffffffff0000);
}

// Numbers are cut towards zero, and kept within 64 bits.
TEST(Time, FromAndToFloatingPoint) {
  const double beyond = 140737488355328;  // 2^47: its word would be 2^63
  const std::pair<double, std::int64_t> numbers[] = {
      {0.5, 0x8000},
      {-1.5, -0x18000},
      {0.1, 6553},
      {-123456.789, -8090864123},
      {1e-5, 0},
      {-1e-5, 0},
      {beyond, INT64_MAX},
      {std::nextafter(beyond, 0), 0x7ffffffffffffc00},
      {-beyond, INT64_MIN},
      {-DBL_MAX, INT64_MIN},
      {-INFINITY, INT64_MIN},
      {INFINITY, INT64_MAX},
      {NAN, 0},
      {-NAN, 0}};
  for (const auto& [number, raw] : numbers) EXPECT_EQ(rawOf(Time(number)), raw) << number;
  for (const float number : {0.1f, -1.5f, -static_cast<float>(beyond), NAN, INFINITY})
    EXPECT_EQ(rawOf(Time(number)), rawOf(Time(double{number}))) << number;
  const volatile double widest = timeOf(INT64_MAX);  // rounded, which a register need not be
  EXPECT_EQ(widest, beyond);
  EXPECT_EQ(static_cast<double>(timeOf(-0x18001)), -1.5 - 1.0 / 65536);
  EXPECT_EQ(static_cast<float>(timeOf(0x28000)), 2.5f);
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
  EXPECT_TRUE(!Time(-0.00001f));
  EXPECT_TRUE(Time(0xffffffffu) > Time::tmax());
  EXPECT_EQ(rawOf(Time::tmin()), -0x800000000000);
  EXPECT_EQ(rawOf(Time::tmax()), 0x7fffffffffff);
}

static_assert(std::is_trivially_copyable<Time>::value);

}  // namespace
