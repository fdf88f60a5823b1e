// SPDX-License-Identifier: MIT
// UID: a run on a scripted clock, order and text beside models, and texts that nobody wrote.
#include "utils/sdk/uid.h"

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "gtest/gtest.h"
#include "support/seed.h"

namespace {

std::time_t _clock = 0x23EF45BF;  // second 0 of an identifier

}  // namespace

// The clock of this program.
extern "C" std::time_t time(std::time_t* copy) noexcept {
  if (copy) *copy = _clock;
  return _clock;
}

// Asked for where that one fails.
extern "C" double YIF_CurrentTime() noexcept { return 3000000000.75; }

namespace {

using Utils::UID;
using Words = std::tuple<unsigned, unsigned, unsigned>;

constexpr unsigned EPOCH = 0x23EF45BF;

Words wordsOf(const UID& uid) { return {uid.machineNum(), uid.timeBits(), uid.tickBits()}; }
UID uidOf(const Words& words) { return std::make_from_tuple<UID>(words); }

std::string textOf(UID uid) { return std::string(static_cast<const char*>(uid.asText())); }

// In a block that ends with the terminator, so that a sanitizer sees a step beyond it.
Words wordsIn(const std::string& text) {
  const std::vector<char> block(text.c_str(), text.c_str() + text.size() + 1);
  return wordsOf(UID(block.data()));
}

unsigned anyWord(Random& random) {
  return static_cast<unsigned>(random.engine_() >> random.below(32));
}

TEST(Uid, CountsWithinTheSecond) {
  Random random(5);
  unsigned second = 0, tick = 0;
  for (int step = 0; step < 2000; step++) {
    if (step != 0 && random.below(4) == 0) {
      const auto jump = static_cast<std::uint64_t>(random.engine_()) << random.below(32);
      _clock = random.below(2) ? _clock + 1 - random.below(3) : static_cast<std::time_t>(jump);
    }
    if (random.below(16) == 0) UID::ourMachineNum(anyWord(random));
    if (step != 0 && random.below(16) == 0) _clock = -1;
    const UID made, next;
    const unsigned now = (_clock == -1 ? 3000000000u : static_cast<unsigned>(_clock)) - EPOCH;
    tick = now == second ? tick + 1 : 0;
    second = now;
    ASSERT_EQ(wordsOf(made), Words(UID::ourMachineNum(), now, tick)) << "step " << step;
    ASSERT_EQ(wordsOf(next), Words(UID::ourMachineNum(), now, ++tick)) << "step " << step;
    ASSERT_TRUE(next > made);
  }
}

TEST(Uid, NumberOfTheMachine) {
  UID::ourMachineNum(0);
  EXPECT_EQ(UID::ourMachineNum_, 0u);
  EXPECT_EQ(UID().machineNum(), 0xC0D1F1EDu);
  EXPECT_EQ(UID::ourMachineNum(), 0xC0D1F1EDu);
  EXPECT_EQ(UID::ourMachineNum_, 0xC0D1F1EDu);
}

TEST(Uid, TextAndBack) {
  Random random(7);
  for (int step = 0; step < 4000; step++) {
    const Words words(anyWord(random), anyWord(random), anyWord(random));
    const auto [machine, second, tick] = words;
    char expected[25];
    std::snprintf(expected, sizeof expected, "%08X%08X%X", machine, second, tick);
    const std::string text = textOf(uidOf(words));
    if (words == Words(0, 0, 0)) continue;
    ASSERT_EQ(text, expected);
    ASSERT_EQ(wordsIn(text), words);
  }
  EXPECT_EQ(textOf(UID(0, 0, 1)), "00000000000000001");
  EXPECT_EQ(textOf(UID(0, 0, 0)), "0");
}

TEST(Uid, MalformedTextsReadAsFarAsTheyGo) {
  const std::string two = "0000000100000002";
  EXPECT_EQ(wordsIn("0"), Words(0, 0, 0));
  EXPECT_EQ(wordsIn("1234567"), Words(0x1234567, 0, 0));
  EXPECT_EQ(wordsIn(two), Words(1, 2, 0));
  EXPECT_EQ(wordsIn("12G45678abcdefgh5"), Words(0x12, 0xabcdef, 5));
  EXPECT_EQ(wordsIn(" 0x1f   +a-----------1"), Words(0x1f, 10, 0));
  EXPECT_EQ(wordsIn(two + "3 4"), Words(1, 2, 3));
  EXPECT_EQ(wordsIn(two + "0x12345678"), Words(1, 2, 0x12345678));
  EXPECT_EQ(wordsIn(two + "-2"), Words(1, 2, 0xfffffffe));
  EXPECT_EQ(wordsIn(two + "0000000000000000012"), Words(1, 2, 0x12));
  for (const char* large : {"100000000", "1234567890", "ffffffffffffffffffff", "-100000000"})
    EXPECT_EQ(wordsIn(two + large), Words(1, 2, 0xffffffff)) << large;
}

TEST(Uid, NullAndReserved) {
  UID uid(5, 0x0fffffff, 0);
  EXPECT_TRUE(uid.isReserved());
  EXPECT_FALSE(UID(5, 0x10000000, 0).isReserved());
  uid.nullify();
  for (const UID& null : {uid, UID(static_cast<const char*>(nullptr)), UID(""), UID::nullUID()}) {
    EXPECT_EQ(wordsOf(null), Words(0, 0, 0));
    EXPECT_FALSE(null.isReserved() || null.valid());
  }
  EXPECT_TRUE(UID(0, 0, 1).valid() && UID(0, 1, 0).valid() && UID(1, 0, 0).valid());
  EXPECT_TRUE(UID(1, 0, 0).compare(UID(2, 0, 0)) == 1 && UID(2, 0, 0).compare(UID(1, 0, 0)) == -1);
  static_assert(std::is_same<decltype(UID() < UID()), int>::value);
}

}  // namespace
