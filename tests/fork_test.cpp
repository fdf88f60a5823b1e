// SPDX-License-Identifier: MIT
// The child of a fork: its locks, its task ids, and the handlers of the program around the fork.
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "tests/support/child_process.h"
#include "tests/support/seed.h"
#include "utils/sdk/block.h"
#include "utils/sdk/locker.h"

// The thread sanitizer otherwise ends a child of several tasks that starts one.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }

namespace {

using namespace Utils;
using namespace std::chrono_literals;

[[maybe_unused]] const unsigned _watchdog = alarm(120);  // a test that hangs ends by a signal

struct AnyLock {
  std::function<void()> enter_, exit_;
  std::function<bool()> tryEnter_;
};

// One of each kind, all used alike.
struct AllLocks {
  Mutex mutex_;
  CriticalSection section_;
  std::optional<YtLightBLock> light_{"light"}, copy_{*light_};
  YtHeavyBLock heavy_{"heavy"};
  std::vector<AnyLock> all_ = {
      {[&] { mutex_.enter(); }, [&] { mutex_.exit(); }, [&] { return mutex_.try_lock(); }},
      {[&] { section_.enter(); }, [&] { section_.exit(); }, [&] { return section_.try_lock(); }},
      {[&] { heavy_.lock(); }, [&] { heavy_.unlock(); }, [&] { return heavy_.try_lock(); }},
      {[&] { copy_->lock(); }, [&] { copy_->unlock(); }, [&] { return copy_->try_lock(); }}};
};

// --- Locks ---

using Depths = std::vector<unsigned>;  // how often the calling task holds each lock

// A second task enters all locks in turn, then the calling task. Returns 0 if each lets the second
// task in when the calling task has left it as often as it had entered, and not earlier.
int leaveAll(AllLocks& locks, const Depths& depths) {
  std::atomic<unsigned> passed{0};
  std::thread visitor([&] {
    for (const AnyLock& lock : locks.all_) {
      if (!lock.tryEnter_()) lock.enter_();
      lock.exit_();
      ++passed;
    }
  });
  int fault = 0;
  for (unsigned i = 0; i < depths.size(); ++i) {
    for (unsigned exits = 0; exits < depths[i]; ++exits) {
      while (passed < i) std::this_thread::yield();
      std::this_thread::sleep_for(1ms);
      if (passed != i || !locks.all_[i].tryEnter_()) fault = 1;
      locks.all_[i].exit_();
      locks.all_[i].exit_();
    }
  }
  visitor.join();
  for (const AnyLock& lock : locks.all_)
    if (!lock.tryEnter_()) fault = 2;
  return fault;
}

// A light lock of a task that is gone may be given back, which is a violation, and may end.
int checkChild(AllLocks& locks, const Depths& depths, unsigned choice) {
  const bool isTheirs = depths.back() == 0;
  if (choice == 1) return waitForChild(startChild([&] { return checkChild(locks, depths, 0); }));
  if (choice == 2 && isTheirs) locks.copy_->unlock();
  if (choice != 3) return leaveAll(locks, depths);
  locks.copy_.reset();  // stops the process if the calling task holds it
  return isTheirs ? 0 : 1;
}

// Of four tasks that hold each lock or not, while others wait for it, one forks.
TEST(Fork, KeepsWhatTheForkingTaskHoldsAndFreesTheRest) {
  constexpr unsigned TASKS = 4, LOCKS = 4;
  Random random(20);
  for (int round = 0; round < 40; ++round) {
    AllLocks locks;
    Depths depths[TASKS];
    for (Depths& each : depths) each.resize(LOCKS);
    for (unsigned i = 0; i < LOCKS; ++i) depths[random.below(TASKS)][i] = random.below(4);
    const unsigned forking = random.below(TASKS), choice = random.below(4);
    std::atomic<unsigned> ready{0};
    std::atomic<bool> done{false};
    const auto run = [&](const Depths& mine, bool forks) {
      for (unsigned i = 0; i < LOCKS; ++i)
        for (unsigned enters = 0; enters < mine[i]; ++enters) locks.all_[i].enter_();
      for (++ready; forks && ready < TASKS + LOCKS;) std::this_thread::yield();
      if (forks) {
        std::this_thread::sleep_for(1ms);
        const auto child = runInChild([&] { return checkChild(locks, mine, choice); });
        const bool endsMine = choice == 3 && mine.back() != 0;
        EXPECT_EQ(child.status, endsMine ? -SIGABRT : 0) << choice << child.errorOutput;
        const std::string failed =
            "assertion failed: owner_ == (unsigned long)-1, utils/sdk/block:";
        EXPECT_EQ(child.errorOutput.starts_with(failed), endsMine);
        done = true;
      }
      while (!done) std::this_thread::yield();
      for (unsigned i = 0; i < LOCKS; ++i)
        for (unsigned exits = 0; exits < mine[i]; ++exits) locks.all_[i].exit_();
    };
    std::vector<std::jthread> tasks;
    for (const Depths& each : depths)
      tasks.emplace_back([&] { run(each, &each == &depths[forking]); });
    while (ready < TASKS) std::this_thread::yield();
    for (const AnyLock& lock : locks.all_) {
      tasks.emplace_back([&] {
        ++ready;
        lock.enter_();
        lock.exit_();
      });
    }
  }
}

// --- Handlers of the program around the fork ---

using Handlers = std::vector<void (*)()>;  // before, after in the parent, after in the child

template <int SET>
struct Registered {
  static void add() { pthread_atfork(run<0>, run<1>, run<2>); }
  template <int STEP>
  static void run() {
    if (STEP == 2) alarm(20);
    if (handlers_) (*handlers_)[STEP]();
  }

