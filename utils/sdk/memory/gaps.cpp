// SPDX-License-Identifier: MIT
// The notes of the process allocator's gap blocks.
#include "utils/sdk/memory/gaps.h"

#include "utils/sdk/base/layout.h"
#include "utils/sdk/memory/chain.h"
#include "utils/sdk/ysys.h"

namespace Utils {

namespace {

constinit const void* _arena = nullptr;
constinit GapPage _first = {};
constinit GapPage* _last = &_first;

}  // namespace

DEBUGGER_ROOT(yutils_root_gaps, _first);

void noteGapsOf(const void* arena) { _arena = arena; }

void noteGap(const void* arena, const void* head) {
  if (arena != _arena) return;
  if (_last->count_ == GapPage::ROOM) {
    GapPage* page = static_cast<GapPage*>(YIF_MemAlloc(sizeof(GapPage)));
    if (!page) return;
    page->next_ = nullptr;
    page->count_ = 0;
    _last = _last->next_ = page;
  }
  _last->heads_[_last->count_++] = head;
}

// Most pages are passed by a look at their last head.
bool isGap(const void* head) {
  const GapPage* page = &_first;
  while (page && page->count_ != 0 && addressOf(page->heads_[page->count_ - 1]) < addressOf(head))
    page = page->next_;
  for (unsigned i = 0; page && i < page->count_; i++) {
    if (page->heads_[i] == head) return true;
  }
  return false;
}

}  // namespace Utils
