// SPDX-License-Identifier: MIT
// Events are created, copied and destroyed here; their waits are inline.
#include "utils/sdk/event.h"

#include "utils/sdk/logging/trace.h"
#include "utils/sdk/sync/shared_handles.h"

namespace Utils {

namespace {

constexpr char SOURCE[] = "utils/sdk/event";

constinit SharedHandles _events;

void trace(unsigned line, const char* format, YIF_Handle event) {
  if (!traces(TRACE_LIFETIME)) return;
  const auto task = static_cast<unsigned>(YIF_CurrentTaskId());
  Log::theLog()->print(Debug, LIBRARY_CATEGORY, TRACE_LIFETIME, SOURCE, line, format, task,
                       static_cast<unsigned long>(event));
}

void destroy(YIF_Handle event) {
  trace(__LINE__, "%x Destroying event %lx", event);
  YIF_DestroyEvent(event);
}

}  // namespace

WaitableEvent::WaitableEvent(bool manualReset, bool initiallySet)
    : event_(YIF_CreateEvent(manualReset, initiallySet)) {
  trace(__LINE__, "%x Created event %lx", event_);
}

WaitableEvent::WaitableEvent(const WaitableEvent& other) : Object(other), event_(other.event_) {
  _events.add(event_);
}

WaitableEvent& WaitableEvent::operator=(const WaitableEvent& other) {
  Object::operator=(other);
  event_ = reassign(_events, event_, other.event_, destroy);
  return *this;
}

WaitableEvent::~WaitableEvent() {
  if (_events.remove(event_)) destroy(event_);
}

}  // namespace Utils
