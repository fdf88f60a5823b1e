// SPDX-License-Identifier: MIT
// The time that locks and events take, in one task and between two.
//
// The peers of the locks are those of the language: std::recursive_mutex for recursive locks, and
// std::mutex for a lock that two tasks want all the time. The critical section adds to a number
// that both tasks share. The peer of an event that two tasks set and wait for in turn is a mutex
// with a condition variable; the time is that of one round trip. With two tasks the time is
// wall-clock time, else processor time.
#include <condition_variable>
#include <mutex>
#include <thread>

#include "benchmarks/support/lines.h"
#include "utils/sdk/block.h"
#include "utils/sdk/event.h"
#include "utils/sdk/locker.h"

namespace Bench {

namespace {

// --- One task ---

struct LightLock : Utils::YtLightBLock {
  LightLock() : YtLightBLock("bench") {}
};

template <class Wrapped>
struct Traced {
  void lock() { lock_.enter(); }
  void unlock() { lock_.exit(); }

  Wrapped lock_;
};

template <class Lock>
void lockAndUnlock(benchmark::State& state) {
  Lock lock;
  for (auto _ : state) {
    lock.lock();
    benchmark::ClobberMemory();
    lock.unlock();
  }
}

template <class Lock>
void lockAgain(benchmark::State& state) {
  Lock lock;
  lock.lock();
  for (auto _ : state) {
    lock.lock();
    benchmark::ClobberMemory();
    lock.unlock();
  }
  lock.unlock();
}

// --- Two tasks ---

template <class Lock>
void contend(benchmark::State& state, int steps) {
  constexpr int ROUNDS = 100000;
  Lock lock;
  volatile unsigned shared = 0;
  const auto work = [&] {
    for (int i = 0; i < ROUNDS; i++) {
      lock.lock();
      for (int step = 0; step < steps; step++) shared = shared + 1;
      lock.unlock();
    }
  };
  for (auto _ : state) {
    std::thread other(work);
    work();
    other.join();
  }
  state.SetItemsProcessed(state.iterations() * 2 * ROUNDS);
}

struct Event {
  Event() : event_(false, false) {}
  void set() { event_.set(); }
  void wait() { event_.wait(); }

  Utils::WaitableEvent event_;
};

struct Condition {
  void set() {
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      isSet_ = true;
    }
    condition_.notify_one();
  }
  void wait() {
    std::unique_lock<std::mutex> guard(mutex_);
    condition_.wait(guard, [this] { return isSet_; });
    isSet_ = false;
  }

  std::mutex mutex_;
  std::condition_variable condition_;
  bool isSet_ = false;
};

template <class Signal>
void thereAndBack(benchmark::State& state) {
  constexpr int ROUNDS = 20000;
  Signal there, back;
  for (auto _ : state) {
    std::thread other([&] {
      for (int i = 0; i < ROUNDS; i++) {
        there.wait();
        back.set();
      }
    });
    for (int i = 0; i < ROUNDS; i++) {
      there.set();
      back.wait();
    }
    other.join();
  }
  state.SetItemsProcessed(state.iterations() * ROUNDS);
}

// --- Registration ---

template <class Function, class... Arguments>
benchmark::internal::Benchmark* add(const char* line, const char* who, Function* function,
                                    Arguments... arguments) {
  return benchmark::RegisterBenchmark(lineOf(line, who).c_str(), function, arguments...);
}

template <class Lock>
void addContention(const char* who) {
  add("YtLightBLock: two tasks, 1 step", who, contend<Lock>, 1)->UseRealTime();
  add("YtLightBLock: two tasks, 100 steps", who, contend<Lock>, 100)->UseRealTime();
}

template <class Lock>
void addPair(const char* line) {
  add(line, "yutils", lockAndUnlock<Lock>);
  add(line, "recursive_mutex", lockAndUnlock<std::recursive_mutex>);
}

}  // namespace

void registerLines() {
  addPair<LightLock>("YtLightBLock: lock and unlock");
  add("YtLightBLock: again by the owner", "yutils", lockAgain<LightLock>);
  add("YtLightBLock: again by the owner", "recursive_mutex", lockAgain<std::recursive_mutex>);
  addContention<LightLock>("yutils");
  addContention<std::mutex>("mutex");
  addPair<Traced<Utils::CriticalSection>>("CriticalSection: enter and exit");
  addPair<Traced<Utils::Mutex>>("Mutex: enter and exit");
  add("WaitableEvent: there and back", "yutils", thereAndBack<Event>)->UseRealTime();
  add("WaitableEvent: there and back", "condition", thereAndBack<Condition>)->UseRealTime();
}

}  // namespace Bench
