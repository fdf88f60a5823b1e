// SPDX-License-Identifier: MIT
// The locks of the library: two empty ones that never block, with their lockers, and two that
// block.
//
// YtBLock, YtReadWriteBLock and their scoped lockers have the operations of locks, all of them
// empty: they exclude nothing, have no state (not even the name), allocate nothing and call
// nothing. They may be used before any constructor has run. The allocators have a YtBLock where a
// real lock would be; the caller of an allocator serialises.
//
// YtLightBLock is a recursive lock on a cooperative event; taking a free lock and releasing it are
// one operation of the event each, taking it again none. YtHeavyBLock is a critical section of the
// system. In the child of a fork the task that forked holds the locks that it held; a lock that
// another task held is free, may be taken and may be destroyed. A copy refers to the same system
// object, and the last one destroys it; a copy of a YtLightBLock has a count and an owner of its
// own, so a task that holds the one must not take the other.
//
//   YtLightBLock, held twice by task 2480, 64-bit: name_ 8 bytes, count_ 2, owner_ 2480, event_
//   clear. Free: count_ 0, owner_ (unsigned long)-1, event_ set.
//
// The locks that block serve std::lock_guard, unique_lock and scoped_lock; the empty ones serve
// none that is to exclude.
//
// Thread safety: lock, try_lock and unlock may be called from any task; the caller serialises
// copies, assignments and destruction.
#pragma once

#include "utils/sdk/export.h"
#include "utils/sdk/ysys.h"

namespace Utils {

// --- Locks that never block ---

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

// --- Locks that block ---

struct YUTILS_EXPORT YtLightBLock {
  YtLightBLock(const char* name);  // borrows the name
  YtLightBLock(const YtLightBLock& other);
  YtLightBLock& operator=(const YtLightBLock& other);
  // Requires: the lock is free; else the assertion "owner_ == (unsigned long)-1" fails.
  ~YtLightBLock();

  void lock() {  // returns when the calling task holds it
    const unsigned long id = YIF_CurrentTaskIdCoop();
    if (ownerIs(id)) {
      count(1);
      return;
    }
    YIF_WaitEventCoop(event_);
    setOwner(id);
  }

  // Takes the lock, or takes it again, unless another task has it. Returns true if it did.
  [[nodiscard]] bool try_lock();

  // Requires: called once for each lock(), by the task that holds the lock. Any other call is a
  // violation: it is reported to the log, category "utils", level 0, and then counts like one of
  // the owner, so it frees a lock that is held once. Only that report needs the log.
  void unlock() {
    if (!ownerIs(YIF_CurrentTaskIdCoop())) tellViolation();
    if (count(-1) != 0) return;
    __atomic_store_n(&owner_, NOBODY, __ATOMIC_RELAXED);
    YIF_SetEventCoop(event_);
  }

  const char* name() const { return name_; }

 private:
  friend struct DebuggerLayout;

  static constexpr unsigned long NOBODY = static_cast<unsigned long>(-1);

  void init();
  void tellViolation() const;

  // The fields are plain; those that other tasks may be writing are accessed atomically. The event
  // orders the accesses: a new owner writes after its wait, the old owner before its set. Only the
  // owner's own task ever reads its own id here. The fields are mutable because a locker takes a
  // const lock.
  bool ownerIs(unsigned long id) const { return __atomic_load_n(&owner_, __ATOMIC_RELAXED) == id; }
  void setOwner(unsigned long id) {
    __atomic_store_n(&count_, 1, __ATOMIC_RELAXED);
    __atomic_store_n(&owner_, id, __ATOMIC_RELAXED);
  }
  int count(int step) {  // returns the new count
    const auto before = static_cast<unsigned>(__atomic_load_n(&count_, __ATOMIC_RELAXED));
    const int after = static_cast<int>(before + static_cast<unsigned>(step));
    __atomic_store_n(&count_, after, __ATOMIC_RELAXED);
    return after;
  }

  const char* name_;
  mutable int count_;            // how often the owner holds it
  mutable unsigned long owner_;  // its id, NOBODY, or the id of a task that stayed in the parent
  YIF_Handle event_;             // set while the lock is free
};

// Holds a YtLightBLock for a scope, in one task.
struct YUTILS_EXPORT YtLightBLocker {
  [[nodiscard]] YtLightBLocker(const YtLightBLock& lock)
      : lock_(const_cast<YtLightBLock&>(lock)), unlocked_(false) {
    lock_.lock();
  }
  YtLightBLocker(const YtLightBLocker&) = delete;
  YtLightBLocker& operator=(const YtLightBLocker&) = delete;
  ~YtLightBLocker() {
    if (!unlocked_) lock_.unlock();
  }

  void unlock() {  // each call unlocks once; the destructor then does not
    unlocked_ = true;
    lock_.unlock();
  }

 private:
  YtLightBLock& lock_;
  bool unlocked_;
};

struct YUTILS_EXPORT YtHeavyBLock {
  YtHeavyBLock(const char* name);  // the name is not used
  YtHeavyBLock(const YtHeavyBLock& other);
  YtHeavyBLock& operator=(const YtHeavyBLock& other);
  ~YtHeavyBLock();  // Requires: no task holds the lock or waits for it

  void lock() { YIF_EnterCriticalSection(section_); }
  [[nodiscard]] bool try_lock();  // as in YtLightBLock
  void unlock() { YIF_ExitCriticalSection(section_); }

 private:
  friend struct DebuggerLayout;

  YIF_Handle section_;
};

}  // namespace Utils
