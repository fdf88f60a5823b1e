// SPDX-License-Identifier: MIT
// The function that a benchmark program defines, and the names of its lines.
//
// The main function in lines.cpp calls registerLines(), runs every benchmark in 9 repetitions that
// alternate at random with those of the others, and prints the median of each. A benchmark that
// does many operations in one iteration passes their number to SetItemsProcessed; the time of one
// operation is printed. Times are processor time unless the benchmark selects real time.
#pragma once

#include <benchmark/benchmark.h>

#include <string>

namespace Bench {

// Defined by the program: registers all of its benchmarks.
void registerLines();

// Returns the name under which a competitor's side of a line is registered. The library's own side
// is "yutils". Requires: no tab in the line, no tab and no slash in the competitor.
inline std::string lineOf(const std::string& line, const std::string& who) {
  return line + "/" + who;
}

}  // namespace Bench
