// SPDX-License-Identifier: MIT
// The leak sanitizer's knowledge of memory that comes straight from the system.
//
// platform.h has the marks of blocks, which the allocators of the library set.
#pragma once

#include <stddef.h>

namespace ysys {

// Makes the leak sanitizer search the memory for pointers, for as long as the process lives. Does
// nothing without it. Thread safety: may be called from any task.
void searchForLeaks(const void* memory, size_t size);

}  // namespace ysys
