// SPDX-License-Identifier: MIT
// The notes on watched arenas.
#include "utils/sdk/memory/sight.h"

#include <new>
#include <typeinfo>

#include "utils/sdk/platform.h"

namespace Utils {

namespace {

constinit std::atomic<Watch*> _watches = nullptr;

// Returns notes whose arena was destroyed, now those of `arena`. Null if there are none.
Watch* reuse(const void* arena) {
  for (Watch* q = _watches; q; q = q->next_) {
    const void* none = nullptr;
    if (q->arena_.compare_exchange_strong(none, arena)) return q;
  }
  return nullptr;
}

}  // namespace

bool Watch::holds(const void* mem) const {
  for (unsigned i = 0; i < count_; i++) {
    if (held_[(first_ + i) % ROOM].mem_ == mem) return true;
  }
  return false;
}

void Watch::push(Held block) {
  held_[(first_ + count_++) % ROOM] = block;
  bytes_ += block.size_;
}

Watch::Held Watch::pop() {
  const Held block = held_[first_];
  first_ = (first_ + 1) % ROOM;
  count_--;
  bytes_ -= block.size_;
  return block;
}

void Watch::add(void* chunk, std::size_t size) {
  if (chunkCount_ != 0) {
    Chunk& last = chunks_[chunkCount_ - 1];
    if (static_cast<char*>(last.begin_) + last.size_ == chunk) {
      last.size_ += size;
      return;
    }
  }
  if (chunkCount_ < MOST_CHUNKS) chunks_[chunkCount_++] = {chunk, size};
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

Watch* Sight::findWatch(const void* arena) {
  for (Watch* q = _watches; q; q = q->next_) {
    if (q->arena_ == arena) return q;
  }
  return nullptr;
}

Watch* Sight::watchOf(const void* arena) {
  Watch* q = findWatch(arena);
  if (q || (q = reuse(arena))) return q;
  void* pages = YfMapPages(sizeof(Watch));
  if (!pages) return nullptr;
  q = ::new (pages) Watch();
  q->arena_ = arena;
  q->next_ = _watches;
  while (!_watches.compare_exchange_weak(q->next_, q)) {
  }
  return q;
}

void Sight::addChunk(const void* arena, void* chunk, unsigned size) {
  YfMarkChunk(chunk, size);
  if (Watch* watch = watchOf(arena)) watch->add(chunk, size);
}

unsigned Sight::limit() {
  static const unsigned bytes = YfQuarantineBytes();
  return bytes;
}

}  // namespace Utils
