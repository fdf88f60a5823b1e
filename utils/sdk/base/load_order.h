// SPDX-License-Identifier: MIT
// Inside the library, the order in which its static objects come and go.
//
// Whatever needs code at load or at unload is marked [[gnu::init_priority(...)]] with one of these,
// so that neither the order of the sources nor the linker decides. Objects come in this order,
// ahead of all that have no mark, and go in the reverse one.
#pragma once

namespace Utils {

enum LoadOrder {
  LOADED_LIBRARY = 101,         // the library itself (load.cpp)
  LOADED_NULL_STRING = 102,     // String::null_ (string.cpp)
  LOADED_DEFAULT_LOGGER = 103,  // Log::theDefaultLogger_ (log.cpp)
  LOADED_STD_RESULTS = 104,     // _stdResults, and with them the process allocator (result.cpp)
  LOADED_LAST_ERRORS = 105,     // _lastErrorValues (result.cpp)
};

}  // namespace Utils
