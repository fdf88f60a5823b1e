// SPDX-License-Identifier: MIT
// What a benchmark program defines, and how its lines are named.
//
// The main function in lines.cpp calls registerLines(), runs every benchmark in 9 repetitions that
// alternate at random with those of the others, and prints the median of each. A benchmark that
// does many operations in one iteration tells how many with SetItemsProcessed; what is printed is
// the time of one of them. Times are those of the processor unless the benchmark asks for real
// time.
#pragma once

#include <benchmark/benchmark.h>

#include <string>

namespace Bench {

// Defined by the program: registers all that it measures.
void registerLines();

// The name under which one competitor's side of a line is registered. The library's own side is
// "yutils". A line has no tab, a competitor neither tab nor slash.
inline std::string lineOf(const std::string& line, const std::string& who) {
  return line + "/" + who;
}

}  // namespace Bench
