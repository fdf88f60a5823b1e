// SPDX-License-Identifier: MIT
// The characters of UTF-8, and the escapes of all other bytes.
#include "utils/sdk/heap/names.h"

#include <cstdio>

#include "utils/sdk/colors.h"

namespace Utils {

namespace {

// Returns the number of bytes of the character that begins with that one; 0 if none does.
unsigned sizeByFirst(unsigned char first) {
  if (first < 0x80) return 1;
  if (first < 0xc2 || first > 0xf4) return 0;
  return first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
}

// Returns whether the code needs that many bytes and is that of a character.
bool isCharacter(unsigned code, unsigned size) {
  constexpr unsigned LEAST[] = {0, 0, 0x80, 0x800, 0x10000};
  return code >= LEAST[size] && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
}

void putBytes(Output& out, const char* at, unsigned size) {
  for (unsigned i = 0; i < size; i++) out.put(at[i]);
}

void putHexBytes(Output& out, const char* at, unsigned size) {
  for (unsigned i = 0; i < size; i++) out.print("\\x%02x", static_cast<unsigned char>(at[i]));
}

}  // namespace

Symbol::Symbol(const char* at) : code_(BROKEN), size_(1) {
  const auto first = static_cast<unsigned char>(*at);
  const unsigned size = sizeByFirst(first);
  if (size == 0) return;
  unsigned code = size == 1 ? first : first & (0x7fu >> size);
  for (unsigned i = 1; i < size; i++) {
    if ((at[i] & 0xc0) != 0x80) return;
    code = code << 6 | (static_cast<unsigned char>(at[i]) & 0x3fu);
  }
  if (!isCharacter(code, size)) return;
  code_ = code;
  size_ = size;
}

void putJsonText(Output& out, const char* text) {
  out.put('"');
  for (; *text != '\0';) {
    const Symbol symbol(text);
    if (*text == '"' || *text == '\\') {
      out.put('\\');
      out.put(*text);
    } else if (symbol.isPlain() && *text != '<') {
      putBytes(out, text, symbol.size_);
    } else {
      out.print("\\u%04x", symbol.isBroken() ? static_cast<unsigned char>(*text) : symbol.code_);
    }
    text += symbol.size_;
  }
  out.put('"');
}

void putXmlText(Output& out, const char* text) {
  for (; *text != '\0';) {
    const Symbol symbol(text);
    if (!symbol.isPlain()) {
      putHexBytes(out, text, symbol.size_);
    } else if (*text == '&' || *text == '<' || *text == '>' || *text == '"') {
      out.print("&#%u;", symbol.code_);
    } else {
      putBytes(out, text, symbol.size_);
    }
    text += symbol.size_;
  }
}

unsigned putPlainText(Output& out, const char* text) {
  unsigned width = 0;
  for (; *text != '\0';) {
    const Symbol symbol(text);
    const auto put = symbol.isPlain() ? putBytes : putHexBytes;
    put(out, text, symbol.size_);
    width += symbol.width();
    text += symbol.size_;
  }
  return width;
}

const char* shownName(unsigned color, NameRoom& room) {
  if (const char* name = colorName(color)) return name;
  if (color == 0) return "(none)";
  std::snprintf(room, sizeof room, "colour %u", color);
  return room;
}

}  // namespace Utils
