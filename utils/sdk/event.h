// SPDX-License-Identifier: MIT
// An event that tasks wait for, as a counted object.
//
// A manual-reset event stays set until it is reset; any other clears itself as it lets one task
// through (ysys.h). Not a lock: nobody owns it. Its birth and its end can be followed in the log,
// category "utils", level 0.
//
// Set, reset and the waits may be called from any task as long as the event lives; events are
// created and destroyed in any task too, with their lines on while nobody changes the hub (log.h).
// A copy refers to the same system event, and the last one ends it; the caller serialises the
// copying and ending of copies, and of Refs.
#pragma once

#include "utils/sdk/export.h"
#include "utils/sdk/object.h"
#include "utils/sdk/ysys.h"

namespace Utils {

struct YUTILS_EXPORT WaitableEvent : Object {
  WaitableEvent(bool manualReset, bool initiallySet);
  WaitableEvent(const WaitableEvent& other);
  WaitableEvent& operator=(const WaitableEvent& other);
  ~WaitableEvent() override;  // requires: nobody waits

  void set() { YIF_SetEvent(event_); }
  void reset() { YIF_ResetEvent(event_); }
  void wait() { YIF_WaitEvent(event_); }
  // For that many seconds at most; true when the event let this task through.
  bool wait(double limit) { return YIF_WaitEventTimed(event_, limit) != 0; }

 private:
  YIF_Handle event_;
};

}  // namespace Utils
