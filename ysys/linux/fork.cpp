// SPDX-License-Identifier: MIT
// The handler of a fork.
//
// A handler in the child repairs the families. There is no handler before the fork: a handler of
// the program that runs after it could wait there for a task that waits for the system layer.
//
// The handler is registered when the library is loaded. Handlers that were registered earlier run
// before it in the child. They may enter and leave the locks that the forking task holds, and
// create and destroy objects as always. If one has to wait, for a lock of a task that the child
// does not have, that wait repairs the families. It detects a new child by a word on a page that
// the kernel clears in the child; if the kernel cannot do that, only the handler repairs. A handler
// that starts tasks, or that sets a plain event for which other tasks waited in the parent, has to
// be registered after the load.
#include "ysys/fork.h"

#include <pthread.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <new>

namespace ysys {
namespace {

using State = std::atomic<uint32_t>;

constexpr uint32_t NEW_CHILD = 0;  // the page was cleared
constexpr uint32_t REPAIRED = 1;
constexpr uint32_t REPAIRED_EARLY = 2;  // and the handler has not run yet

constinit State _plainState{REPAIRED};
constinit std::atomic<State*> _state{&_plainState};

State& state() { return *_state.load(std::memory_order_acquire); }

void repairAs(uint32_t after) {
  repairTasks();  // first: the others use the calling task's id
  repairLocks();
  repairEvents();
  repairFiles();
  repairMemory();
  state().store(after, std::memory_order_relaxed);
}

void handleChild() {
  if (state().load(std::memory_order_relaxed) == REPAIRED_EARLY) {
    state().store(REPAIRED, std::memory_order_relaxed);
  } else {
    repairAs(REPAIRED);
  }
}

void keepStateOnClearedPage() {
  const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return;
  if (madvise(page, size, MADV_WIPEONFORK) == 0) {
    _state.store(::new (page) State(REPAIRED), std::memory_order_release);
  } else {
    munmap(page, size);
  }
}

__attribute__((constructor)) void prepareForForks() {
  keepStateOnClearedPage();
  pthread_atfork(nullptr, nullptr, handleChild);
}

}  // namespace

void repairNewChild() {
  const bool isNew = state().load(std::memory_order_relaxed) == NEW_CHILD;
  const auto isForkingTask = [] { return gettid() == getpid(); };
  if (isNew && isForkingTask()) repairAs(REPAIRED_EARLY);
}

}  // namespace ysys
