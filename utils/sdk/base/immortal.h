// SPDX-License-Identifier: MIT
// A static object that exists at every moment of a process: it is constructed at compile time and
// never destroyed. Included by public headers, for their static members.
//
// An ordinary static object does not exist before its constructor runs and after its destructor.
// The library is used before and after that, by static objects of programs and of other libraries.
// An object whose destructor runs at unload (load_order.h) releases the memory that an Immortal
// owns.
//
// Requires: T has a constexpr default constructor. Define the object as constinit. It has the size,
// the alignment and, as a static member, the symbol of a T.
#pragma once

namespace Utils {

template <class T>
union Immortal {
  constexpr Immortal() : object_() {}
  Immortal(const Immortal&) = delete;
  Immortal& operator=(const Immortal&) = delete;
  ~Immortal() {}  // destroys nothing; gcc registers the empty function to be called at exit

  operator T&() { return object_; }

  T object_;
};

}  // namespace Utils
