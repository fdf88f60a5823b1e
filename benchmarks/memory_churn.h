// SPDX-License-Identifier: MIT
// The churns: a fixed number of live blocks; each step frees one at random and allocates
// one of a random size in its place.
//
// All competitors do the same steps: a step depends only on the churn and on the step's number.
#pragma once

#include <cmath>
#include <random>

namespace Bench {

using Random = std::mt19937;

struct Churn {
  const char* name_;
  unsigned slots_;
  unsigned (*size_)(Random& random);
};

inline unsigned uniform(Random& random, unsigned least, unsigned most) {
  return std::uniform_int_distribution<unsigned>(least, most)(random);
}

inline unsigned logUniform(Random& random, double most) {
  const double power = std::uniform_real_distribution<double>(0, std::log(most))(random);
  return static_cast<unsigned>(std::lround(std::exp(power)));
}

constexpr unsigned MOST_SLOTS = 10000;

constexpr Churn CHURNS[] = {
    {"10000 live, 1 to 504 bytes", MOST_SLOTS, [](Random& r) { return uniform(r, 1, 504); }},
    {"10000 live, 1 to 16384 bytes", MOST_SLOTS, [](Random& r) { return logUniform(r, 16384); }},
    {"1000 live, 1 to 64 KiB", 1000, [](Random& r) { return uniform(r, 1024, 65536); }},
};

struct Step {
  unsigned slot_;
  unsigned size_;
};

// The steps of a churn: first one for each slot, in order, then random ones, without an end.
struct Steps {
  explicit Steps(const Churn& churn) : churn_(churn) {}

  Step next() {
    const unsigned slot = done_ < churn_.slots_ ? done_ : uniform(random_, 0, churn_.slots_ - 1);
    done_++;
    return {slot, churn_.size_(random_)};
  }

 private:
  const Churn& churn_;
  Random random_{20240229};
  unsigned done_ = 0;
};

}  // namespace Bench
