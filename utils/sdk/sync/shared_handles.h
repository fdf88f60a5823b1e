// SPDX-License-Identifier: MIT
// Inside the library, system objects that several objects refer to.
//
// Copies of a lock or an event refer to one system object, which the last of them ends. Most are
// never copied, so only what is shared is counted, here and not in the objects: a handle that is in
// no entry has one object. Each module keeps one of these for each kind of system object, as a
// static object that the language neither builds nor destroys.
//
// The caller serialises the copying of objects with the copying and ending of copies of their kind.
// Objects that have no copies end whenever they like: they meet entries that are never freed, and
// whose count is set behind their handle.
#pragma once

#include <atomic>

#include "utils/sdk/ysys.h"

namespace Utils {

struct SharedHandles {
  void add(YIF_Handle handle);     // one object more refers to it
  bool remove(YIF_Handle handle);  // one less; true when that was the last, who ends it

 private:
  struct Entry {
    std::atomic<YIF_Handle> handle_{0};
    std::atomic<unsigned> others_{0};  // objects beside the first; 0: the entry is not used
    Entry* next_ = nullptr;
  };

  template <class Condition>
  Entry* find(Condition condition);
  Entry* entryOf(YIF_Handle handle);
  Entry* unusedEntry();

  static constexpr unsigned FEW = 16;

  Entry few_[FEW];                     // which need no memory
  std::atomic<Entry*> more_{nullptr};  // the latest of the others
  std::atomic<bool> lost_{false};      // one could not be counted; from then on nothing is ended
};

// The handle that an object has after it was assigned that of another one of its kind.
template <class Destroy>
YIF_Handle reassign(SharedHandles& shared, YIF_Handle own, YIF_Handle other, Destroy destroy) {
  if (own == other) return own;
  shared.add(other);
  if (shared.remove(own)) destroy(own);
  return other;
}

}  // namespace Utils
