// SPDX-License-Identifier: MIT
// YIF_MemInit and YIF_MemAlloc, counted and made to fail.
//
// A program that uses it has both replaced; they pass on to the system layer's own unless told to
// fail. With SYSTEM_MEMORY_FAILS_AT_LOAD in the environment all requests fail until the first
// reset.
#pragma once

#include <vector>

struct SystemMemory {
  static unsigned inits_;
  static std::vector<unsigned> sizes_;  // every request
  static unsigned failFrom_;  // requests from the nth on, counted from 1, give null; 0: none

  static bool wasReset_;

  static void reset() {
    wasReset_ = true;
    inits_ = failFrom_ = 0;
    sizes_.clear();
  }
};

// Takes all that the process allocator has, the system layer giving no more, until it is given
// back.
struct TakenMemory {
  TakenMemory();
  ~TakenMemory() { giveBack(); }
  TakenMemory(const TakenMemory&) = delete;
  TakenMemory& operator=(const TakenMemory&) = delete;

  void giveBack();

  std::vector<void*> blocks_;
};
