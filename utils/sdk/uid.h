// SPDX-License-Identifier: MIT
// An identifier of 96 bits that is created locally, as a plain value.
//
// Three words: the number of the machine, the second of the creation, counted from 1989-02-07
// 19:38:39 UTC, and a running number within that second. Not guaranteed to be unique: two machines
// that set no number of their own have the same one, and after a clock was set back an identifier
// can be created again.
//
// The text form is the words in hexadecimal without separators, the first two with 8 digits each,
// the third with as many as it needs: 1, 2, 0x3A is "00000001000000023A". The null identifier,
// whose words are 0, is "0". Identifiers are ordered word by word.
//
// Thread safety: the default constructor, ourMachineNum and the static fields share one state of
// the process without a lock; the caller serialises them. All other operations may be called from
// any task on an identifier that no other task is changing.
#pragma once

#ifdef __cpp_impl_three_way_comparison
#include <compare>
#endif
#include <ctime>
#include <string_view>

#include "utils/sdk/export.h"
#include "utils/sdk/string.h"

namespace Utils {

struct YUTILS_EXPORT UID {
  UID();  // a new identifier of this machine
  UID(unsigned machineNum, unsigned timeBits, unsigned tickBits)
      : machineNum_(machineNum), timeBits_(timeBits), tickBits_(tickBits) {}
  // Reads the text form: two words of 8 characters each, and the rest as the third. Each is read as
  // strtoul reads it, in base 16: only up to its first character that is not a digit. A missing
  // word is 0. A null `text` counts as empty, the null identifier.
  UID(const char* text);
  UID(const UID&) = default;
  UID& operator=(const UID&) = default;

  void nullify() { *this = UID(0, 0, 0); }

  unsigned machineNum() const { return machineNum_; }
  unsigned timeBits() const { return timeBits_; }
  unsigned tickBits() const { return tickBits_; }
  bool valid() const { return (machineNum_ | timeBits_ | tickBits_) != 0; }  // not null
  // True if valid and of a second before 1997-08-11 17:02:55 UTC, which no right clock shows now.
  bool isReserved() const { return valid() && timeBits_ < 0x10000000u; }
  String asText();  // returns the text form; empty if there is no memory
  String asText() const { return UID(*this).asText(); }

  // Returns 1 if `other` is greater, -1 if this one is, 0 if they are equal.
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

  // Sets the machine number of the identifiers that are created from then on. 0 stands for the
  // default, 0xC0D1F1ED.
  static void ourMachineNum(unsigned n) { ourMachineNum_ = n; }
  static unsigned ourMachineNum() {
    if (ourMachineNum_ == 0) ourMachineNum_ = 0xC0D1F1EDu;
    return ourMachineNum_;
  }
  static const UID& nullUID();

  static unsigned ourMachineNum_;  // 0 until it is set or read by ourMachineNum()

 private:
  static constexpr unsigned EPOCH = 0x23EF45BFu;  // in seconds since 1970

  static unsigned systemSeconds();  // since 1970; called if std::time fails

  // The second and running number of the latest identifier of the process. Exported data, so that
  // every library that compiles the constructor inline shares them.
  static int lastTime_;
  static unsigned tick_;

  unsigned machineNum_;
  unsigned timeBits_;
  unsigned tickBits_;
};

static_assert(sizeof(UID) == 12, "three words");

// Inline, since a call into the library would take as long as reading the time does. A time_t of 32
// bits holds no second after 2038-01-19.
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

template <>
struct std::hash<Utils::UID> {
  std::size_t operator()(const Utils::UID& id) const noexcept {
    return std::hash<std::string_view>()({reinterpret_cast<const char*>(&id), sizeof id});
  }
};
