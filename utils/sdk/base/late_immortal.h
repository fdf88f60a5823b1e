// SPDX-License-Identifier: MIT
// A static object that is constructed by its first use and never destroyed, for the library's own
// sources. See immortal.h for the reason, and for an object that needs no code to be constructed.
//
// Thread safety: none. The caller serialises the first make() with all others.
#pragma once

#include <new>

namespace Utils {

template <class T>
struct LateImmortal {
  // Returns the object, which the first call constructs from the arguments.
  template <class... Args>
  T& make(const Args&... args) {
    if (!object_) object_ = ::new (static_cast<void*>(storage_)) T(args...);
    return *object_;
  }

 private:
  friend struct DebuggerLayout;

  T* object_ = nullptr;
  alignas(T) unsigned char storage_[sizeof(T)] = {};
};

}  // namespace Utils
