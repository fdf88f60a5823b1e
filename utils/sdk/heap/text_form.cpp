// SPDX-License-Identifier: MIT
// The table of colours for a terminal, with a bar for each.
#include <algorithm>

#include "utils/sdk/heap/forms.h"
#include "utils/sdk/heap/names.h"

namespace Utils {

namespace {

constexpr unsigned BAR = 30;
constexpr unsigned LEAST_NAME = 6;

unsigned widthOf(const char* name) {
  unsigned width = 0;
  for (; *name != '\0';) {
    const Symbol symbol(name);
    width += symbol.width();
    name += symbol.size_;
  }
  return width;
}

void putRow(Output& out, const ColorInfo& entry, unsigned nameWidth, unsigned long long most) {
  NameRoom room;
  const unsigned width = putPlainText(out, shownName(entry.color, room));
  out.print("%*s", static_cast<int>(nameWidth - width), "");
  out.bytes(entry.held, 12);
  out.bytes(entry.peak, 12);
  out.print("%9llu", entry.blocks);
  out.bytes(entry.largest, 12);
  out.bytes(entry.free, 12);
  const unsigned long long bar = most == 0 ? 0 : (entry.held * BAR + most - 1) / most;
  if (bar != 0) out.text("   ");
  for (unsigned i = 0; i < bar; i++) out.put('#');
  out.put('\n');
}

void putTotals(Output& out, const Snapshot& heap) {
  out.text("held ");
  out.bytes(heap.held_);
  out.text(", free ");
  out.bytes(heap.free_);
  out.text(", pages ");
  out.bytes(heap.pages_);
  out.text(", gaps ");
  out.bytes(heap.gaps_);
  out.text(heap.isWhole_ ? "; whole\n" : "; damaged: the walk ended before the end of the heap\n");
}

}  // namespace

unsigned sortColors(const Snapshot& heap, unsigned char (&colors)[COLORS]) {
  unsigned count = 0;
  for (unsigned color = 0; color < COLORS; color++) {
    if (heap.isShown(color)) colors[count++] = static_cast<unsigned char>(color);
  }
  std::sort(colors, colors + count, [&](unsigned char a, unsigned char b) {
    const ColorInfo &first = heap.colors_[a], &second = heap.colors_[b];
    if (first.held != second.held) return first.held > second.held;
    return first.peak != second.peak ? first.peak > second.peak : a < b;
  });
  return count;
}

void writeText(Output& out, const Snapshot& heap) {
  unsigned char colors[COLORS];
  const unsigned count = sortColors(heap, colors);
  unsigned nameWidth = LEAST_NAME;
  unsigned long long most = 0;
  for (unsigned i = 0; i < count; i++) {
    NameRoom room;
    nameWidth = std::max(nameWidth, widthOf(shownName(colors[i], room)));
    most = std::max(most, heap.colors_[colors[i]].held);
  }
  out.print("%-*s%12s%12s%9s%12s%12s\n", static_cast<int>(nameWidth), "colour", "held", "peak seen",
            "blocks", "largest", "free of it");
  for (unsigned i = 0; i < count; i++) putRow(out, heap.colors_[colors[i]], nameWidth, most);
  putTotals(out, heap);
}

}  // namespace Utils