  static inline constinit const Handlers* handlers_ = nullptr;
};

enum { EARLY, LATE };  // than the library's own

[[gnu::section(".preinit_array"), gnu::used]] void (*_early)() = Registered<EARLY>::add;
[[maybe_unused]] const int _late = (Registered<LATE>::add(), 0);

AllLocks* _locks = nullptr;

void enterAll() {
  for (const AnyLock& lock : _locks->all_) lock.enter_();
}

void exitAll() {
  for (const AnyLock& lock : _locks->all_) lock.exit_();
}

// Needs more slots than there are now and then. Takes no memory, since under a sanitizer the child
// may find its heap locked.
void makeSome() {
  YIF_Handle made[300];
  for (YIF_Handle& each : made) each = YIF_CreateMutex();
  std::ranges::sort(made);
  if (std::ranges::adjacent_find(made) != std::end(made)) _exit(3);
  for (YIF_Handle each : made) YIF_DestroyMutex(each);
  YIF_Close(YIF_Open("/dev/null", YIF_OPEN_APPEND, 1));
  *static_cast<char*>(YIF_MemAlloc(64)) = 1;
}

void useAll() {
  enterAll();
  makeSome();
  exitAll();
}

TEST(Fork, HandlersMayUseTheLocksAndMakeObjects) {
  const Handlers span = {enterAll, exitAll, exitAll}, use = {useAll, useAll, useAll};
  for (const Handlers** place : {&Registered<EARLY>::handlers_, &Registered<LATE>::handlers_}) {
    for (const Handlers* handlers : {&span, &use}) {
      AllLocks locks;
      _locks = &locks;
      *place = handlers;
      std::atomic<bool> done{false};
      std::vector<std::jthread> tasks;
      for (int i = 0; i < 2; ++i) {
        tasks.emplace_back([&] {
          for (; !done; std::this_thread::sleep_for(100us)) useAll();
        });
      }
      tasks.emplace_back([&] {
        while (!done) {
          YIF_DestroyMutex(YIF_CreateMutex());
          YIF_MemInit(0);
        }
      });
      const auto useInChild = [] {
        useAll();
        return 0;
      };
      for (int i = 0; i < 50; ++i) EXPECT_EQ(waitForChild(startChild(useInChild)), 0);
      *place = nullptr;
      done = true;
    }
  }
}

// --- Task ids ---

// Runs three tasks at once. When all have stored their ids, the first one calls `step`.
void inThreeTasks(unsigned long* ids, const std::function<void()>& step) {
  std::atomic<int> arrived{0};
  std::vector<std::jthread> tasks;
  for (int i = 0; i < 3; ++i) {
    tasks.emplace_back([&, i] {
      ids[i] = YIF_CurrentTaskIdCoop();
      for (++arrived; arrived < 3;) std::this_thread::yield();
      if (i == 0) step();
      for (++arrived; arrived < 6;) std::this_thread::yield();
    });
  }
}

constexpr int REFUSED = 77;

int forkWhereNumbersBeginAgain(const std::function<int()>& body) {
  if (unshare(CLONE_NEWPID) != 0) return REFUSED;
  return waitForChild(startChild([&] {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // no usual signal ends the first task there
    return body();
  }));
}

// The new tasks of the child have the numbers of the forking task and of those that stayed in the
// parent.
int useNumbersAgain() {
  unsigned long ids[7] = {YIF_CurrentTaskIdCoop()};
  int result = -1;
  inThreeTasks(ids + 1, [&] {
    const unsigned long mine = YIF_CurrentTaskIdCoop();
    result = forkWhereNumbersBeginAgain([&] {
      if (YIF_CurrentTaskIdCoop() != mine || YIF_CurrentTaskId() != 1) return 1;
      inThreeTasks(ids + 4, [] {});
      return std::set<unsigned long>(ids, ids + 7).size() == 7 ? 0 : 2;
    });
  });
  return result;
}

TEST(Fork, NewTasksHaveIdsOfTheirOwnThoughTheirNumbersComeBack) {
  const auto child = runInChild([] {
    return unshare(CLONE_NEWUSER) != 0 ? REFUSED : forkWhereNumbersBeginAgain(useNumbersAgain);
  });
  if (child.status == REFUSED) GTEST_SKIP() << "this system has no pid namespaces";
  EXPECT_EQ(child.status, 0) << child.errorOutput;
}

// Each process forks the next one and ends; ids may come back after 511 of them.
TEST(Fork, NestedOnesKeepTheIdAndGiveNewOnes) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // all of them become children of this process
  const unsigned long mine = YIF_CurrentTaskIdCoop();
  startChild([&] {
    std::set<unsigned long> given;
    for (int depth = 0; depth < 540; ++depth) {
      if (fork() != 0) return 0;
      unsigned long id = 0;
      std::thread([&] { id = YIF_CurrentTaskIdCoop(); }).join();
      const bool isNew = given.insert(id).second || depth >= 511;
      const bool isOther = id >> 22 != mine >> 22 && id < 0x80000000u;
      if (!isNew || !isOther || YIF_CurrentTaskIdCoop() != mine) return 1;
    }
    return 0;
  });
  int ended = 0;
  for (int status = 0; wait(&status) != -1; ++ended) EXPECT_EQ(status, 0);
  EXPECT_EQ(ended, 541);
}

}  // namespace
