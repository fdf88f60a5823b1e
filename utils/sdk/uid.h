// SPDX-License-Identifier: MIT
// An identifier of 96 bits that is made on the spot, as a plain value.
//
// Three words: the number of the machine, the second of the making, counted from 1989-02-07
// 19:38:39 UTC, and a running number within that second. No service hands them out and nothing
// guarantees them: two machines that set no number of their own have the same one, and a clock that
// is put back can make an identifier again.
//
// As text it is the words in hexadecimal, one behind the other, the first two with 8 digits each
// and the third with as many as it needs: 1, 2, 0x3A is "00000001000000023A". The null identifier,
// whose words are 0, is "0". Identifiers are ordered word by word.
//
// The default constructor counts for the whole process without a lock: whoever makes identifiers in
// several tasks serialises it. Everything else may be called from any task on an identifier that no
// other task is changing.
#pragma once

#ifdef __cpp_impl_three_way_comparison
#include <compare>
#endif
#include <ctime>

#include "utils/sdk/export.h"
#include "utils/sdk/string.h"

namespace Utils {

struct YUTILS_EXPORT UID {
  UID();  // a new identifier of this machine
  UID(unsigned machineNum, unsigned timeBits, unsigned tickBits)
      : machineNum_(machineNum), timeBits_(timeBits), tickBits_(tickBits) {}
  // From the text form, each word as strtoul reads it: a word ends at the first character that is
  // no digit, and one that is missing is 0. Null stands for an empty text, the null identifier.
  UID(const char* text);
  UID(const UID&) = default;
  UID& operator=(const UID&) = default;

  void nullify() { *this = UID(0, 0, 0); }

  unsigned machineNum() const { return machineNum_; }
  unsigned timeBits() const { return timeBits_; }
  unsigned tickBits() const { return tickBits_; }
  bool valid() const { return (machineNum_ | timeBits_ | tickBits_) != 0; }  // not null
  // Valid and of a second before 1997-08-11 17:02:55 UTC, where no clock makes one any more.
  bool isReserved() const { return valid() && timeBits_ < 0x10000000u; }
  String asText();

  // 1 where the other is the greater, -1 where this one is, 0 where they are equal.
  int compare(const UID& other) const;
  int operator==(const UID& other) const { return compare(other) == 0; }
  int operator!=(const UID& other) const { return compare(other) != 0; }
  int operator<(const UID& other) const { return compare(other) > 0; }
  int operator<=(const UID& other) const { return compare(other) >= 0; }
  int operator>(const UID& other) const { return compare(other) < 0; }
  int operator>=(const UID& other) const { return compare(other) <= 0; }
#ifdef __cpp_impl_three_way_comparison
  std::strong_ordering operator<=>(const UID& other) const { return 0 <=> compare(other); }
#endif

  // Goes into the identifiers made from then on. 0 stands for the default, 0xC0D1F1ED.
  static void ourMachineNum(unsigned n) { ourMachineNum_ = n; }
  static unsigned ourMachineNum() {
    if (ourMachineNum_ == 0) ourMachineNum_ = 0xC0D1F1EDu;
    return ourMachineNum_;
  }
  static const UID& nullUID();

  static unsigned ourMachineNum_;  // 0 until it is set or asked for

 private:
  static constexpr unsigned EPOCH = 0x23EF45BFu;  // in seconds since 1970

  static unsigned systemSeconds();  // since 1970, where the runtime library cannot tell them

  static int lastTime_;   // second and running number of the latest identifier; one pair for the
  static unsigned tick_;  // whole process, whichever library the constructor was compiled into

  unsigned machineNum_;
  unsigned timeBits_;
  unsigned tickBits_;
};

static_assert(sizeof(UID) == 12, "the three words and nothing else");

// In place, since a call into the library would take as long as asking for the time does. A time_t
// of 32 bits holds no second after 2038-01-19.
inline UID::UID() : machineNum_(ourMachineNum()) {
  const std::time_t reading = std::time(nullptr);
  const bool failed = __builtin_expect(reading == static_cast<std::time_t>(-1), false);
  const unsigned seconds = failed ? systemSeconds() : static_cast<unsigned>(reading);
  const int now = static_cast<int>(seconds - EPOCH);
  tick_ = now == lastTime_ ? tick_ + 1 : 0;
  lastTime_ = now;
  timeBits_ = static_cast<unsigned>(now);
  tickBits_ = tick_;
}

}  // namespace Utils
