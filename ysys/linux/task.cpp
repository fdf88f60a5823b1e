// SPDX-License-Identifier: MIT
// The identity of the calling task.
//
// People see the kernel's thread number, which is below 2^22. Code compares the id: generation <<
// 22 | number, with the number of forks that led to the process as its generation. Task 4711 of a
// program has the id 4711, and task 4711 of a child of its child 0x00801267.
//
// The task that forks keeps its id in the child, so it still holds there what it held. The
// generation distinguishes new tasks of the child from it, and from the tasks that stayed in the
// parent: objects of the program may still store their ids, and the kernel may reuse their numbers.
// Generations are reused after 512 nested forks.
//
// Thread safety: may be called from any task, without initialisation.
#include "ysys/task.h"

#include <unistd.h>

#include "utils/sdk/platform.h"
#include "utils/sdk/ysys.h"
#include "ysys/fork.h"

namespace ysys {

constinit thread_local unsigned _taskId __attribute__((tls_model("initial-exec"))) = 0;

namespace {

constexpr unsigned GENERATIONS = 1u << (31 - NUMBER_BITS);

constinit thread_local unsigned _number __attribute__((tls_model("initial-exec"))) = 0;

constinit unsigned _generation = 0;
constinit unsigned _inherited = 0;  // id of the task that forked this process, 0 if it had none

unsigned generationOf(unsigned id) { return id >> NUMBER_BITS; }

unsigned number() {
  if (_number == 0) _number = static_cast<unsigned>(gettid());
  return _number;
}

}  // namespace

unsigned makeTaskId() { return _taskId = _generation << NUMBER_BITS | number(); }

void repairTasks() {
  _number = 0;
  _inherited = _taskId;
  do {
    _generation = (_generation + 1) % GENERATIONS;
  } while (_inherited != 0 && _generation == generationOf(_inherited));
}

}  // namespace ysys

unsigned long YIF_CurrentTaskId() noexcept { return ysys::number(); }

unsigned long YIF_CurrentTaskIdCoop() noexcept { return ysys::taskId(); }

int YfStayedInParent(unsigned long task) noexcept {
  using namespace ysys;
  repairNewChild();
  const unsigned id = static_cast<unsigned>(task);
  return id == task && generationOf(id) != _generation && id != _inherited ? 1 : 0;
}
