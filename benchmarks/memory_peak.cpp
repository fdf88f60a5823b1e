// SPDX-License-Identifier: MIT
// The peak resident memory of a process that churns.
//
// Each churn of memory_churn.h runs in a process of its own, for 20 steps a slot. Each new block is
// written in full, so that all of its pages are resident. The figure is the kernel's high-water
// mark of the process, in KiB; it includes the program and its libraries. One program for each
// allocator (memory_competitor.h); prints LINE <tab> WHO <tab> KiB.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "benchmarks/memory_churn.h"
#include "benchmarks/memory_competitor.h"

namespace Bench {

namespace {

constexpr unsigned STEPS_PER_SLOT = 20;

void* _slots[MOST_SLOTS];

void replace(Step step) {
  give(_slots[step.slot_]);
  _slots[step.slot_] = take(step.size_);
  std::memset(_slots[step.slot_], 1, step.size_);
}

// Returns 0 if the kernel does not report it.
long peakInKiB() {
  char text[4096];
  const int file = open("/proc/self/status", O_RDONLY);
  const ssize_t length = read(file, text, sizeof text - 1);
  close(file);
  text[length > 0 ? length : 0] = '\0';
  const char* entry = std::strstr(text, "VmHWM:");
  return entry ? std::atol(entry + std::strlen("VmHWM:")) : 0;
}

[[noreturn]] void churnOn(const Churn& churn) {
  Steps steps(churn);
  for (unsigned i = 0; i < churn.slots_ * STEPS_PER_SLOT; i++) replace(steps.next());
  const long peak = peakInKiB();
  std::printf("peak, %s\t%s\t%ld\n", churn.name_, WHO, peak);
  std::fflush(stdout);
  _exit(peak > 0 ? 0 : 1);
}

bool measureApart(const Churn& churn) {
  const pid_t child = fork();
  if (child == 0) churnOn(churn);
  int status;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace

}  // namespace Bench

int main() {
  Bench::requireCompetitor();
  for (const Bench::Churn& churn : Bench::CHURNS) {
    if (!Bench::measureApart(churn)) {
      std::fprintf(stderr, "%s: no peak for %s\n", Bench::WHO, churn.name_);
      return 1;
    }
  }
}
