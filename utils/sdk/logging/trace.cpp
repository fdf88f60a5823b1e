// SPDX-License-Identifier: MIT
// The cached record of the library's own category.
#include "utils/sdk/logging/trace.h"

namespace Utils {

constinit TraceCategory _traceCategory;

void TraceCategory::lookUp(Log* hub) {
  const unsigned number = hub->getCategory(LIBRARY_CATEGORY);
  const LogCat* record = number < hub->categories_.size() ? hub->categories_[number] : nullptr;
  record_.store(record, std::memory_order_relaxed);
  if (record) hub_.store(hub, std::memory_order_release);
}

}  // namespace Utils
