// SPDX-License-Identifier: MIT
// The growable array, and the table through which untyped code handles typed elements.
//
// All logic stands once, in VectorBase, which knows no element type. Vector<T> holds the storage,
// tells the base by a TemplOps table how to make, copy, compare and blank elements and where its
// own fields lie, and forwards. Elements are held by value, one behind the other, in the order in
// which the operations left them; nothing is sorted, and a search looks at one after the other.
//
//   bytes, 32-bit   0 size_   4 capacity_   8 data_          12 in all
//   bytes, 64-bit   0 size_   4 capacity_   8 data_          16 in all
//
// Storage grows by doubling: 4, 8, 16 slots; after sizeToExact(5): 5, 10, 20. Slots from size_ on
// hold no element: they are as they were made, or blank. Example: five adds to a new vector leave
// size_ 5, capacity_ 8, and slots 5 to 7 as they were made.
//
// Memory comes from the process allocator. Where there is none, the vector stays as it was. The
// caller serialises.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

#include "utils/sdk/allocator.h"
#include "utils/sdk/export.h"

namespace Utils {

// What untyped code must know of one container type. Constant data, one for each type.
struct TemplOps {
  unsigned elemSize_;  // bytes of an element
  // Storage for that many elements, null when there is no memory.
  void* (*newVec_)(unsigned count);
  void (*deleteVec_)(void* block);  // ends all slots of such a storage and frees it; takes null
  // Assigns the element at src to the slot at dst. Null for elements that are copied as bytes.
  void (*copyOp_)(void* dst, const void* src);
  int (*equalOp_)(const void* a, const void* b);  // not 0 when equal
  void (*copyBlank_)(void* slot);                 // makes a slot let go of what it holds
  // Where fields of the container lie in it; in a vector those of capacity_ and of data_, 0, 0.
  unsigned offset0_;
  unsigned offset1_;
  unsigned offset2_;
  unsigned offset3_;
};

// The untyped core. `ops` is the table of the vector, `self` the address of the typed object;
// `item` and `items` are elements of its type, and may lie in the vector itself where nothing else
// is said; null items are none.
struct YUTILS_EXPORT VectorBase {
  VectorBase() { init(); }

 protected:
  void init() { size_ = 0; }

  // Makes room for n elements in all; without effect when there is no memory.
  void resizeFor(unsigned n, const TemplOps& ops, void* self);

  // Whether there is an equal element. `index` is that of the first one, else size_.
  bool locate(const void* item, unsigned& index, const TemplOps& ops, const void* self) const;

  // Gives the index of the new last element; (unsigned)-1, nothing changed, when there is no
  // memory.
  unsigned add(const void* item, const TemplOps& ops, void* self);

  // Put `count` elements in their order at the end, or in front of the one at `index` (at the end
  // when there is none). When there is no memory, nothing changes.
  void add(const void* items, unsigned count, const TemplOps& ops, void* self);
  void insert(const void* item, unsigned index, const TemplOps& ops, void* self);
  void insert(const void* items, unsigned count, unsigned index, const TemplOps& ops, void* self);

  // 0 when the vector has these elements and no others, in this order; else 1.
  int compare(const void* items, unsigned count, const TemplOps& ops, const void* self) const;

  // Remove one element, or those in [from, to), and keep the order of the others. False when
  // `index` is not below size_; the range is cut at size_, and an empty one gives true.
  bool removeAt(unsigned index, const TemplOps& ops, void* self);
  bool removeAtOrdered(unsigned index, const TemplOps& ops, void* self);
  bool removeAt(unsigned from, unsigned to, const TemplOps& ops, void* self);

  // Sets the number of elements; the storage never shrinks. Elements that come in are blank or as
  // the storage was made. When there is no memory, nothing changes.
  void sizeTo(unsigned n, const TemplOps& ops, void* self);
  void sizeToExact(unsigned n, const TemplOps& ops, void* self);  // the same, and the capacity too

  void purge(void* self, const TemplOps& ops);  // back to the new state, without storage

  // Replaces the elements, in storage of the size that adding them would have led to; without
  // effect when `items` is the vector's own storage or there is no memory.
  void vectorCopyOp(const void* items, unsigned count, const TemplOps& ops, void* self);

  // Removes for each of the items the first element equal to it; true when there was one for each.
  // The vector's own storage as `items` empties it; else they must not lie in the vector.
  bool remove(const void* items, unsigned count, const TemplOps& ops, void* self);

