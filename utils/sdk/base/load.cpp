// SPDX-License-Identifier: MIT
// The step that runs when the library is loaded, before any of its other static objects is
// constructed.
#include "utils/sdk/base/load_order.h"
#include "utils/sdk/platform.h"

namespace Utils {

namespace {

// The library keeps no data per task, so it needs no call when a task starts or ends.
struct Attached {
  Attached() { DisableThreadLibraryCalls(this); }
};

[[gnu::init_priority(LOADED_LIBRARY)]] Attached _attached;

}  // namespace

}  // namespace Utils
