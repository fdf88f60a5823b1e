// SPDX-License-Identifier: MIT
// The loop that makes every single request of an operation fail in turn, as an expectation.
#pragma once

#include "gtest/gtest.h"
#include "utils/testing/nth_failure.h"

// Expects that attempt(n) returns true within `most` rounds. Ends at the first failed expectation.
template <class Attempt>
void failEveryNth(unsigned most, Attempt attempt) {
  const auto round = [&](unsigned n) {
    SCOPED_TRACE("failing from request " + std::to_string(n));
    return attempt(n) || testing::Test::HasFailure();
  };
  EXPECT_NE(Utils::Testing::failEveryNth(most, round), 0u) << "failing after " << most << " rounds";
}
