// SPDX-License-Identifier: MIT
// The seed of a random run, from the environment variable YUTILS_TEST_SEED or the clock's
// fixed default, printed with every failure of the scope that made it.
#pragma once

#include <cstdlib>
#include <random>
#include <string>

#include "gtest/gtest.h"

struct Random {
  explicit Random(unsigned fallback)
      : seed_(seedOr(fallback)),
        engine_(seed_),
        trace_(__FILE__, __LINE__, "seed " + std::to_string(seed_)) {}

  static unsigned seedOr(unsigned fallback) {
    const char* text = std::getenv("YUTILS_TEST_SEED");
    return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : fallback;
  }

  // From 0 to bound - 1.
  unsigned below(unsigned bound) {
    return std::uniform_int_distribution<unsigned>(0, bound - 1)(engine_);
  }

  unsigned seed_;
  std::mt19937 engine_;
  testing::ScopedTrace trace_;
};
