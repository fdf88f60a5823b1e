// SPDX-License-Identifier: MIT
// The table `yutils_layout`, from which a debugger reads the library's objects (base/layout.h).
//
// Constant data. "X.y" is the offset of the field y in an object X unless the name is that of a
// constant. Every offset is computed by the compiler.
#include <cstddef>

#include "utils/sdk/alloc.h"
#include "utils/sdk/atree.h"
#include "utils/sdk/base/late_immortal.h"
#include "utils/sdk/base/layout.h"
#include "utils/sdk/block.h"
#include "utils/sdk/event.h"
#include "utils/sdk/locker.h"
#include "utils/sdk/log.h"
#include "utils/sdk/membank.h"
#include "utils/sdk/memory/chain.h"
#include "utils/sdk/memory/color_names.h"
#include "utils/sdk/memory/free_tree.h"
#include "utils/sdk/memory/gaps.h"
#include "utils/sdk/memory/page.h"
#include "utils/sdk/string.h"
#include "utils/sdk/vector.h"

// gcc and clang know the offset of every field of a class that has no virtual bases. The standard
// promises it only for classes of standard layout.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace Utils {

struct DebuggerLayout {
  using LastError = AVLTreeNode<unsigned long, unsigned>;
  using ErrorText = AVLTreeNode<unsigned, const char*>;
  using LastErrors = LateImmortal<AVLTree<unsigned long, unsigned>>;

  static constexpr auto entries();
};

constexpr auto DebuggerLayout::entries() {
  return LayoutTable{{
      {"version", 1},
      {"pointer", sizeof(void*)},

      // The words of a block (alloc.h) and of a page (memory/page.h).
      {"block.sizeMask", SIZE_MASK & ~1u},
      {"block.colorShift", COLOR_SHIFT},
      {"block.memory", sizeof(MemHeadBase)},
      {"block.tail", sizeof(MemTail)},
      {"block.align", ALIGN},
      {"block.seam", SEAM},
      {"page.bytes", PAGE},
      {"page.mark", PAGE_MARK},
      {"page.countedMark", COUNTED_PAGE_MARK},
      {"page.class", PAGE_CLASS},

      {"gapPage.next", offsetof(GapPage, next_)},
      {"gapPage.count", offsetof(GapPage, count_)},
      {"gapPage.heads", offsetof(GapPage, heads_)},
      {"color.nameRoom", COLOR_NAME_ROOM},

      {"arena.firstHead", offsetof(MemoryAllocator, firstHead_)},
      {"arena.endHead", offsetof(MemoryAllocator, endHead_)},
      {"arena.cut", offsetof(MemoryAllocator, cut_)},
      {"arena.free", offsetof(MemoryAllocator, internalFree_)},
      {"arena.allocated", offsetof(MemoryAllocator, allocatedMemory_)},
      {"arena.colors", offsetof(MemoryAllocator, allocatedColorMemory_)},
      {"arena.freeColors", offsetof(MemoryAllocator, freeColorMemory_)},
      {"arena.label", offsetof(MemHead, color_)},
      {"arena.leastFree", SMALLEST_LARGE},
      {"bank.firstHead", offsetof(MemoryBank, firstHead_)},
      {"bank.endHead", offsetof(MemoryBank, endHead_)},
      {"bank.cut", offsetof(MemoryBank, cut_)},
      {"bank.free", offsetof(MemoryBank, internalFree_)},
      {"bank.allocated", offsetof(MemoryBank, allocatedMemory_)},
      {"bank.colors", offsetof(MemoryBank, allocatedColorMemory_)},
      {"bank.freeColors", offsetof(MemoryBank, freeColorMemory_)},
      {"bank.label", offsetof(MemoryBank::MemHead, color_)},
      {"bank.leastFree", SMALLEST_BLOCK},

      {"stringRep.size", offsetof(StringRep, size_)},
      {"stringRep.capacity", offsetof(StringRep, capacity_)},
      {"stringRep.refCount", offsetof(StringRep, refCount_)},
      {"stringRep.text", offsetof(StringRep, text_)},
      {"subStringRep.string", offsetof(SubStringRep, string_)},
      {"subStringRep.index", offsetof(SubStringRep, index_)},
      {"subStringRep.size", offsetof(SubStringRep, size_)},
      {"vector.size", offsetof(VectorFields, size_)},
      {"vector.capacity", offsetof(VectorFields, capacity_)},
      {"vector.data", offsetof(VectorFields, data_)},
      {"node.parent", offsetof(AVLTreeNodeFields, parent_)},
      {"node.left", offsetof(AVLTreeNodeFields, left_)},
      {"node.right", offsetof(AVLTreeNodeFields, right_)},
      {"node.entry", sizeof(AVLTreeNodeFields)},
      {"countable.refCount", offsetof(Countable, refCount_)},
      {"object.refCount", offsetof(Object, refCount_)},

      {"log.categories", offsetof(Log, categories_)},
      {"log.classes", offsetof(Log, classes_)},
      {"log.enabled", offsetof(Log, enabled_)},
      {"log.level", offsetof(Log, level_)},
      {"log.verbosity", offsetof(Log, verbosity_)},
      {"category.name", offsetof(LogCat, name_)},
      {"category.enabled", offsetof(LogCat, enabled_)},
      {"category.level", offsetof(LogCat, level_)},
      {"category.verbosity", offsetof(LogCat, verbosity_)},
      {"class.sink", offsetof(LogClass, logger_)},
      {"class.name", offsetof(LogClass, name_)},
      {"class.count", offsetof(LogClass, count_)},
      {"class.bytes", sizeof(LogClass)},

      {"lateImmortal.object", offsetof(LastErrors, object_)},
      {"lastError.task", offsetof(LastError, key_)},
      {"lastError.code", offsetof(LastError, value_)},
      {"errorText.code", offsetof(ErrorText, key_)},
      {"errorText.text", offsetof(ErrorText, value_)},

      {"mutex.handle", offsetof(Mutex, handle_)},
      {"section.handle", offsetof(CriticalSection, handle_)},
      {"waitableEvent.handle", offsetof(WaitableEvent, event_)},
      {"lightLock.name", offsetof(YtLightBLock, name_)},
      {"lightLock.count", offsetof(YtLightBLock, count_)},
      {"lightLock.owner", offsetof(YtLightBLock, owner_)},
      {"lightLock.event", offsetof(YtLightBLock, event_)},
      {"heavyLock.section", offsetof(YtHeavyBLock, section_)},

      {"", 0},
  }};
}

}  // namespace Utils

DEBUGGER_LAYOUT(yutils_layout, Utils::DebuggerLayout::entries());
