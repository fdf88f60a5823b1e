// SPDX-License-Identifier: MIT
// The objects of one kind, and the handles that identify them.
//
// A handle is kind << 28 | generation << 22 | index: the index selects a slot, the generation
// counts how often the slot was used before, and the kind (1 to 7) distinguishes the handles of
// different tables. So no handle is 0 or has bit 31. Event (kind 3), slot 5, used for the second
// time, is 0x30400005.
//
// Slots are in segments of 256 that are mapped as needed and never moved or unmapped. The word of a
// live slot is its handle; the word of a freed slot is the next generation << 22 | the next slot of
// the free queue: slot 5, freed again and last in the queue, is 0x00bfffff. As no slot is its own
// successor, only the word of a live slot can equal a handle with that index, and one comparison
// validates a handle. A handle is reused after its slot was used 64 times. The free queue keeps 256
// slots as long as there is memory for more, so all but the first of these uses need 256 creations
// each, and at least 16128 other handles are created before one is reused.
//
// Not a container: it owns the slots, and only the repair after a fork iterates over the live ones.
//
// The child of a fork may get its copy while another task creates or destroys an object. The steps
// are ordered so that the copy then loses at most one slot or one segment: the queue never counts
// more slots than it links.
//
// Thread safety: all operations except repair may be called from any task. A look-up takes no lock;
// creation and destruction take one.
#pragma once

#include <stdint.h>

#include <atomic>
#include <mutex>
#include <new>
#include <type_traits>

#include "utils/sdk/ysys.h"
#include "ysys/inner_lock.h"
#include "ysys/pages.h"
#include "ysys/stderr_report.h"

namespace ysys {

enum Kind : uint32_t { MUTEX = 1, CRITICAL_SECTION, EVENT, COOPERATIVE_EVENT, OPEN_FILE };

[[noreturn]] __attribute__((cold, noinline)) inline void stopForBadHandle(YIF_Handle handle,
                                                                          const char* operation) {
  const NumberText number(handle, 16);
  reportAndStop({"ysys: ", operation, ": ", number.text(),
                 " is no handle of this family; it is stale, or of another kind\n"});
}

// Requires: T has a trivial destructor and an operation `init`, which puts it into the new state.
template <class T, Kind KIND>
class HandleTable {
 public:
  constexpr HandleTable() = default;
  HandleTable(const HandleTable&) = delete;
  HandleTable& operator=(const HandleTable&) = delete;

  // Creates an object, initialised with the arguments. Returns 0 if there is no room.
  template <class... Arguments>
  YIF_Handle create(Arguments... arguments);

  // Destroys the object. If there is none, stops the process with a report that names `operation`.
  void destroy(YIF_Handle handle, const char* operation);

  // Returns the object. If there is none, stops the process as destroy does.
  __attribute__((always_inline)) T& at(YIF_Handle handle, const char* operation) {
    Slot* found = find(handle);
    if (__builtin_expect(found == nullptr, 0)) stopForBadHandle(handle, operation);
    return found->object_;
  }

  // In the child of a fork: makes the table usable and calls repairObject(object) for each live
  // one.
  template <class RepairObject>
  void repair(RepairObject repairObject);

 private:
  friend struct DebuggerLayout;

  static constexpr uint32_t KIND_SHIFT = 28;
  static constexpr uint32_t GENERATION_SHIFT = 22;
  static constexpr uint32_t SEGMENT_SHIFT = 8;
  static constexpr uint32_t SEGMENT_SLOTS = 1u << SEGMENT_SHIFT;
  static constexpr uint32_t SEGMENT_COUNT = 1u << (GENERATION_SHIFT - SEGMENT_SHIFT);
  static constexpr uint32_t NO_SLOT =
      (1u << GENERATION_SHIFT) - 1;  // so the last index is never used
  static constexpr uint32_t GENERATION_MASK = (1u << KIND_SHIFT) - (1u << GENERATION_SHIFT);

  // One slot in a cache line, so that tasks that use different objects do not slow each other down.
  struct alignas(64) Slot {
    std::atomic<uint32_t> word_{0};
    T object_;
  };

  static_assert(KIND < 8);
  static_assert(std::is_trivially_destructible_v<T>);
  static_assert(std::atomic<Slot*>::is_always_lock_free);

  Slot& slot(uint32_t index) {
    Slot* segment = segments_[index >> SEGMENT_SHIFT].load(std::memory_order_relaxed);
    return segment[index & (SEGMENT_SLOTS - 1)];
  }
  __attribute__((always_inline)) Slot* find(YIF_Handle handle);  // null if the handle is bad
  bool destroyIfFound(YIF_Handle handle);
  void queueFreed(uint32_t index);
  uint32_t takeSlot();
  bool addSegment();

