// SPDX-License-Identifier: MIT
// The time of an operation on one of the plain values.
//
// The peers of a Time are 64-bit integers that hold the same words, with the operation written out
// by hand: a + b, (a * b) >> 16, (a << 16) / b and a < b. Each side works through the same arrays
// of random words within the range of a Time; divisors have at most as many bits as dividends, and
// none is 0, since the integers would trap.
//
// The peer of a new UID is a call for the current time, which is part of it. The peers of its
// conversion to text and back, with words of any size, are those of libuuid's 128-bit identifiers.
#include <uuid/uuid.h>

#include <array>
#include <cstdint>
#include <ctime>
#include <random>
#include <type_traits>
#include <vector>

#include "benchmarks/support/lines.h"
#include "utils/sdk/time.h"
#include "utils/sdk/uid.h"

namespace Bench {

namespace {

constexpr unsigned COUNT = 1024;

// --- Time ---

struct RawTime : Utils::Time {
  explicit RawTime(std::int64_t raw) : Time(raw, true) {}
};

template <class Value>
Value valueOf(std::int64_t word) {
  if constexpr (std::is_integral_v<Value>)
    return word;
  else
    return RawTime(word);
}

std::int64_t multiplied(std::int64_t a, std::int64_t b) { return (a * b) >> 16; }
Utils::Time multiplied(Utils::Time a, Utils::Time b) { return a * b; }
std::int64_t divided(std::int64_t a, std::int64_t b) { return a * 65536 / b; }
Utils::Time divided(Utils::Time a, Utils::Time b) { return a / b; }

// The operations, each for both types.
struct Add {
  static constexpr char LINE[] = "Time: add";
  static constexpr unsigned LEFT_BITS = 47, RIGHT_BITS = 47;
  template <class Value>
  static Value of(Value a, Value b) {
    return a + b;
  }
};

struct Multiply {
  static constexpr char LINE[] = "Time: multiply";
  static constexpr unsigned LEFT_BITS = 32, RIGHT_BITS = 31;
  template <class Value>
  static Value of(Value a, Value b) {
    return multiplied(a, b);
  }
};

struct Divide {
  static constexpr char LINE[] = "Time: divide";
  static constexpr unsigned LEFT_BITS = 47, RIGHT_BITS = 32;
  template <class Value>
  static Value of(Value a, Value b) {
    return divided(a, b);
  }
};

struct Compare {
  static constexpr char LINE[] = "Time: compare";
  static constexpr unsigned LEFT_BITS = 47, RIGHT_BITS = 47;
  template <class Value>
  static bool of(Value a, Value b) {
    return a < b;
  }
};

// Returns a signed word of up to that many bits, never 0 or -1.
std::int64_t wordOf(std::mt19937_64& random, unsigned bits) {
  const std::uint64_t word = random() >> (64 - bits) | 2;
  return random() % 2 ? static_cast<std::int64_t>(word) : -static_cast<std::int64_t>(word);
}

template <class Value, class Operation>
void goThrough(benchmark::State& state) {
  std::mt19937_64 random(20240229);
  std::array<Value, COUNT> left, right;
  std::array<decltype(Operation::of(Value(), Value())), COUNT> results;
  for (unsigned i = 0; i < COUNT; i++) {
    left[i] = valueOf<Value>(wordOf(random, Operation::LEFT_BITS));
    right[i] = valueOf<Value>(wordOf(random, Operation::RIGHT_BITS));
  }
  for (auto* array : {left.data(), right.data()}) benchmark::DoNotOptimize(array);
  for (auto _ : state) {
    for (unsigned i = 0; i < COUNT; i++) results[i] = Operation::of(left[i], right[i]);
    benchmark::DoNotOptimize(results.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * COUNT);
}

template <class Operation>
void addTime() {
  benchmark::RegisterBenchmark(lineOf(Operation::LINE, "yutils").c_str(),
                               goThrough<Utils::Time, Operation>);
  benchmark::RegisterBenchmark(lineOf(Operation::LINE, "int64").c_str(),
                               goThrough<std::int64_t, Operation>);
}

// --- UID ---

void makeUid(benchmark::State& state) {
  for (auto _ : state) {
    Utils::UID uid;
    benchmark::DoNotOptimize(uid);
  }
}

void askForTime(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(std::time(nullptr));
}

struct OurIdentifier {
  explicit OurIdentifier(std::mt19937& random)
      : uid_(wordOf(random), wordOf(random), wordOf(random)) {}

  void toTextAndBack() {
    const Utils::String text = uid_.asText();
    uid_ = Utils::UID(static_cast<const char*>(text));
  }

  static std::uint32_t wordOf(std::mt19937& random) { return static_cast<std::uint32_t>(random()); }

  Utils::UID uid_;
};

struct TheirIdentifier {
  explicit TheirIdentifier(std::mt19937& random) {
    for (unsigned char& byte : uuid_) byte = static_cast<unsigned char>(random());
  }

  void toTextAndBack() {
    char text[UUID_STR_LEN];
    uuid_unparse_upper(uuid_, text);
    uuid_parse(text, uuid_);
  }

  uuid_t uuid_;
};

template <class Identifier>
void toTextAndBack(benchmark::State& state) {
  std::mt19937 random(20240229);
  std::vector<Identifier> identifiers;
  for (unsigned i = 0; i < COUNT; i++) identifiers.emplace_back(random);
  unsigned next = 0;
  for (auto _ : state) {
    identifiers[next++ % COUNT].toTextAndBack();
    benchmark::ClobberMemory();
  }
}

void addUid() {
  const char* made = "UID: a new one";
  benchmark::RegisterBenchmark(lineOf(made, "yutils").c_str(), makeUid);
  benchmark::RegisterBenchmark(lineOf(made, "time()").c_str(), askForTime);
  const char* text = "UID: to text and back";
  benchmark::RegisterBenchmark(lineOf(text, "yutils").c_str(), toTextAndBack<OurIdentifier>);
  benchmark::RegisterBenchmark(lineOf(text, "libuuid").c_str(), toTextAndBack<TheirIdentifier>);
}

}  // namespace

void registerLines() {
  addTime<Add>();
  addTime<Multiply>();
  addTime<Divide>();
  addTime<Compare>();
  addUid();
}

}  // namespace Bench
