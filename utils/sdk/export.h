// SPDX-License-Identifier: MIT
// What leaves the shared library.
//
// The libraries are compiled with hidden visibility. A class or function marked YUTILS_EXPORT is
// part of the interface and keeps its symbol (its table of virtual operations and type information
// too); everything else stays inside. `tests/*.exports` list what must be visible, and a test
// compares.
#pragma once

#define YUTILS_EXPORT __attribute__((visibility("default")))
