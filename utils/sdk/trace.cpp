// trace.cpp: the number of the library's own category.
#include "utils/sdk/trace.h"

namespace Utils {

constinit TraceCategory _traceCategory;

void TraceCategory::ask(Log* hub) {
  number_.store(hub->getCategory("utils"), std::memory_order_relaxed);
  hub_.store(hub, std::memory_order_release);
}

}  // namespace Utils
