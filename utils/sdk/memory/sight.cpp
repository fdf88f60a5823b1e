// SPDX-License-Identifier: MIT
// The quarantines of watched arenas.
#include "utils/sdk/memory/sight.h"

#include <new>
#include <typeinfo>

#include "utils/sdk/platform.h"

namespace Utils {

namespace {

constinit std::atomic<Quarantine*> _quarantines = nullptr;

// Returns a quarantine whose arena was destroyed, now the arena's. Null if there is none.
Quarantine* reuse(const void* arena) {
  for (Quarantine* q = _quarantines; q; q = q->next_) {
    const void* none = nullptr;
    if (q->arena_.compare_exchange_strong(none, arena)) return q;
  }
  return nullptr;
}

}  // namespace

bool Quarantine::holds(const void* mem) const {
  for (unsigned i = 0; i < count_; i++) {
    if (held_[(first_ + i) % ROOM].mem_ == mem) return true;
  }
  return false;
}

void Quarantine::push(Held block) {
  held_[(first_ + count_++) % ROOM] = block;
  bytes_ += block.size_;
}

Quarantine::Held Quarantine::pop() {
  const Held block = held_[first_];
  first_ = (first_ + 1) % ROOM;
  count_--;
  bytes_ -= block.size_;
  return block;
}

bool Sight::isWanted() { return isOn_ = YfHasMemoryTool() != 0; }

Sight::Quiet::Quiet(bool isWatched) : isWatched_(isWatched) {
  if (isWatched_) YfPauseMemoryTool();
}

Sight::Quiet::~Quiet() {
  if (isWatched_) YfResumeMemoryTool();
}

bool Sight::isOutermost(const Allocator* parent) {
  return !parent || typeid(*parent) == typeid(HostAllocator);
}

Quarantine* Sight::findQuarantine(const void* arena) {
  for (Quarantine* q = _quarantines; q; q = q->next_) {
    if (q->arena_ == arena) return q;
  }
  return nullptr;
}

Quarantine* Sight::quarantineOf(const void* arena) {
  Quarantine* q = findQuarantine(arena);
  if (q || (q = reuse(arena))) return q;
  void* pages = YfMapPages(sizeof(Quarantine));
  if (!pages) return nullptr;
  q = ::new (pages) Quarantine();
  q->arena_ = arena;
  q->next_ = _quarantines;
  while (!_quarantines.compare_exchange_weak(q->next_, q)) {
  }
  return q;
}

void Sight::addChunk(const void* arena, void* chunk, unsigned size) {
  YfMarkChunk(chunk, size);
  quarantineOf(arena);
}

unsigned Sight::limit() {
  static const unsigned bytes = YfQuarantineBytes();
  return bytes;
}

}  // namespace Utils
