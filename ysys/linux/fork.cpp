// SPDX-License-Identifier: MIT
// The one place that learns of a fork.
//
// A handler in the child mends the families. There is none before the fork: a handler of the
// program that runs after it could wait there for a task that waits for the system layer.
//
// The handler is registered when the library is loaded. Handlers that were registered earlier run
// before it in the child. They may enter and leave the locks that the forking task holds and make
// and destroy objects as always. If one has to wait, for a lock of a task that the child does not
// have, that wait mends the families. It finds out by a word on a page that the kernel clears in
// the child; if the kernel cannot do that, only the handler mends. A handler that starts tasks, or
// sets a plain event that others waited for in the parent, has to be registered after the load.
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
constexpr uint32_t MENDED = 1;
constexpr uint32_t MENDED_EARLY = 2;  // and the handler has still to come

constinit State _plainState{MENDED};
constinit std::atomic<State*> _state{&_plainState};

State& state() { return *_state.load(std::memory_order_acquire); }

void mendAs(uint32_t after) {
  mendTasks();  // the others ask for the calling task's id
  mendLocks();
  mendEvents();
  mendFiles();
  mendMemory();
  state().store(after, std::memory_order_relaxed);
}

void handleChild() {
  if (state().load(std::memory_order_relaxed) == MENDED_EARLY) {
    state().store(MENDED, std::memory_order_relaxed);
  } else {
    mendAs(MENDED);
  }
}

void keepStateOnClearedPage() {
  const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return;
  if (madvise(page, size, MADV_WIPEONFORK) == 0) {
    _state.store(::new (page) State(MENDED), std::memory_order_release);
  } else {
    munmap(page, size);
  }
}

__attribute__((constructor)) void prepareForForks() {
  keepStateOnClearedPage();
  pthread_atfork(nullptr, nullptr, handleChild);
}

}  // namespace

void mendNewChild() {
  const bool isNew = state().load(std::memory_order_relaxed) == NEW_CHILD;
  const auto isForkingTask = [] { return gettid() == getpid(); };
  if (isNew && isForkingTask()) mendAs(MENDED_EARLY);
}

}  // namespace ysys
