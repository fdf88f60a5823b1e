// SPDX-License-Identifier: MIT
// Reference counts of the handles that several objects share. Private to the library.
//
// Copies of a lock or an event refer to one system object; the last one destroys it. Most are never
// copied, so only shared handles are counted, here and not in the objects: a handle without an
// entry belongs to one object. Each module has one table for each kind of system object, constant-
// initialised and trivially destroyed.
//
// Thread safety: the caller serialises copying objects of a kind with copying and destroying copies
// of that kind. Objects without copies may be destroyed from any task at any time: entries are
// never freed, and an entry's handle is stored before its count.
#pragma once

#include <atomic>

#include "utils/sdk/ysys.h"

namespace Utils {

struct SharedHandles {
  void add(YIF_Handle handle);     // counts one more object
  bool remove(YIF_Handle handle);  // one less; true if the caller, the last, must destroy it

 private:
  struct Entry {
    std::atomic<YIF_Handle> handle_{0};
    std::atomic<unsigned> others_{0};  // objects besides the first; 0 in an unused entry
    Entry* next_ = nullptr;
  };

  template <class Condition>
  Entry* find(Condition condition);
  Entry* entryOf(YIF_Handle handle);
  Entry* unusedEntry();

  static constexpr unsigned FEW = 16;

  Entry few_[FEW];                     // these need no memory
  std::atomic<Entry*> more_{nullptr};  // list of the others, the latest first
  std::atomic<bool> lost_{false};      // an add had no memory: from then on nothing is destroyed
};

// Assigns the handle of another object of the kind. Returns the handle that the object then has.
template <class Destroy>
YIF_Handle reassign(SharedHandles& shared, YIF_Handle own, YIF_Handle other, Destroy destroy) {
  if (own == other) return own;
  shared.add(other);
  if (shared.remove(own)) destroy(own);
  return other;
}

}  // namespace Utils
