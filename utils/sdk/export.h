// SPDX-License-Identifier: MIT
// The mark of the classes and functions that the shared library exports.
//
// The libraries are compiled with hidden visibility. A class or function with YUTILS_EXPORT is part
// of the interface: its symbols are visible, also the virtual table and the type information of a
// class. All others stay private. `tests/*.exports` list the exported symbols, and a test compares.
#pragma once

#if __cplusplus < 201703L
#error "yutils needs C++17"
#define YUTILS_NO_FILE "yutils needs C++17"
#include YUTILS_NO_FILE  // ends the compilation, which #error alone does not
#endif

#define YUTILS_EXPORT __attribute__((visibility("default")))
