// sharers.h: inside the library, system objects that several objects refer to.
//
// Copies of a lock or an event refer to one system object, which the last of them ends. Most are
// never copied, so only what is shared is counted, here and not in the objects: a handle that is in
// no list has one object. Each module keeps one list for each kind of system object, as a static
// object that the language neither builds nor destroys.
//
// The caller serialises the copying of objects with the copying and ending of others of their kind.
#pragma once

#include "utils/sdk/ysys.h"

namespace Utils {

struct Sharers {
  void add(YIF_Handle handle);     // one object more refers to it
  bool remove(YIF_Handle handle);  // one less; true when that was the last, who ends it

 private:
  struct Entry {
    YIF_Handle handle_;
    unsigned others_;  // objects beside the first
    Entry* next_;
  };

  Entry** find(YIF_Handle handle);

  Entry* first_ = nullptr;
  bool lost_ = false;  // there was no memory to count one; from then on nothing is ended
};

// The handle that an object has after it was assigned that of another one of its kind.
template <class End>
YIF_Handle shareInstead(Sharers& sharers, YIF_Handle own, YIF_Handle other, End end) {
  if (own == other) return own;
  sharers.add(other);
  if (sharers.remove(own)) end(own);
  return other;
}

}  // namespace Utils
