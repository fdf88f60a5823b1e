// SPDX-License-Identifier: MIT
// The names of colours as text, JSON and XML. A name consists of any bytes except NUL.
//
// For the library's own sources, not installed. Characters of UTF-8 are kept, except control
// characters. In JSON every other byte is the escape of its number, and `<` is escaped, so that the
// text can be a part of an HTML page: the bytes 6e c3 a9 ff are written as n, é and \u00ff.
// Elsewhere such a byte is shown as \xff.
#pragma once

#include "utils/sdk/heap/output.h"

namespace Utils {

struct Symbol {
  explicit Symbol(const char* at);  // Requires: a text that is not empty at `at`

  // Whether every form can have it as it is. XML has no U+FFFE and no U+FFFF.
  bool isPlain() const {
    const bool isControl = code_ < 0x20 || (code_ >= 0x7f && code_ <= 0x9f);
    return !isControl && !isBroken() && (code_ & ~1u) != 0xfffe;
  }
  bool isBroken() const { return code_ == BROKEN; }
  unsigned width() const { return isPlain() ? 1 : 4 * size_; }  // as putPlainText shows it

  static constexpr unsigned BROKEN = 0xffffffff;

  unsigned code_;  // of the character; BROKEN for a byte that is no part of one
  unsigned size_;  // in bytes
};

void putJsonText(Output& out, const char* text);
void putXmlText(Output& out, const char* text);
// For people; returns the number of characters.
unsigned putPlainText(Output& out, const char* text);

// Stores the name that people see: that of the colour, "(none)" for colour 0, else its number.
// Returns `room` or the name itself.
using NameRoom = char[24];
const char* shownName(unsigned color, NameRoom& room);

}  // namespace Utils
