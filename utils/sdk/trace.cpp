// trace.cpp: the number of the library's own category.
#include "utils/sdk/trace.h"

namespace Utils {

constinit TraceCategory _traceCategory;

void TraceCategory::ask(Log* hub) {
  const unsigned number = hub->getCategory("utils");
  number_.store(number, std::memory_order_relaxed);
  if (number != static_cast<unsigned>(-1)) hub_.store(hub, std::memory_order_release);
}

}  // namespace Utils
