// SPDX-License-Identifier: MIT
// The table `ysys_layout`, from which a debugger reads handles, locks and events (base/layout.h).
//
// The objects of a kind are in the table that the root of that kind leads to. Constant data.
#include "utils/sdk/base/layout.h"

#include <cstddef>

#include "ysys/handle_table.h"
#include "ysys/object_fields.h"
#include "ysys/task.h"

namespace ysys {

struct DebuggerLayout {
  using Table = HandleTable<LockFields, MUTEX>;  // all tables have the same fields
  using LockSlot = Table::Slot;
  using EventSlot = HandleTable<EventFields, EVENT>::Slot;
  static_assert(sizeof(LockSlot) == sizeof(EventSlot));

  static constexpr auto entries();
};

constexpr auto DebuggerLayout::entries() {
  return LayoutTable{{
      {"version", 1},
      {"pointer", sizeof(void*)},

      {"handle.kindShift", Table::KIND_SHIFT},
      {"handle.indexMask", Table::NO_SLOT},
      {"kind.mutex", MUTEX},
      {"kind.criticalSection", CRITICAL_SECTION},
      {"kind.event", EVENT},
      {"kind.cooperativeEvent", COOPERATIVE_EVENT},

      {"table.used", offsetof(Table, used_)},
      {"table.segments", offsetof(Table, segments_)},
      {"table.segmentShift", Table::SEGMENT_SHIFT},
      {"table.segmentCount", Table::SEGMENT_COUNT},
      {"slot.bytes", sizeof(LockSlot)},
      {"slot.word", offsetof(LockSlot, word_)},
      {"lockSlot.object", offsetof(LockSlot, object_)},
      {"eventSlot.object", offsetof(EventSlot, object_)},

      {"lock.word", offsetof(LockFields, word_)},
      {"lock.again", offsetof(LockFields, again_)},
      {"lock.sleepers", LockFields::SLEEPERS},
      {"event.state", offsetof(EventFields, state_)},
      {"event.manualReset", offsetof(EventFields, manualReset_)},
      {"event.isTicket", offsetof(EventFields, isTicket_)},
      {"event.taker", offsetof(EventFields, taker_)},
      {"task.numberBits", NUMBER_BITS},

      {"", 0},
  }};
}

}  // namespace ysys

DEBUGGER_LAYOUT(ysys_layout, ysys::DebuggerLayout::entries());
