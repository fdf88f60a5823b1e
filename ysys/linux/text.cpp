// SPDX-License-Identifier: MIT
// Texts compared by the runtime library in ways that are not the language's.
#include <strings.h>

#include "utils/sdk/platform.h"

int YfCompareIgnoringCase(const char* a, const char* b, std::size_t limit) noexcept {
  return strncasecmp(a, b, limit);
}
