// SPDX-License-Identifier: MIT
// The growable array, once for all element types.
//
// An operation that needs new storage allocates it first, changes the vector afterwards and frees
// the former storage last, since its arguments may be there.
#include "utils/sdk/vector.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace Utils {

namespace {

constexpr unsigned FIRST_CAPACITY = 4;

// Returns the first doubling of `capacity` that has n slots or more, or n itself if that is 2^31 or
// more, since a doubling could overflow.
unsigned grownCapacity(unsigned capacity, unsigned n) {
  if (n > ~n) capacity = n;
  if (capacity == 0) capacity = FIRST_CAPACITY;
  while (capacity < n) capacity *= 2;
  return capacity;
}

std::size_t bytesOf(const TemplOps& ops, unsigned count) {
  return static_cast<std::size_t>(count) * ops.elemSize_;
}

void* slotAt(const TemplOps& ops, void* first, unsigned i) {
  return static_cast<char*>(first) + bytesOf(ops, i);
}

const void* slotAt(const TemplOps& ops, const void* first, unsigned i) {
  return static_cast<const char*>(first) + bytesOf(ops, i);
}

void* fieldOf(void* self, unsigned offset) { return static_cast<char*>(self) + offset; }

// data_ is a T*, so its bytes are copied: access through a void* would break the aliasing rules.
void* pointerIn(const void* field) {
  void* pointer;
  std::memcpy(&pointer, field, sizeof pointer);
  return pointer;
}

const void* dataOf(const TemplOps& ops, const void* self) {
  return pointerIn(static_cast<const char*>(self) + ops.offset1_);
}

// The fields of one vector; those of the typed object are located once, through the table.
struct Slots {
  Slots(unsigned& size, const TemplOps& ops, void* self)
      : size_(size),
        capacity_(*static_cast<unsigned*>(fieldOf(self, ops.offset0_))),
        data_(fieldOf(self, ops.offset1_)),
        ops_(ops) {}

  void* data() const { return pointerIn(data_); }
  void* operator[](unsigned i) const { return slotAt(ops_, data(), i); }

  void take(void* block, unsigned capacity) const {
    capacity_ = capacity;
    std::memcpy(data_, &block, sizeof block);
  }

  unsigned& size_;
  unsigned& capacity_;
  void* data_;  // the address of the field
  const TemplOps& ops_;
};

// The order in which elements are copied: UP from the first, for a move to lower slots that
// overlap; DOWN from the last, for a move to higher ones.
enum Order { UP, DOWN };

// A separate function, so that the path of elements that are bytes stays short.
[[gnu::noinline]] void copyEach(const TemplOps& ops, void* to, const void* from, unsigned count,
                                Order order) {
  for (unsigned n = 0; n < count; n++) {
    const unsigned i = order == UP ? n : count - 1 - n;
    ops.copyOp_(slotAt(ops, to, i), slotAt(ops, from, i));
  }
}

void copyRun(const TemplOps& ops, void* to, const void* from, unsigned count, Order order = UP) {
  if (ops.copyOp_) return copyEach(ops, to, from, count, order);
  if (count != 0) std::memmove(to, from, bytesOf(ops, count));
}

void blank(const Slots& slots, unsigned from, unsigned to) {
  for (unsigned i = from; i < to; i++) slots.ops_.copyBlank_(slots[i]);
}

// Copies the first `live` elements to new storage of `capacity` slots, which may be 0; the caller
// frees the former storage. Returns false, and changes nothing, if there is no memory.
bool rebuild(const Slots& slots, unsigned capacity, unsigned live, void*& former) {
  void* block = slots.ops_.newVec_(capacity);
  if (!block && capacity != 0) return false;
  former = slots.data();
  copyRun(slots.ops_, block, former, live);
  slots.take(block, capacity);
  return true;
}

// Makes room for n elements. Returns false, and changes nothing, if there is no memory.
bool grow(const Slots& slots, unsigned n, void*& former) {
  return rebuild(slots, grownCapacity(slots.capacity_, n), slots.size_, former);
}

bool reserve(const Slots& slots, unsigned n) {
  if (n <= slots.capacity_) return true;
  void* former;
  if (!grow(slots, n, former)) return false;
  slots.ops_.deleteVec_(former);
  return true;
}

// Returns how many of the items are not moved when the elements from `index` on move up: all of
// them, unless some of the items are such elements.
unsigned countUnmoved(const Slots& slots, const void* items, unsigned count, unsigned index) {
  const std::less<const void*> before;
  const void* gap = slots[index];
  if (before(items, slots.data()) || !before(items, slots[slots.size_])) return count;
  if (!before(items, gap)) return 0;
  const auto bytes = static_cast<const char*>(gap) - static_cast<const char*>(items);
  return std::min(count, static_cast<unsigned>(bytes) / slots.ops_.elemSize_);
}

// Opens a gap at `index` and copies the items there. Requires: there is room.
void insertInPlace(const Slots& slots, const void* items, unsigned count, unsigned index) {
  const TemplOps& ops = slots.ops_;
  const unsigned unmoved = countUnmoved(slots, items, count, index);
  copyRun(ops, slots[index + count], slots[index], slots.size_ - index, DOWN);
  copyRun(ops, slots[index], items, unmoved);
  if (unmoved < count)
    copyRun(ops, slots[index + unmoved], slotAt(ops, items, unmoved + count), count - unmoved);
  slots.size_ += count;
}

// Returns false, and changes nothing, if there is no memory.
bool insertAt(const Slots& slots, const void* items, unsigned count, unsigned index) {
  if (!items) count = 0;
  if (count > ~slots.size_) return false;
  const bool grows = slots.size_ + count > slots.capacity_;
  void* former = nullptr;
  if (grows && !grow(slots, slots.size_ + count, former)) return false;
  insertInPlace(slots, items, count, std::min(index, slots.size_));
  if (grows) slots.ops_.deleteVec_(former);
  return true;
}

// Requires: from <= to <= size_.
void removeRun(const Slots& slots, unsigned from, unsigned to) {
  const unsigned end = slots.size_;
  copyRun(slots.ops_, slots[from], slots[to], end - to);
  slots.size_ -= to - from;
  blank(slots, slots.size_, end);
}

}  // namespace

