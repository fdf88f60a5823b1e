// SPDX-License-Identifier: MIT
// The loop that makes every single request of an operation fail in turn.
#pragma once

#include "gtest/gtest.h"

// Calls attempt(n) for n = 1, 2, ... with the nth and all later requests failing, until attempt
// gives true: it then went through without meeting a failure. Requires that it does within `most`
// rounds.
template <class Attempt>
void failEveryNth(unsigned most, Attempt attempt) {
  for (unsigned n = 1; n <= most; n++) {
    SCOPED_TRACE("failing from request " + std::to_string(n));
    if (attempt(n) || testing::Test::HasFailure()) return;
  }
  ADD_FAILURE() << "still failing after " << most << " rounds";
}
