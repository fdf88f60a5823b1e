// SPDX-License-Identifier: MIT
// The loop that lets each request of an operation fail in turn, for tests.
//
//   Utils::Testing::FailingAllocator memory;
//   const unsigned rounds = Utils::Testing::failEveryNth(20, [&](unsigned n) {
//     memory.failFrom(n);
//     Utils::Vector<int> numbers;
//     const bool added = numbers.add(7) != static_cast<unsigned>(-1);
//     assert(added != memory.failed());
//     return !memory.failed();
//   });
//   assert(rounds == 2);  // one request, which fails in the first round
//
// Not bound to an allocator: attempt decides which requests it counts, and how they fail.
//
// Thread safety: that of attempt; the loop has no state of its own.
#pragma once

namespace Utils::Testing {

// Calls attempt(1), attempt(2), ... until it returns true, at most `most` times. attempt(n) runs
// the operation, lets its nth request fail, and returns true if no request failed. Returns the
// number of calls, or 0 if none returned true.
template <class Attempt>
unsigned failEveryNth(unsigned most, Attempt attempt) {
  for (unsigned n = 1; n <= most; n++) {
    if (attempt(n)) return n;
  }
  return 0;
}

}  // namespace Utils::Testing