  unsigned size_;
};

// The fields of every vector as they lie in memory.
struct VectorFields {
  unsigned size_;
  unsigned capacity_;
  void* data_;
};

template <class T>
const T& anElement() noexcept;  // declared only, for use in decltype

// True if elements can be compared by ==.
template <class T, class = void>
struct HasEquality : std::false_type {};
template <class T>
struct HasEquality<T, std::void_t<decltype(anElement<T>() == anElement<T>())>> : std::true_type {};

// A vector of T, which needs a default constructor, assignment and an alignment of up to 8, and ==
// where elements are sought or compared. Class elements are constructed with the storage and ended
// with it; elements that need no construction, such as numbers and pointers, come in with
// unspecified contents where sizeTo and sizeToExact add them. References and pointers to elements
// are valid until the next operation that adds or removes any.
template <class T>
struct YUTILS_EXPORT Vector : VectorBase {
  Vector() { init(); }
  Vector(const Vector& other) : VectorBase() {  // empty when there is no memory
    init();
    *this = other;
  }
  ~Vector() { purge(); }

  // The capacity is fitted to the elements; the old ones stay when there is no memory.
  Vector& operator=(const Vector& other) {
    VectorBase::vectorCopyOp(other.data_, other.size_, coreOps(), this);
    return *this;
  }

  unsigned size() const { return size_; }

  // Requires i < size(): nothing is checked.
  T& operator[](unsigned i) { return data_[i]; }
  const T& operator[](unsigned i) const { return data_[i]; }
  template <class Index, class = std::enable_if_t<std::is_integral_v<Index>>>
  T& operator[](Index i) {
    return data_[static_cast<unsigned>(i)];
  }
  template <class Index, class = std::enable_if_t<std::is_integral_v<Index>>>
  const T& operator[](Index i) const {
    return data_[static_cast<unsigned>(i)];
  }

  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }

  // The index of the new element; (unsigned)-1, nothing changed, when there is no memory.
  unsigned add(const T& item) {
    if (size_ == capacity_) return addGrowing(item);
    data_[size_] = item;
    return size_++;
  }

  // The rest is told at VectorBase.

  // Where elements are passed by address, a number is no address: a literal 0 is refused.

  void add(const T* items, unsigned count) { VectorBase::add(items, count, coreOps(), this); }
  template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
  void add(Number, unsigned) = delete;
  void insert(const T& item, unsigned index) {
    if constexpr (areBytes()) {
      if (index < size_ && size_ < capacity_) return insertInPlace(item, index);
    }
    VectorBase::insert(__builtin_addressof(item), index, coreOps(), this);
  }
  void insert(const T* items, unsigned count, unsigned index) {
    VectorBase::insert(items, count, index, coreOps(), this);
  }
  template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
  void insert(Number, unsigned, unsigned) = delete;

  bool locate(const T& item, unsigned& index) const {
    static_assert(HasEquality<T>::value, "elements without == cannot be found");
    return VectorBase::locate(__builtin_addressof(item), index, coreOps(), this);
  }
  int compare(const T* items, unsigned count) const {
    static_assert(HasEquality<T>::value, "elements without == cannot be compared");
    return VectorBase::compare(items, count, coreOps(), this);
  }
  template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
  int compare(Number, unsigned) const = delete;

  bool removeAt(unsigned i) {
    if constexpr (areBytes()) {
      return removeInPlace(i);
    } else {
      return VectorBase::removeAt(i, ops_, this);
    }
  }
  bool removeAtOrdered(unsigned i) { return removeAt(i); }
  bool removeAt(unsigned from, unsigned to) {
    return VectorBase::removeAt(from, to, coreOps(), this);
  }
  bool remove(const T& item) {  // the first one equal to it
    unsigned index;
    return locate(item, index) && removeAt(index);
  }
  bool remove(const T* items, unsigned count) {
    static_assert(HasEquality<T>::value, "elements without == cannot be found");
    return VectorBase::remove(items, count, coreOps(), this);
  }
  template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
  bool remove(Number, unsigned) = delete;  // removeAt(from, to) removes by position

  void sizeTo(unsigned n) { VectorBase::sizeTo(n, coreOps(), this); }
  void sizeToExact(unsigned n) { VectorBase::sizeToExact(n, coreOps(), this); }

 protected:
  void init() {
    data_ = nullptr;
    capacity_ = 0;
  }
  void purge() { VectorBase::purge(this, coreOps()); }

