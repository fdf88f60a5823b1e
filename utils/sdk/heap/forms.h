// SPDX-License-Identifier: MIT
// The forms in which the heap is written.
//
// For the library's own sources, not installed. A form gets the sums and visits the blocks itself.
// It allocates nothing. Thread safety: the caller serialises, as for the process allocator.
#pragma once

#include "utils/sdk/heap/output.h"
#include "utils/sdk/heap/snapshot.h"

namespace Utils {

void writeText(Output& out, const Snapshot& heap);
void writeJson(Output& out, const Snapshot& heap);
void writeSvg(Output& out, const Snapshot& heap);
void writeHtml(Output& out, const Snapshot& heap);

// The page of writeHtml before and after the place of the JSON text. The build makes these two from
// heap/page.html, which has @HEAP@ at that place.
extern const char HEAP_PAGE_START[];
extern const char HEAP_PAGE_END[];

// Stores the colours that are shown, those first that hold, or held, most bytes. Returns their
// number.
unsigned sortColors(const Snapshot& heap, unsigned char (&colors)[COLORS]);

void putTime(Output& out);  // the time in UTC as 2026-11-23T15:00:00Z

}  // namespace Utils
