// SPDX-License-Identifier: MIT
// The table of colours and the visit of the busy blocks, for the process allocator.
#include "utils/sdk/colors.h"

#include "utils/sdk/alloc.h"
#include "utils/sdk/memory/color_names.h"
#include "utils/sdk/memory/heap_moments.h"

namespace Utils {

namespace {

const MemoryAllocator& heap() {
  return *static_cast<const MemoryAllocator*>(Allocator::theAllocator());
}

struct Visitor {
  void (*visit_)(const BlockInfo&, void*);
  void* context_;
};

void visitBusy(const BlockInfo& block, void* context) {
  const Visitor& visitor = *static_cast<const Visitor*>(context);
  if (block.kind == BlockInfo::BUSY) visitor.visit_(block, visitor.context_);
}

}  // namespace

bool visitBlocks(void (*visit)(const BlockInfo&, void*), void* context) {
  Visitor visitor = {visit, context};
  return heap().visitBlocks(visitBusy, &visitor);
}

void colorTable(ColorInfo (&table)[64]) {
  const MemoryAllocator& arena = heap();
  samplePeaks();
  for (unsigned color = 0; color < COLORS; color++) {
    table[color] = {
        sizeof(ColorInfo), 1, color, colorName(color), 0, arena.freeColorMemory(color), 0, 0,
        peakSeen(color)};
  }
  visitBlocks([&](const BlockInfo& block) {
    ColorInfo& entry = table[block.color];
    entry.held += block.size;
    entry.blocks++;
    if (block.size > entry.largest) entry.largest = block.size;
  });
}

}  // namespace Utils