  static void* _newVec(unsigned count);
  static void _deleteVec(void* block);
  static void _copyOp(void* dst, const void* src) {
    *static_cast<T*>(dst) = *static_cast<const T*>(src);
  }
  static int _equalOp(const void* a, const void* b);
  static void _copyBlank(void* slot) { *static_cast<T*>(slot) = T(); }

  unsigned capacity_;  // slots in the storage
  T* data_;            // the storage, owned; null before the first
  static const TemplOps ops_;

 private:
  // Room for the number of slots in front of those that must be ended one by one. It keeps them
  // aligned to 8.
  static constexpr unsigned COUNT_ROOM = 8;

  static constexpr TemplOps tableWith(void (*copyOp)(void*, const void*)) {
    static_assert(sizeof(Vector) == sizeof(VectorFields), "leaves capacity_ and data_ one place");
    return {static_cast<unsigned>(sizeof(T)),
            &_newVec,
            &_deleteVec,
            copyOp,
            &_equalOp,
            &_copyBlank,
            offsetof(VectorFields, capacity_),
            offsetof(VectorFields, data_),
            0,
            0};
  }

  // Whether copying copies bytes and does nothing else. The base is then given a table that says
  // so, which makes it several times faster, and what needs no other storage is done here: the way
  // through the table would cost an insertion among 10000 pointers one per cent.
  static constexpr bool areBytes() {
    return std::is_trivially_copyable_v<T> && std::is_trivially_copy_constructible_v<T> &&
           std::is_trivially_copy_assignable_v<T>;
  }

  static const TemplOps& coreOps() {
    if constexpr (areBytes()) {
      return byteOps_;
    } else {
      return ops_;
    }
  }

  unsigned addGrowing(const T& item) {
    if constexpr (areBytes()) {
      const T copy = item;  // it may lie in the storage that goes
      VectorBase::resizeFor(size_ + 1, byteOps_, this);
      if (size_ == capacity_) return static_cast<unsigned>(-1);
      data_[size_] = copy;
      return size_++;
    } else {
      return VectorBase::add(__builtin_addressof(item), ops_, this);
    }
  }

  void insertInPlace(const T& item, unsigned index) {  // requires the room
    const T copy = item;                               // it may lie among those that move
    moveTail(index + 1, index);
    data_[index] = copy;
    size_++;
  }

  bool removeInPlace(unsigned i) {
    if (i >= size_) return false;
    moveTail(i, i + 1);
    data_[--size_] = T();
    return true;
  }

  void moveTail(unsigned to, unsigned from) {
    std::memmove(static_cast<void*>(data_ + to), data_ + from, (size_ - from) * sizeof(T));
  }

  static const TemplOps byteOps_;
};

template <class T>
constexpr TemplOps Vector<T>::ops_ = tableWith(&_copyOp);

template <class T>
constexpr TemplOps Vector<T>::byteOps_ = tableWith(nullptr);

template <class T>
void* Vector<T>::_newVec(unsigned count) {
  static_assert(alignof(T) <= 8, "the allocator aligns to 8");
  constexpr unsigned room = std::is_trivially_destructible_v<T> ? 0 : COUNT_ROOM;
  if (count > (0xffffffffu - room) / sizeof(T)) return nullptr;
  const unsigned bytes = room + count * static_cast<unsigned>(sizeof(T));
  char* block = static_cast<char*>(Allocator::theAllocator()->alloc(bytes));
  if (!block) return nullptr;
  if constexpr (room != 0) ::new (static_cast<void*>(block)) unsigned(count);
  T* slots = reinterpret_cast<T*>(block + room);
  if constexpr (!std::is_trivially_default_constructible_v<T>) {
    for (unsigned i = 0; i < count; i++) ::new (static_cast<void*>(slots + i)) T;
  }
  return slots;
}

template <class T>
void Vector<T>::_deleteVec(void* block) {
  if constexpr (!std::is_trivially_destructible_v<T>) {
    if (!block) return;
    T* slots = static_cast<T*>(block);
    block = static_cast<char*>(block) - COUNT_ROOM;
    for (unsigned i = *static_cast<unsigned*>(block); i > 0; i--) slots[i - 1].~T();
  }
  Allocator::theAllocator()->free(block);
}

template <class T>
int Vector<T>::_equalOp(const void* a, const void* b) {
  if constexpr (HasEquality<T>::value) {
    return *static_cast<const T*>(a) == *static_cast<const T*>(b) ? 1 : 0;
  } else {
    return 0;
  }
}

}  // namespace Utils
