// SPDX-License-Identifier: MIT
// Locks whose every step can be followed in the log, and the scope that holds one.
//
// A Mutex and a CriticalSection are one system object each, and as recursive as the system makes
// them: here a task enters again what it holds, and leaves as often as it entered. With the
// category "utils" enabled for debug messages, level 0 shows locks come and go, level 2 each use:
//
//   debug[2]|utils|2480 Waiting for mutex 268435456
//   debug[2]|utils|2480 Got mutex 268435456
//
// What tells of waiting is written before the lock is held, what tells of leaving while it still
// is. The hub is made, if there is none, by the first lock.
//
// enter and exit may be called from any task; with their lines on, while nobody changes the hub
// (log.h). In the child of a fork the task that forked holds what it held, and what other tasks
// held is free (ysys.h). A copy refers to the same system object, and the last one ends it; copying
// and ending copies is serialised by the caller.
#pragma once

#include <cstddef>
#include <new>

#include "utils/sdk/export.h"
#include "utils/sdk/ysys.h"

namespace Utils {

// One made with new lies in the process allocator's memory, on whichever side of the library's
// boundary it is made.
struct YUTILS_EXPORT Lock {
  Lock() = default;
  Lock(const Lock&) = default;
  Lock& operator=(const Lock&) = default;
  virtual ~Lock();

  virtual void enter() const = 0;  // returns when the calling task holds it
  virtual void exit() const = 0;   // requires: the calling task holds it

  // Null, and no constructor runs, when there is no memory.
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
  ~Mutex() override;  // requires: nobody holds it or waits for it

  void enter() const override;
  void exit() const override;

 private:
  YIF_Handle handle_;
};

struct YUTILS_EXPORT CriticalSection : Lock {
  CriticalSection();
  CriticalSection(const CriticalSection& other);
  CriticalSection& operator=(const CriticalSection& other);
  ~CriticalSection() override;  // requires: nobody holds it or waits for it

  void enter() const override;
  void exit() const override;

 private:
  YIF_Handle handle_;
};

// Holds a lock for a scope. Ends in the task that made it.
struct YUTILS_EXPORT Locker {
  // Borrows the lock and the name of the source file, which with the line is shown in the log.
  Locker(Lock* lock, const char* file, unsigned line);
  // Leaves and enters nothing: of no use on a locker that lives.
  Locker& operator=(const Locker&) = default;
  Locker(const Locker&) = delete;
  ~Locker();

 private:
  Lock* lock_;
  const char* file_;
  unsigned line_;
};

}  // namespace Utils
