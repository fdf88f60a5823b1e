// SPDX-License-Identifier: MIT
// Handlers of signals that are chosen by name.
//
// Thread safety: may be called from any task.
#include <signal.h>
#include <string.h>

#include "utils/sdk/platform.h"
#include "ysys/caller_state.h"

namespace ysys {
namespace {

// Returns 0 if there is no such signal.
int numberOfSignal(const char* name) {
  for (int signal = 1; signal < NSIG; ++signal) {
    const char* each = sigabbrev_np(signal);
    if (each != nullptr && strcmp(each, name) == 0) return signal;
  }
  return 0;
}

}  // namespace
}  // namespace ysys

using namespace ysys;

int YfOnSignal(const char* name, void (*note)(int)) noexcept {
  const ErrnoSaver saver;
  const int signal = numberOfSignal(name);
  struct sigaction action = {};
  action.sa_handler = note;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  return signal != 0 && sigaction(signal, &action, nullptr) == 0 ? signal : 0;
}
