// SPDX-License-Identifier: MIT
// The form in which the libraries describe their data to a debugger.
//
// For the library's own sources and those of the system layer, not installed. Each library exports
// one table of entries, `yutils_layout` and `ysys_layout`: names, and the offsets, sizes and
// constants that the compiler computed for them. The first entry is "version", the second
// "pointer", the size of a pointer; the last has an empty name. A table has no pointers, so it also
// reads from a file of the library, stripped or not, for which there is no process. An exported
// root is the address of one object from which the data can be reached.
//
//   bytes   0 name, NUL-padded   28 value      "block.colorShift" 26 is one entry of 32 bytes
//
// The reader is tools/gdb/yutils.py. The roots "colorNames" and "peaks" are arrays with one element
// for each colour: a name in as many bytes as "color.nameRoom" says, and the peak seen in 32 bits.
// Entries may be added at any time; a change of what an entry means raises the version.
#pragma once

#include "utils/sdk/export.h"

struct LayoutEntry {
  char name[28];
  unsigned value;
};

static_assert(sizeof(LayoutEntry) == 32, "no gaps");

template <unsigned COUNT>
struct LayoutTable {
  LayoutEntry entries_[COUNT];
};

template <unsigned COUNT>
LayoutTable(const LayoutEntry (&)[COUNT]) -> LayoutTable<COUNT>;

// Exports a LayoutTable as constant data. Use outside of all namespaces. `table` may call a
// function of a class that is a friend of the classes described.
#define DEBUGGER_LAYOUT(symbol, table)                   \
  extern "C" YUTILS_EXPORT const decltype(table) symbol; \
  constinit const decltype(table) symbol = table

// Exports the address of an object as NAME_root_WORD. Use outside of unnamed namespaces.
#define DEBUGGER_ROOT(symbol, object)                \
  extern "C" YUTILS_EXPORT const void* const symbol; \
  const void* const symbol = &(object)
