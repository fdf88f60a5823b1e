// SPDX-License-Identifier: MIT
// What is done when the library is attached to a process, before any of its objects
// comes.
#include "utils/sdk/base/load_order.h"
#include "utils/sdk/platform.h"

namespace Utils {

namespace {

// The library keeps nothing for each task that it would have to be told of.
struct Attached {
  Attached() { DisableThreadLibraryCalls(this); }
};

[[gnu::init_priority(LOADED_LIBRARY)]] Attached _attached;

}  // namespace

}  // namespace Utils
