// SPDX-License-Identifier: MIT
// Construction and destruction of the locks that block, and the report of a violation.
#include "utils/sdk/block.h"

#include "utils/sdk/logging/trace.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/sync/shared_handles.h"

namespace Utils {

namespace {

constexpr char SOURCE[] = "utils/sdk/block";

constinit SharedHandles _events;
constinit SharedHandles _sections;

}  // namespace

// --- YtLightBLock ---

YtLightBLock::YtLightBLock(const char* name) : name_(name) { init(); }

void YtLightBLock::init() {
  count_ = 0;
  owner_ = NOBODY;
  event_ = YIF_CreateEventCoop(0, 1);
}

YtLightBLock::YtLightBLock(const YtLightBLock& other)
    : name_(other.name_), count_(other.count_), owner_(other.owner_), event_(other.event_) {
  _events.add(event_);
}

YtLightBLock& YtLightBLock::operator=(const YtLightBLock& other) {
  name_ = other.name_;
  count_ = other.count_;
  owner_ = other.owner_;
  event_ = reassign(_events, event_, other.event_, YIF_DestroyEventCoop);
  return *this;
}

YtLightBLock::~YtLightBLock() {
  if (owner_ != NOBODY && !YfStayedInParent(owner_))
    YfAssert__("owner_ == (unsigned long)-1", SOURCE, __LINE__);
  if (_events.remove(event_)) YIF_DestroyEventCoop(event_);
}

bool YtLightBLock::try_lock() {
  const unsigned long id = YIF_CurrentTaskIdCoop();
  if (ownerIs(id)) {
    count(1);
    return true;
  }
  if (!YfTryWaitEventCoop(event_)) return false;
  setOwner(id);
  return true;
}

void YtLightBLock::tellViolation() const {
  if (traces(TRACE_LIFETIME))
    Log::theLog()->print(Debug, LIBRARY_CATEGORY, TRACE_LIFETIME, SOURCE, __LINE__,
                         "BLock violation: %s", name_);
}

// --- YtHeavyBLock ---

YtHeavyBLock::YtHeavyBLock(const char*) : section_(YIF_CreateCriticalSection()) {}

YtHeavyBLock::YtHeavyBLock(const YtHeavyBLock& other) : section_(other.section_) {
  _sections.add(section_);
}

YtHeavyBLock& YtHeavyBLock::operator=(const YtHeavyBLock& other) {
  section_ = reassign(_sections, section_, other.section_, YIF_DestroyCriticalSection);
  return *this;
}

bool YtHeavyBLock::try_lock() { return YfTryEnterCriticalSection(section_) != 0; }

YtHeavyBLock::~YtHeavyBLock() {
  if (_sections.remove(section_)) YIF_DestroyCriticalSection(section_);
}

}  // namespace Utils
