// SPDX-License-Identifier: MIT
// The table of names, and the search for a name or for a free number.
#include "utils/sdk/memory/color_names.h"

#include <cstring>

#include "utils/sdk/base/layout.h"

namespace Utils {

constinit char theColorNames[COLORS][COLOR_NAME_ROOM] = {};
DEBUGGER_ROOT(yutils_root_colorNames, theColorNames);

namespace {

bool continuesCharacter(char byte) { return (byte & 0xc0) == 0x80; }

// A name as the table has it: cut, and followed by zeros.
struct CutName {
  explicit CutName(const char* name) {
    unsigned size = 0;
    while (size < COLOR_NAME_ROOM - 1 && name[size] != '\0') size++;
    std::memcpy(text_, name, size);
    if (name[size] != '\0') dropPartOfCharacter(size, name[size]);
  }
  bool isAt(unsigned color) const {
    return std::memcmp(theColorNames[color], text_, COLOR_NAME_ROOM) == 0;
  }
  void copyTo(unsigned color) const { std::memcpy(theColorNames[color], text_, COLOR_NAME_ROOM); }

  char text_[COLOR_NAME_ROOM] = {};

 private:
  // A character has at most three bytes after its first one; other bytes are no UTF-8 and stay.
  void dropPartOfCharacter(unsigned size, char next) {
    if (!continuesCharacter(next)) return;
    unsigned start = size - 1;
    while (start > size - 3 && continuesCharacter(text_[start])) start--;
    if ((text_[start] & 0xc0) == 0xc0) std::memset(text_ + start, 0, size - start);
  }
};

// Returns the colour with that name, 0 if there is none.
unsigned find(const CutName& name) {
  unsigned color = COLORS - 1;
  while (color != 0 && !name.isAt(color)) color--;
  return color;
}

bool isUnused(unsigned color) {
  const Allocator& heap = *Allocator::theAllocator();
  return !colorName(color) && (heap.defaultColor() & COLOR_MASK) != color &&
         heap.allocatedColorMemory(color) == 0 && heap.freeColorMemory(color) == 0;
}

}  // namespace

unsigned colorNamed(const char* name) {
  if (!name || *name == '\0') return 0;
  const CutName wanted(name);
  if (const unsigned found = find(wanted)) return found;
  for (unsigned color = 1; color < COLORS; color++) {
    if (!isUnused(color)) continue;
    wanted.copyTo(color);
    return color;
  }
  return 0;
}

bool nameColor(unsigned color, const char* name) {
  color &= COLOR_MASK;
  const CutName wanted(name ? name : "");
  const unsigned owner = wanted.text_[0] == '\0' ? 0 : find(wanted);
  if (color == 0 || (owner != 0 && owner != color)) return false;
  wanted.copyTo(color);
  return true;
}

const char* colorName(unsigned color) {
  const char* name = theColorNames[color & COLOR_MASK];
  return *name == '\0' ? nullptr : name;
}

}  // namespace Utils
