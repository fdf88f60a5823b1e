// SPDX-License-Identifier: MIT
// Keeps failed assertions of the library instead of stopping the process.
//
// A program that uses it has YfAssert__ replaced. While a recorder lives, assertions are noted and
// return; without one they are printed and stop the process. One at a time, from one task.
#pragma once

#include <string>
#include <vector>

struct AssertionRecorder {
  AssertionRecorder();
  ~AssertionRecorder();

  // The texts since the last call, in order.
  std::vector<std::string> take();

  // The lines of the library's sources that the failed assertions name.
  std::vector<std::string> sourceLines() const;

  std::vector<std::string> texts_;
  std::vector<std::string> files_;
  std::vector<unsigned> lines_;
  std::string reports_;  // of broken blocks
};
