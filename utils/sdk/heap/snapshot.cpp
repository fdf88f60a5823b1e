// SPDX-License-Identifier: MIT
// The sums of a picture.
#include "utils/sdk/heap/snapshot.h"

namespace Utils {

void Snapshot::take() {
  colorTable(colors_);
  held_ = pages_ = gaps_ = span_ = used_ = 0;
  for (const ColorInfo& entry : colors_) held_ += entry.held;
  free_ = heap().internalFree();
  allocated_ = heap().allocatedMemory();
  first_ = nullptr;
  isWhole_ = visitPieces([this](const Piece& piece) {
    if (!first_) first_ = piece.start;
    span_ += piece.size;
    if (piece.kind != BlockInfo::FREE) used_ = span_;
    if (piece.kind == BlockInfo::PAGE) pages_ += piece.size;
    if (piece.kind == BlockInfo::GAP) gaps_ += piece.size;
  });
}

bool Snapshot::isShown(unsigned color) const {
  const ColorInfo& entry = colors_[color];
  return entry.name || (entry.held | entry.peak | entry.free) != 0;
}

}  // namespace Utils
