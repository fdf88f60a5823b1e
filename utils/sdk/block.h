// block.h: the blocking locks.
//
// The four classes here have the operations of a plain lock, a read-write lock and their scoped
// lockers, and all of those are empty: they exclude nothing, keep no state (not even the name),
// allocate nothing and call nothing. The allocators hold a YtBLock at the places where a real one
// would stand, and stay what they are without it: safe when their caller serialises. Usable from
// the first instruction of a process on.
#pragma once

#include "utils/sdk/export.h"

namespace Utils {

struct YUTILS_EXPORT YtBLock {
  YtBLock(const char* /*name*/) {}
  void lock() {}
  void unlock() {}
};

struct YUTILS_EXPORT YtBLocker {
  YtBLocker(const YtBLock& /*lock*/) {}
  void unlock() {}
};

struct YUTILS_EXPORT YtReadWriteBLock {
  YtReadWriteBLock(const char* /*name*/) {}
  void readLock() {}
  void readUnlock() {}
  void writeLock() {}
  void writeUnlock() {}
};

struct YUTILS_EXPORT YtReadWriteBLocker {
  YtReadWriteBLocker(const YtReadWriteBLock& /*lock*/) {}
  void readLock() {}
  void readUnlock() {}
  void writeLock() {}
  void writeUnlock() {}
  void kill() {}
};

}  // namespace Utils
