// load_order.h: inside the library, the order in which its static objects come and go.
//
// Whatever needs code at load or at unload is marked [[gnu::init_priority(...)]] with one of these,
// so that neither the order of the sources nor the linker decides. Objects come in this order,
// ahead of all that have no mark, and go in the reverse one.
#pragma once

namespace Utils {

enum LoadOrder {
  LOADED_NULL_STRING = 101,     // String::null_ (string.cpp)
  LOADED_DEFAULT_LOGGER = 102,  // Log::theDefaultLogger_ (log.cpp)
  LOADED_STD_RESULTS = 103,     // _stdResults, and with them the process allocator (result.cpp)
  LOADED_LAST_ERRORS = 104,     // _lastErrorValues (result.cpp)
};

}  // namespace Utils
