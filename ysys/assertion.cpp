// SPDX-License-Identifier: MIT
// The report of a condition that does not hold.
//
// Writes one line to standard error in one system call, then stops the process. The caller has
// already tested the condition. Two conditions report that memory has run out: nothing is damaged
// then and the caller gets null, so each of the two is printed only the first time, and the process
// continues.
//
// Thread safety: may be called from any task, with any lock held and the heap broken; nothing is
// allocated.
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "utils/sdk/platform.h"
#include "utils/sdk/ysys.h"
#include "ysys/stderr_report.h"

namespace ysys {
namespace {

struct Exhaustion {
  const char* condition_;
  const char* file_;
  std::atomic<bool> wasPrinted_{false};
};

constinit Exhaustion _exhaustions[] = {{"m", "utils/sdk/allocator"}, {"h", "utils/sdk/alloc"}};

// How many calls of YfWithoutExhaustionReport are active in the task.
constinit thread_local unsigned _unreported __attribute__((tls_model("initial-exec"))) = 0;

// Returns null if the condition does not report exhaustion.
Exhaustion* exhaustionOf(const char* condition, const char* file) {
  if (condition == nullptr || file == nullptr) return nullptr;
  for (Exhaustion& each : _exhaustions) {
    if (strcmp(condition, each.condition_) == 0 && strcmp(file, each.file_) == 0) return &each;
  }
  return nullptr;
}

bool isChosen(const char* value) {
  const char* choice = getenv("YSYS_ASSERT");
  return choice != nullptr && strcmp(choice, value) == 0;
}

}  // namespace
}  // namespace ysys

using namespace ysys;

void YfAssert__(const char* condition, const char* file, unsigned int line) noexcept {
  Exhaustion* exhaustion = exhaustionOf(condition, file);
  if (exhaustion != nullptr && _unreported != 0) return;
  const bool goesOn = isChosen("continue");
  const bool stops = !goesOn && (exhaustion == nullptr || isChosen("stop"));
  if (!goesOn && !stops && exhaustion->wasPrinted_.exchange(true)) return;
  const NumberText lineText(line, 10);
  report({"assertion failed: ", condition, ", ", file, ":", lineText.text(), "\n"});
  if (stops) abort();
}

void YfWithoutExhaustionReport(void (*step)(void*), void* argument) noexcept {
  ++_unreported;
  step(argument);
  --_unreported;
}

void _assert(const char* condition, const char* file, unsigned int line) noexcept {
  YfAssert__(condition, file, line);
}
