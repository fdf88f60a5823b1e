// SPDX-License-Identifier: MIT
// The memory colours of the process allocator by name, and its heap as a table or a picture.
//
// A colour (allocator.h) gets a name once; from then on tables, pictures and reports of damage show
// the name:
//
//   void fillCache() {
//     const Utils::NamedColor color("cache");  // of all that is allocated in this scope
//     ...
//   }
//   Utils::writeHeap("heap.svg");
//
// Nothing here allocates or changes the heap, and everything works from the first static
// initialiser of a process to its last instruction. The setting YUTILS_HEAP writes pictures without
// a change of the program, see the README.
//
// Thread safety: serialised with all calls on the process allocator.
#pragma once

#include "utils/sdk/allocator.h"
#include "utils/sdk/export.h"

namespace Utils {

// --- Names ---

// Returns the colour with that name. A new name gets the lowest number from 1 to 63 that the
// program does not use: one without a name, without bytes that are busy or were freed, and not the
// default colour. Returns 0 if there is none, and for a name that is null or empty. Names are
// copied and cut after 31 bytes, between two characters of UTF-8.
YUTILS_EXPORT unsigned colorNamed(const char* name);

// Names a colour, also one that has a name; null or an empty text takes its name away. Returns
// false, nothing changed, for colour 0 and for the name of another colour.
YUTILS_EXPORT bool nameColor(unsigned color, const char* name);

// Null if the colour has no name. Valid until the colour is named anew.
YUTILS_EXPORT const char* colorName(unsigned color);

// A MemoryColor by name. The colour is 0 if all numbers are taken.
struct NamedColor : MemoryColor {
  [[nodiscard]] explicit NamedColor(const char* name) : MemoryColor(colorNamed(name)) {}
};

// --- The table ---

struct ColorInfo {
  unsigned size, version;  // sizeof(ColorInfo) and 1; a later version appends members
  unsigned color;
  const char* name;            // null if there is none
  unsigned long long held;     // bytes in busy blocks, bookkeeping included
  unsigned long long free;     // bytes in free blocks that had the colour
  unsigned long long blocks;   // busy ones
  unsigned long long largest;  // bytes of the largest of these
  unsigned long long peak;     // the peak seen, see below
};

// Stores one entry for each colour, in the order of their numbers. Takes time linear in the number
// of blocks.
//
// The peak seen is the largest number of bytes that were held at one of these moments: a call of
// colorTable or writeHeap, a chunk that the allocator requests from the system, and for the default
// colour the start and the end of the scope of a MemoryColor. It is not more than the true peak.
YUTILS_EXPORT void colorTable(ColorInfo (&table)[64]);

// --- The blocks ---

// Calls visit(block, context) for each busy block of a caller in ascending order. The sum of their
// sizes is allocatedColorMemory() for each colour from 1, and for colour 0 with the pages that are
// counted there (BlockInfo); a block that was recoloured, and adjustColorMemory(), change a total
// without a block. Returns false if the walk ends at a damaged block. Requires: `visit` calls no
// operation that changes the heap.
YUTILS_EXPORT bool visitBlocks(void (*visit)(const BlockInfo& block, void* context), void* context);

// The same with a function object: visitBlocks([&](const Utils::BlockInfo& block) { ... }).
template <class Visit>
bool visitBlocks(Visit visit) {
  return visitBlocks(
      [](const BlockInfo& block, void* context) { (*static_cast<Visit*>(context))(block); },
      &visit);
}

// --- Pictures ---

// Writes the state of the heap to a file; "-" is the standard output. The forms:
//
//   "text"  the table with a bar for each colour, and the totals
//   "json"  the table, the totals and every block, with up to 16 of its first bytes
//   "svg"   a picture: bars for the colours, cells for the chain of blocks, paler where free
//   "html"  a page to explore the same as in "json"
//
// Without a form the end of the path selects it: .json, .svg, .html, and text for all others. A new
// file can be read by its owner alone, and replaces an older one when it is complete. Returns 0,
// RESULT_INVALID_ARGUMENT without a path and for another form, RESULT_FILE_WRITE_ERROR if the file
// cannot be written.
YUTILS_EXPORT int writeHeap(const char* path, const char* form = nullptr);

}  // namespace Utils
