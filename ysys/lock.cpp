// SPDX-License-Identifier: MIT
// Mutexes and critical sections, which are the same recursive lock with two kinds of handles.
//
// A lock is two words. The first is 0 if the lock is free, else the holder's task id, with bit 31
// set if tasks may sleep for it: held by task 4711 with others waiting it is 0x80001267. The second
// counts how often the holder has entered again; only the holder changes it.
//
// Entering a free lock is one compare-and-exchange, releasing it one exchange. A task that must
// wait spins for a moment, then sets bit 31 and sleeps; a release wakes one sleeping task. Not
// fair: a task that arrives at the right moment gets the lock before those that sleep.
//
// In the child of a fork the task that forked keeps its id and the locks that it held, as often as
// it entered. Locks of other tasks are free. The counter is atomic because a fork may copy it while
// its task changes it.
//
// Thread safety: may be called from any task.
#include <atomic>

#include "utils/sdk/base/layout.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/ysys.h"
#include "ysys/fork.h"
#include "ysys/futex.h"
#include "ysys/handle_table.h"
#include "ysys/object_fields.h"
#include "ysys/task.h"

namespace ysys {
namespace {

class Lock : private LockFields {
 public:
  void init();
  void enter();
  bool tryEnter();
  bool exit();  // returns false, and changes nothing, if the calling task does not hold the lock
  void repair(uint32_t me);  // in the child of a fork: free unless the calling task holds it

 private:
  bool takeIfFree(uint32_t held) {
    uint32_t nobody = 0;
    return word_.load(std::memory_order_relaxed) == 0 &&
           word_.compare_exchange_strong(nobody, held, std::memory_order_acquire);
  }
  void enterContended(uint32_t me);
  uint32_t announceSleeper();  // returns the word to sleep on, 0 to try again
};
static_assert(sizeof(Lock) == sizeof(LockFields));

void Lock::init() {
  again_.store(0, std::memory_order_relaxed);
  word_.store(0, std::memory_order_relaxed);
}

inline void Lock::enter() {
  const uint32_t me = taskId();
  if ((word_.load(std::memory_order_relaxed) & ~SLEEPERS) == me) {
    again_.store(again_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  } else if (!takeIfFree(me)) {
    enterContended(me);
  }
}

bool Lock::tryEnter() {
  const uint32_t me = taskId();
  if ((word_.load(std::memory_order_relaxed) & ~SLEEPERS) == me) {
    enter();  // once more, which needs no wait
    return true;
  }
  if (takeIfFree(me)) return true;
  repairNewChild();
  return takeIfFree(me);
}

inline bool Lock::exit() {
  if ((word_.load(std::memory_order_relaxed) & ~SLEEPERS) != taskId()) return false;
  const uint32_t again = again_.load(std::memory_order_relaxed);
  if (again != 0) {
    again_.store(again - 1, std::memory_order_relaxed);
  } else if (word_.exchange(0, std::memory_order_release) & SLEEPERS) {
    futexWake(&word_, 1);
  }
  return true;
}

void Lock::repair(uint32_t me) {
  if ((word_.load(std::memory_order_relaxed) & ~SLEEPERS) == me) {
    word_.store(me, std::memory_order_relaxed);
  } else {
    init();
  }
}

// A task that has slept takes the lock with the bit set, since others may still sleep.
void Lock::enterContended(uint32_t me) {
  if (spinUntil([&] { return takeIfFree(me); })) return;
  repairNewChild();
  while (!takeIfFree(me | SLEEPERS)) {
    const uint32_t seen = announceSleeper();
    if (seen != 0) futexSleep(&word_, seen, FOREVER);
  }
}

uint32_t Lock::announceSleeper() {
  uint32_t word = word_.load(std::memory_order_relaxed);
  if (word == 0 || (word & SLEEPERS) != 0) return word;
  const bool announced =
      word_.compare_exchange_strong(word, word | SLEEPERS, std::memory_order_relaxed);
  return announced ? word | SLEEPERS : 0;
}

constinit HandleTable<Lock, MUTEX> _mutexes;
constinit HandleTable<Lock, CRITICAL_SECTION> _sections;

YIF_Handle orStop(YIF_Handle made, const char* operation) {
  if (made == 0) reportAndStop({"ysys: ", operation, ": no room for another lock\n"});
  return made;
}

void exitOrReport(Lock& lock) {
  if (!lock.exit()) YfAssert__("held by the calling task", "ysys/lock", __LINE__);
}

}  // namespace

DEBUGGER_ROOT(ysys_root_mutexes, _mutexes);
DEBUGGER_ROOT(ysys_root_sections, _sections);

void repairLocks() {
  const auto repair = [me = taskId()](Lock& lock) { lock.repair(me); };
  _mutexes.repair(repair);
  _sections.repair(repair);
}

}  // namespace ysys

using namespace ysys;

YIF_Handle YIF_CreateMutex() noexcept { return orStop(_mutexes.create(), __func__); }

void YIF_DestroyMutex(YIF_Handle mutex) noexcept { _mutexes.destroy(mutex, __func__); }

void YIF_EnterMutex(YIF_Handle mutex) noexcept { _mutexes.at(mutex, __func__).enter(); }

void YIF_ExitMutex(YIF_Handle mutex) noexcept { exitOrReport(_mutexes.at(mutex, __func__)); }

int YfTryEnterMutex(YIF_Handle mutex) noexcept {
  return _mutexes.at(mutex, __func__).tryEnter() ? 1 : 0;
}

int YfTryEnterCriticalSection(YIF_Handle section) noexcept {
  return _sections.at(section, __func__).tryEnter() ? 1 : 0;
}

YIF_Handle YIF_CreateCriticalSection() noexcept { return orStop(_sections.create(), __func__); }

void YIF_DestroyCriticalSection(YIF_Handle section) noexcept {
  _sections.destroy(section, __func__);
}

void YIF_EnterCriticalSection(YIF_Handle section) noexcept {
  _sections.at(section, __func__).enter();
}

void YIF_ExitCriticalSection(YIF_Handle section) noexcept {
  exitOrReport(_sections.at(section, __func__));
}
