// SPDX-License-Identifier: MIT
// The static fields of UID, its order, and its text form in both directions.
//
// strtoll reads the words, so that white space, a sign and "0x" are accepted as strtoul accepts
// them. Words have 32 bits on every platform and read as a strtoul of that width reads them: a
// larger number becomes 0xFFFFFFFF.
#include "utils/sdk/uid.h"

#include <bit>
#include <cstdlib>

#include "utils/sdk/ysys.h"

namespace Utils {

unsigned UID::ourMachineNum_ = 0;
int UID::lastTime_ = 0;
unsigned UID::tick_ = 0;

namespace {

constexpr unsigned WORD_DIGITS = 8;

// --- Reading ---

unsigned wordOf(const char* text) {
  const long long number = std::strtoll(text, nullptr, 16);
  const bool fits = number >= -0xFFFFFFFFll && number <= 0xFFFFFFFFll;
  return fits ? static_cast<unsigned>(number) : 0xFFFFFFFFu;
}

// Reads a word from at most 8 characters and advances `text` past them.
unsigned takeWord(const char*& text) {
  char piece[WORD_DIGITS + 1];
  unsigned count = 0;
  while (count < WORD_DIGITS && *text != '\0') piece[count++] = *text++;
  piece[count] = '\0';
  return wordOf(piece);
}

// --- Writing ---

char* putDigits(char* at, unsigned word, unsigned count) {
  for (unsigned i = count; i-- > 0; word >>= 4) at[i] = "0123456789ABCDEF"[word & 15];
  return at + count;
}

unsigned digitsOf(unsigned word) {
  return (static_cast<unsigned>(std::bit_width(word | 1)) + 3) / 4;
}

// --- Order ---

int compareWords(unsigned mine, unsigned others) { return mine < others ? 1 : -1; }

}  // namespace

unsigned UID::systemSeconds() {
  return static_cast<unsigned>(static_cast<unsigned long long>(YIF_CurrentTime()));
}

UID::UID(const char* text) {
  if (!text) text = "";
  machineNum_ = takeWord(text);
  timeBits_ = takeWord(text);
  tickBits_ = wordOf(text);
}

String UID::asText() {
  if (!valid()) return String('0');
  char text[3 * WORD_DIGITS];
  char* end = putDigits(text, machineNum_, WORD_DIGITS);
  end = putDigits(end, timeBits_, WORD_DIGITS);
  end = putDigits(end, tickBits_, digitsOf(tickBits_));
  return String(text, static_cast<unsigned>(end - text));
}

int UID::compare(const UID& other) const {
  if (machineNum_ != other.machineNum_) return compareWords(machineNum_, other.machineNum_);
  if (timeBits_ != other.timeBits_) return compareWords(timeBits_, other.timeBits_);
  if (tickBits_ != other.tickBits_) return compareWords(tickBits_, other.tickBits_);
  return 0;
}

const UID& UID::nullUID() {
  static const UID no(0, 0, 0);
  return no;
}

}  // namespace Utils
