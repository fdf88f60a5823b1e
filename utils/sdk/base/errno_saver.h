// SPDX-License-Identifier: MIT
// How a call that reports nothing to its caller treats `errno`. For the library and the system
// layer, not installed.
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

  void restore() const { errno = value_; }  // before a format is expanded, since %m reads it

 private:
  const int value_;
};

}  // namespace Utils