// --- Adding ---

void VectorBase::resizeFor(unsigned n, const TemplOps& ops, void* self) {
  reserve(Slots(size_, ops, self), n);
}

unsigned VectorBase::add(const void* item, const TemplOps& ops, void* self) {
  const bool added = insertAt(Slots(size_, ops, self), item, 1, size_);
  return added ? size_ - 1 : static_cast<unsigned>(-1);
}

void VectorBase::add(const void* items, unsigned count, const TemplOps& ops, void* self) {
  insertAt(Slots(size_, ops, self), items, count, size_);
}

void VectorBase::insert(const void* item, unsigned index, const TemplOps& ops, void* self) {
  insertAt(Slots(size_, ops, self), item, 1, index);
}

void VectorBase::insert(const void* items, unsigned count, unsigned index, const TemplOps& ops,
                        void* self) {
  insertAt(Slots(size_, ops, self), items, count, index);
}

// --- Finding ---

bool VectorBase::locate(const void* item, unsigned& index, const TemplOps& ops,
                        const void* self) const {
  const void* data = dataOf(ops, self);
  for (unsigned i = 0; i < size_; i++) {
    if (!ops.equalOp_(slotAt(ops, data, i), item)) continue;
    index = i;
    return true;
  }
  index = size_;
  return false;
}

int VectorBase::compare(const void* items, unsigned count, const TemplOps& ops,
                        const void* self) const {
  if (count != size_ || (!items && count != 0)) return 1;
  const void* data = dataOf(ops, self);
  for (unsigned i = 0; i < count; i++) {
    if (!ops.equalOp_(slotAt(ops, data, i), slotAt(ops, items, i))) return 1;
  }
  return 0;
}

// --- Removing ---

bool VectorBase::removeAt(unsigned index, const TemplOps& ops, void* self) {
  return removeAtOrdered(index, ops, self);
}

bool VectorBase::removeAtOrdered(unsigned index, const TemplOps& ops, void* self) {
  if (index >= size_) return false;
  removeRun(Slots(size_, ops, self), index, index + 1);
  return true;
}

bool VectorBase::removeAt(unsigned from, unsigned to, const TemplOps& ops, void* self) {
  to = std::min(to, size_);
  if (from < to) removeRun(Slots(size_, ops, self), from, to);
  return true;
}

bool VectorBase::remove(const void* items, unsigned count, const TemplOps& ops, void* self) {
  if (items == dataOf(ops, self)) {
    purge(self, ops);
    return true;
  }
  if (!items) count = 0;
  bool all = true;
  for (unsigned i = 0; i < count; i++) {
    unsigned index;
    if (!locate(slotAt(ops, items, i), index, ops, self) || !removeAt(index, ops, self))
      all = false;
  }
  return all;
}

// --- The whole vector ---

void VectorBase::sizeTo(unsigned n, const TemplOps& ops, void* self) {
  const Slots slots(size_, ops, self);
  if (n < size_) {
    blank(slots, n, slots.capacity_);
  } else if (!reserve(slots, n)) {
    return;
  }
  size_ = n;
}

void VectorBase::sizeToExact(unsigned n, const TemplOps& ops, void* self) {
  const Slots slots(size_, ops, self);
  if (n != slots.capacity_) {
    void* former;
    if (!rebuild(slots, n, std::min(size_, n), former)) return;
    ops.deleteVec_(former);
  }
  size_ = n;
}

void VectorBase::purge(void* self, const TemplOps& ops) {
  const Slots slots(size_, ops, self);
  ops.deleteVec_(slots.data());
  init();
  slots.take(nullptr, 0);
}

void VectorBase::vectorCopyOp(const void* items, unsigned count, const TemplOps& ops, void* self) {
  const Slots slots(size_, ops, self);
  if (items == slots.data()) return;
  const unsigned capacity = count != 0 ? grownCapacity(0, count) : 0;
  void* block = capacity != 0 ? ops.newVec_(capacity) : nullptr;
  if (!block && capacity != 0) return;
  copyRun(ops, block, items, count);
  purge(self, ops);
  slots.take(block, capacity);
  size_ = count;
}

}  // namespace Utils
