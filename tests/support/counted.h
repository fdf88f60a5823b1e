// SPDX-License-Identifier: MIT
// An element that counts what a container does to it.
//
// It has a value, and 0 is blank: an element of another value counts as holding something, until it
// ends or is blanked. Each one knows its own address, so that one which was moved as bytes, or is
// used before it was constructed or after it ended, fails the test. Counts are of all elements
// since the last reset(), which requires that none lives. Used from one task.
#pragma once

#include "gtest/gtest.h"

struct Counted {
  Counted() : Counted(0) {}
  Counted(int value) : self_(this), value_(value) {
    live_++;
    held(1);
  }
  Counted(const Counted& other) : Counted(other.value()) {}
  Counted& operator=(const Counted& other) {
    held(-1);
    value_ = other.value();
    held(1);
    return *this;
  }
  ~Counted() {
    held(-1);
    self_ = nullptr;
    live_--;
  }

  int value() const {
    EXPECT_EQ(self_, this) << "not an element";
    return value_;
  }
  bool operator==(const Counted& other) const { return value() == other.value(); }

  static void reset() {
    EXPECT_EQ(live_, 0);
    EXPECT_EQ(holding_, 0);
    live_ = holding_ = 0;
  }

  static inline int live_ = 0;
  static inline int holding_ = 0;  // live and not blank

 private:
  void held(int change) {
    if (value() != 0) holding_ += change;
  }

  const Counted* self_;
  int value_;
};
