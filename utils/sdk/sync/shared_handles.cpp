// SPDX-License-Identifier: MIT
// The search for an entry, and the change of its count.
#include "utils/sdk/sync/shared_handles.h"

#include <new>

namespace Utils {

// Returns the first entry that meets the condition, or null.
template <class Condition>
SharedHandles::Entry* SharedHandles::find(Condition condition) {
  for (Entry& entry : few_) {
    if (condition(entry)) return &entry;
  }
  Entry* entry = more_.load(std::memory_order_acquire);
  while (entry && !condition(*entry)) entry = entry->next_;
  return entry;
}

// The count is written last and read first, so the handle that is read belongs to it.
SharedHandles::Entry* SharedHandles::entryOf(YIF_Handle handle) {
  return find([=](const Entry& entry) {
    return entry.others_.load(std::memory_order_acquire) != 0 &&
           entry.handle_.load(std::memory_order_relaxed) == handle;
  });
}

SharedHandles::Entry* SharedHandles::unusedEntry() {
  Entry* entry = find([](const Entry& each) { return each.others_ == 0; });
  if (entry) return entry;
  entry = new (std::nothrow) Entry;
  if (!entry) return nullptr;
  entry->next_ = more_;
  more_.store(entry, std::memory_order_release);
  return entry;
}

void SharedHandles::add(YIF_Handle handle) {
  if (Entry* entry = entryOf(handle)) {
    entry->others_++;
  } else if ((entry = unusedEntry())) {
    entry->handle_.store(handle, std::memory_order_relaxed);
    entry->others_.store(1, std::memory_order_release);
  } else {
    lost_ = true;
  }
}

bool SharedHandles::remove(YIF_Handle handle) {
  Entry* entry = entryOf(handle);
  if (!entry) return !lost_;
  entry->others_--;
  return false;
}

}  // namespace Utils
