// kept_errno.h: inside the library, what a call that tells its caller nothing does with `errno`.
#pragma once

#include <cerrno>

namespace Utils {

// Leaves `errno` as it was found.
struct KeptErrno {
  KeptErrno() : value_(errno) {}
  ~KeptErrno() { putBack(); }
  KeptErrno(const KeptErrno&) = delete;
  KeptErrno& operator=(const KeptErrno&) = delete;

  void putBack() const { errno = value_; }  // before a format is expanded, which may tell it

 private:
  const int value_;
};

}  // namespace Utils
