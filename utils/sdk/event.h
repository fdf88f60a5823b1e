// SPDX-License-Identifier: MIT
// An event that tasks wait for, as a reference-counted object.
//
// A manual-reset event stays set until it is reset; an auto-reset event clears itself when it
// releases a task (ysys.h). Not a lock: no task owns it. In the log, category "utils", level 0,
// lines report that events are created and destroyed. A copy refers to the same system event; the
// last one to be destroyed destroys it.
//
// Thread safety: set, reset and the waits may be called from any task while the event lives. Any
// task may create and destroy events; with the lines on, no task may change the hub at the same
// time (log.h). The caller serialises copying, destroying copies, creating and destroying Refs, and
// new and delete (allocator.h).
#pragma once

#include "utils/sdk/export.h"
#include "utils/sdk/object.h"
#include "utils/sdk/ysys.h"

namespace Utils {

struct YUTILS_EXPORT WaitableEvent : Object {
  WaitableEvent(bool manualReset, bool initiallySet);
  WaitableEvent(const WaitableEvent& other);
  WaitableEvent& operator=(const WaitableEvent& other);
  ~WaitableEvent() override;  // Requires: no task waits.

  void set() { YIF_SetEvent(event_); }
  void reset() { YIF_ResetEvent(event_); }
  void wait() { YIF_WaitEvent(event_); }
  // Waits for at most `limit` seconds. Returns true if the event released this task, false if the
  // time ran out.
  bool wait(double limit) { return YIF_WaitEventTimed(event_, limit) != 0; }

 private:
  friend struct DebuggerLayout;

  YIF_Handle event_;
};

}  // namespace Utils
