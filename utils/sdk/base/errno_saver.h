// SPDX-License-Identifier: MIT
// Keeps `errno` unchanged across a call that reports nothing to its caller. Private to the library
// and the system layer.
#pragma once

#include <cerrno>

namespace Utils {

// Restores `errno` at the end of the scope.
class ErrnoSaver {
 public:
  ErrnoSaver() : value_(errno) {}
  ~ErrnoSaver() { restore(); }
  ErrnoSaver(const ErrnoSaver&) = delete;
  ErrnoSaver& operator=(const ErrnoSaver&) = delete;

  void restore() const { errno = value_; }  // also before a format is expanded: %m reads errno

 private:
  const int value_;
};

}  // namespace Utils
