// SPDX-License-Identifier: MIT
// Locks that can log each of their steps, and Locker, which holds one for a scope.
//
// A Mutex and a CriticalSection are one system object each. Both are recursive: a task may enter a
// lock that it holds, and exits it as often as it entered. While the category "utils" is enabled
// for debug messages, its level 0 logs that locks are created and destroyed, level 2 also each use,
// with the numbers of the task and of the lock:
//
//   debug[2]|utils|2480 Waiting for mutex 268435456
//   debug[2]|utils|2480 Got mutex 268435456
//
// The "Waiting" line is written before the lock is taken, the "Exiting" line while it is still
// held. The first lock creates the hub, if there is none.
//
// In the child of a fork, the task that forked holds the locks that it held, and the locks that
// other tasks held are free (ysys.h). A copy refers to the same system object; the last one to be
// destroyed destroys it.
//
// Both also have the operations that std::lock_guard, unique_lock and scoped_lock call.
//
// Thread safety: enter, exit and try_lock may be called from any task; with the lines on, no task
// may change the hub at the same time (log.h). The caller serialises copying, destroying copies,
// and new and delete (allocator.h).
#pragma once

#include <cstddef>
#include <new>

#include "utils/sdk/export.h"
#include "utils/sdk/ysys.h"

namespace Utils {

// A lock created with new lies in the process allocator's memory, in a program's code as in the
// library's.
struct YUTILS_EXPORT Lock {
  Lock() = default;
  Lock(const Lock&) = default;
  Lock& operator=(const Lock&) = default;
  virtual ~Lock();

  virtual void enter() const = 0;  // waits until the calling task holds the lock
  virtual void exit() const = 0;   // Requires: the calling task holds the lock.
  void lock() const { enter(); }
  void unlock() const { exit(); }

  // Returns null, and no constructor runs, if there is no memory.
  static void* operator new(std::size_t size) noexcept;
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return operator new(size);
  }
  static void operator delete(void* mem) noexcept;
};

struct YUTILS_EXPORT Mutex : Lock {
  Mutex();
  Mutex(const Mutex& other);
  Mutex& operator=(const Mutex& other);
  ~Mutex() override;  // Requires: no task holds it or waits for it.

  void enter() const override;
  void exit() const override;
  // Enters unless another task holds the lock. Returns true if it did; only that is logged, by the
  // line of a task that got the lock.
  [[nodiscard]] bool try_lock() const;

 private:
  friend struct DebuggerLayout;

  YIF_Handle handle_;
};

struct YUTILS_EXPORT CriticalSection : Lock {
  CriticalSection();
  CriticalSection(const CriticalSection& other);
  CriticalSection& operator=(const CriticalSection& other);
  ~CriticalSection() override;  // Requires: no task holds it or waits for it.

  void enter() const override;
  void exit() const override;
  [[nodiscard]] bool try_lock() const;  // as in Mutex

 private:
  friend struct DebuggerLayout;

  YIF_Handle handle_;
};

// Holds a lock for a scope. Requires: the task that created it destroys it.
struct YUTILS_EXPORT Locker {
  // Enters the lock; the destructor exits it. Borrows the lock and the name of the source file.
  // Name and line are shown in the log.
  [[nodiscard]] Locker(Lock* lock, const char* file, unsigned line);
  // Copies the fields only: exits no lock and enters none. Do not assign lockers: the former lock
  // stays held, and both destructors exit the other one.
  Locker& operator=(const Locker&) = default;
  Locker(const Locker&) = delete;
  ~Locker();

 private:
  Lock* lock_;
  const char* file_;
  unsigned line_;
};

}  // namespace Utils
