// SPDX-License-Identifier: MIT
// The order in which the library's static objects are constructed. Private to the library.
//
// Each static object that runs code at load or at unload has [[gnu::init_priority(...)]] with one
// of these values, so that neither the order of the sources nor the linker decides. Objects are
// constructed in this order, before all without a priority, and destroyed in the reverse order.
#pragma once

namespace Utils {

enum LoadOrder {
  LOADED_LIBRARY = 101,         // the library itself (load.cpp)
  LOADED_HEAP_SETTING = 102,    // _setting; writes at unload (heap_setting.cpp)
  LOADED_NULL_STRING = 103,     // String::null_ (string.cpp)
  LOADED_DEFAULT_LOGGER = 104,  // Log::theDefaultLogger_ (log.cpp)
  LOADED_STD_RESULTS = 105,     // _stdResults, and with them the process allocator (result.cpp)
  LOADED_LAST_ERRORS = 106,     // _lastErrorValues (result.cpp)
};

}  // namespace Utils
