// SPDX-License-Identifier: MIT
// The blocking locks, four that block nobody and two that do.
//
// YtBLock, YtReadWriteBLock and their scoped lockers have the operations of locks, and all of those
// are empty: they exclude nothing, keep no state (not even the name), allocate nothing and call
// nothing. The allocators hold a YtBLock at the places where a real one would stand, and stay what
// they are without it: safe when their caller serialises. Usable from the first instruction of a
// process on.
//
// YtLightBLock is a recursive lock on a cooperative event; taking a free one and giving it back are
// one step on the event each, taking it again none. YtHeavyBLock is a critical section of the
// system. Both may be used from any task as long as they live. In the child of a fork the task that
// forked holds what it held; one that another task held is free, may be taken and may end. A copy
// refers to the same system object, and the last one ends it; the caller serialises copying and the
// ending of copies.
//
//   YtLightBLock, held twice by task 2480, 64-bit: name_ 8 bytes, count_ 2, owner_ 2480, event_
//   with no pass. Free: count_ 0, owner_ (unsigned long)-1, and one pass at the event.
#pragma once

#include "utils/sdk/export.h"
#include "utils/sdk/ysys.h"

namespace Utils {

// --- Locks that block nobody ---

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

// --- Locks that do ---

struct YUTILS_EXPORT YtLightBLock {
  YtLightBLock(const char* name);  // borrows the name
  YtLightBLock(const YtLightBLock& other);
  YtLightBLock& operator=(const YtLightBLock& other);
  ~YtLightBLock();  // requires: free; else the assertion "owner_ == (unsigned long)-1" fails

  void lock() {  // returns when the calling task holds it
    const unsigned long id = YIF_CurrentTaskIdCoop();
    if (ownerIs(id)) {
      count(1);
      return;
    }
    YIF_WaitEventCoop(event_);
    __atomic_store_n(&count_, 1, __ATOMIC_RELAXED);
    __atomic_store_n(&owner_, id, __ATOMIC_RELAXED);
  }

  // Once for each lock(). A task that does not hold it, or finds it free, is told of in the log,
  // category "utils", level 0, and then counted like the owner: so it frees a lock held once. Only
  // then does unlock need what the log needs.
  void unlock() {
    if (!ownerIs(YIF_CurrentTaskIdCoop())) tellViolation();
    if (count(-1) != 0) return;
    __atomic_store_n(&owner_, NOBODY, __ATOMIC_RELAXED);
    YIF_SetEventCoop(event_);
  }

  const char* name() const { return name_; }

 private:
  static constexpr unsigned long NOBODY = static_cast<unsigned long>(-1);

  void init();
  void tellViolation() const;

  // The fields are plain, and what other tasks may be writing is read and written in one piece. The
  // event orders them: a new owner writes behind it, the old one before it. Only the owner's own
  // task ever reads its id here. A lock that is const can be held, too.
  bool ownerIs(unsigned long id) const { return __atomic_load_n(&owner_, __ATOMIC_RELAXED) == id; }
  int count(int step) {  // gives the new count
    const auto before = static_cast<unsigned>(__atomic_load_n(&count_, __ATOMIC_RELAXED));
    const int after = static_cast<int>(before + static_cast<unsigned>(step));
    __atomic_store_n(&count_, after, __ATOMIC_RELAXED);
    return after;
  }

  const char* name_;
  mutable int count_;            // how often the owner holds it
  mutable unsigned long owner_;  // its id, NOBODY, or the id of a task that stayed in the parent
  YIF_Handle event_;             // set: free and not claimed
};

// Holds a YtLightBLock for a scope, in one task.
struct YUTILS_EXPORT YtLightBLocker {
  YtLightBLocker(const YtLightBLock& lock)
      : lock_(const_cast<YtLightBLock&>(lock)), unlocked_(false) {
    lock_.lock();
  }
  YtLightBLocker(const YtLightBLocker&) = delete;
  YtLightBLocker& operator=(const YtLightBLocker&) = delete;
  ~YtLightBLocker() {
    if (!unlocked_) lock_.unlock();
  }

  void unlock() {  // each call unlocks once; the end of the scope then does not
    unlocked_ = true;
    lock_.unlock();
  }

 private:
  YtLightBLock& lock_;
  bool unlocked_;
};

struct YUTILS_EXPORT YtHeavyBLock {
  YtHeavyBLock(const char* name);  // which is not kept
  YtHeavyBLock(const YtHeavyBLock& other);
  YtHeavyBLock& operator=(const YtHeavyBLock& other);
  ~YtHeavyBLock();  // requires: nobody holds it or waits for it

  void lock() { YIF_EnterCriticalSection(section_); }
  void unlock() { YIF_ExitCriticalSection(section_); }

 private:
  YIF_Handle section_;
};

}  // namespace Utils