  // Atomic because of the order in which a fork copies the changes; `mutex_` guards them.
  using Field = std::atomic<uint32_t>;
  static uint32_t get(const Field& field) { return field.load(std::memory_order_relaxed); }
  static void put(Field& field, uint32_t value) { field.store(value, std::memory_order_release); }

  // All fields begin with 0, so that a table takes no space in the file of the library.
  InnerLock mutex_;      // guards the fields below, except reads of segments_
  Field used_{0};        // slots below were used at least once
  Field mapped_{0};      // slots below have memory
  Field freed_{0};       // number of slots in the free queue
  Field firstFreed_{0};  // head and tail of the free queue, valid if it has slots
  Field lastFreed_{0};
  std::atomic<Slot*> segments_[SEGMENT_COUNT] = {};
};

template <class T, Kind KIND>
inline typename HandleTable<T, KIND>::Slot* HandleTable<T, KIND>::find(YIF_Handle handle) {
  const uint32_t index = handle & NO_SLOT;
  Slot* segment = segments_[index >> SEGMENT_SHIFT].load(std::memory_order_acquire);
  if (__builtin_expect(segment == nullptr, 0)) return nullptr;
  Slot& found = segment[index & (SEGMENT_SLOTS - 1)];
  const bool isGood = found.word_.load(std::memory_order_acquire) == handle;
  return __builtin_expect(isGood, 1) ? &found : nullptr;
}

template <class T, Kind KIND>
template <class... Arguments>
YIF_Handle HandleTable<T, KIND>::create(Arguments... arguments) {
  const std::lock_guard<InnerLock> guard(mutex_);
  const uint32_t index = takeSlot();
  if (index == NO_SLOT) return 0;
  Slot& taken = slot(index);
  const uint32_t generation = get(taken.word_) & GENERATION_MASK;
  const YIF_Handle handle = KIND << KIND_SHIFT | generation | index;
  taken.object_.init(arguments...);
  put(taken.word_, handle);
  return handle;
}

template <class T, Kind KIND>
void HandleTable<T, KIND>::destroy(YIF_Handle handle, const char* operation) {
  if (!destroyIfFound(handle)) stopForBadHandle(handle, operation);
}

// Does not stop the process itself: a signal handler for the stop may use the table, so the lock
// must be free.
template <class T, Kind KIND>
bool HandleTable<T, KIND>::destroyIfFound(YIF_Handle handle) {
  const std::lock_guard<InnerLock> guard(mutex_);
  Slot* found = find(handle);
  if (found == nullptr) return false;
  const uint32_t nextGeneration = (handle + (1u << GENERATION_SHIFT)) & GENERATION_MASK;
  put(found->word_, nextGeneration | NO_SLOT);
  queueFreed(handle & NO_SLOT);
  return true;
}

template <class T, Kind KIND>
void HandleTable<T, KIND>::queueFreed(uint32_t index) {
  const uint32_t waiting = get(freed_);
  if (waiting == 0) {
    put(firstFreed_, index);
  } else {
    std::atomic<uint32_t>& last = slot(get(lastFreed_)).word_;
    put(last, (get(last) & GENERATION_MASK) | index);
  }
  put(lastFreed_, index);
  put(freed_, waiting + 1);
}

template <class T, Kind KIND>
uint32_t HandleTable<T, KIND>::takeSlot() {
  const uint32_t fresh = get(used_), waiting = get(freed_);
  if (fresh < get(mapped_) || (waiting < SEGMENT_SLOTS && addSegment())) {
    put(used_, fresh + 1);
    return fresh;
  }
  if (waiting == 0) return NO_SLOT;
  const uint32_t index = get(firstFreed_);
  put(freed_, waiting - 1);
  put(firstFreed_, get(slot(index).word_) & NO_SLOT);
  return index;
}

template <class T, Kind KIND>
bool HandleTable<T, KIND>::addSegment() {
  const uint32_t mapped = get(mapped_);
  if (mapped + SEGMENT_SLOTS > NO_SLOT) return false;
  Slot* segment = static_cast<Slot*>(mapPages(SEGMENT_SLOTS * sizeof(Slot)));
  if (segment == nullptr) return false;
  for (uint32_t i = 0; i < SEGMENT_SLOTS; ++i) ::new (segment + i) Slot;
  segments_[mapped >> SEGMENT_SHIFT].store(segment, std::memory_order_release);
  put(mapped_, mapped + SEGMENT_SLOTS);
  return true;
}

template <class T, Kind KIND>
template <class RepairObject>
void HandleTable<T, KIND>::repair(RepairObject repairObject) {
  for (uint32_t index = 0; index < get(used_); ++index) {
    Slot& each = slot(index);
    if (get(each.word_) >> KIND_SHIFT == KIND) repairObject(each.object_);
  }
  mutex_.repair();
}

}  // namespace ysys
