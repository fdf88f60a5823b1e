// SPDX-License-Identifier: MIT
// Zero-filled pages straight from the system, for the tables of the system layer.
#pragma once

#include <stddef.h>

namespace ysys {

// Returns memory of at least `size` bytes that is aligned to a page and never given back. Returns
// null if there is none. Thread safety: may be called from any task.
void* mapPages(size_t size);

}  // namespace ysys
