// SPDX-License-Identifier: MIT
// The growable array, and the table through which untyped code handles typed elements.
//
// All logic is in VectorBase, which knows no element type. Vector<T> has the storage and forwards;
// a TemplOps table holds the functions that create, copy, compare and blank elements and the
// offsets of the typed fields. Elements are values, stored consecutively and never sorted: a search
// is linear.
//
//   bytes, 32-bit   0 size_   4 capacity_   8 data_          12 in all
//   bytes, 64-bit   0 size_   4 capacity_   8 data_          16 in all
//
// Storage grows by doubling: 4, 8, 16 slots; after sizeToExact(5): 5, 10, 20. Slots from size_ on
// hold no element: they are as newVec_ made them, or blank. Example: five adds to a new vector
// leave size_ 5, capacity_ 8, and slots 5 to 7 as they were made.
//
// Storage comes from the process allocator. If there is no memory, the vector is unchanged.
//
// Thread safety: the caller serialises all operations on a vector, and those that allocate or free
// with all others that do so (allocator.h).
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

#include "utils/sdk/allocator.h"
#include "utils/sdk/export.h"

namespace Utils {

// The properties of a container type that untyped code uses. Constant data, one for each type.
struct TemplOps {
  unsigned elemSize_;  // bytes of an element
  // Returns storage with that many slots, null if there is no memory.
  void* (*newVec_)(unsigned count);
  // Destroys all slots of a storage of newVec_ and frees it. Does nothing for null.
  void (*deleteVec_)(void* block);
  // Assigns the element at src to the slot at dst. Null for elements that are copied as bytes.
  void (*copyOp_)(void* dst, const void* src);
  int (*equalOp_)(const void* a, const void* b);  // not 0 if equal
  void (*copyBlank_)(void* slot);                 // assigns an empty element to a slot
  // Offsets of fields in the container. In a vector: those of capacity_ and data_, then 0, 0.
  unsigned offset0_;
  unsigned offset1_;
  unsigned offset2_;
  unsigned offset3_;
};

// The untyped core. `ops` is the table of the vector, `self` the address of the typed object.
// `item` and `items` point to elements of its type, which may be in the vector itself unless stated
// otherwise. In add, insert and remove, null `items` count as no items.
struct YUTILS_EXPORT VectorBase {
  VectorBase() { init(); }

 protected:
  void init() { size_ = 0; }

  // Makes room for n elements in all. Does nothing if there is no memory.
  void resizeFor(unsigned n, const TemplOps& ops, void* self);

  // Returns true if there is an equal element, and sets `index` to that of the first one. Else
  // returns false and sets it to size_.
  bool locate(const void* item, unsigned& index, const TemplOps& ops, const void* self) const;

  // Appends an element and returns its index. Returns (unsigned)-1, and changes nothing, if there
  // is no memory.
  unsigned add(const void* item, const TemplOps& ops, void* self);

  // Insert `count` elements in their order at the end, or before the element at `index` (at the end
  // if there is none). Change nothing if there is no memory.
  void add(const void* items, unsigned count, const TemplOps& ops, void* self);
  void insert(const void* item, unsigned index, const TemplOps& ops, void* self);
  void insert(const void* items, unsigned count, unsigned index, const TemplOps& ops, void* self);

  // Returns 0 if the vector has exactly these elements in this order, else 1.
  int compare(const void* items, unsigned count, const TemplOps& ops, const void* self) const;

  // Remove one element, or those in [from, to), and keep the order of the others. Return false if
  // `index` is not below size_. The range is cut at size_; an empty range returns true.
  bool removeAt(unsigned index, const TemplOps& ops, void* self);
  bool removeAtOrdered(unsigned index, const TemplOps& ops, void* self);
  bool removeAt(unsigned from, unsigned to, const TemplOps& ops, void* self);

  // Set the number of elements. sizeTo never shrinks the storage; sizeToExact also sets the
  // capacity to n. New elements are blank or as newVec_ made them. Change nothing if there is no
  // memory.
  void sizeTo(unsigned n, const TemplOps& ops, void* self);
  void sizeToExact(unsigned n, const TemplOps& ops, void* self);

  void purge(void* self, const TemplOps& ops);  // back to the new state; frees the storage

  // Replaces the elements, with the capacity that appending them to a new vector would lead to.
  // Does nothing if `items` is the vector's own storage or if there is no memory.
  void vectorCopyOp(const void* items, unsigned count, const TemplOps& ops, void* self);

  // Removes for each of the items the first element that is equal to it. Returns true if there was
  // one for each. The vector's own storage as `items` empties the vector. Requires: no other items
  // are in the vector.
  bool remove(const void* items, unsigned count, const TemplOps& ops, void* self);

  unsigned size_;
};

// The memory layout of every vector.
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

// A vector of T. Requires: T has a default constructor, assignment and an alignment of at most 8; T
// has == if elements are searched or compared. Class elements are constructed with the storage and
// destroyed with it. Elements that need no construction, such as numbers and pointers, have
// unspecified values if sizeTo or sizeToExact adds them. References and pointers to elements: valid
// until the next operation that adds, removes or replaces elements.
template <class T>
struct YUTILS_EXPORT Vector : VectorBase {
  Vector() { init(); }
  Vector(const Vector& other) : VectorBase() {  // empty if there is no memory
    init();
    *this = other;
  }
  ~Vector() { purge(); }

  // The new capacity is that to which appending the elements to a new vector leads: 8 for 5
  // elements. Keeps the old elements if there is no memory.
  Vector& operator=(const Vector& other) {
    VectorBase::vectorCopyOp(other.data_, other.size_, coreOps(), this);
    return *this;
  }

  unsigned size() const { return size_; }

  // Requires: i < size(); this is not checked.
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

  // Returns the index of the new element, or (unsigned)-1, and changes nothing, if there is no
  // memory.
  unsigned add(const T& item) {
    if (size_ == capacity_) return addGrowing(item);
    data_[size_] = item;
    return size_++;
  }

  // The contracts of the others are those of VectorBase. The deleted overloads refuse a number,
  // such as a literal 0, where the address of elements is expected.

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
  bool remove(const T& item) {  // removes the first one that is equal to it
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

  unsigned capacity_;  // slots of the storage
  T* data_;            // the storage, owned; null if there is none
  static const TemplOps ops_;

 private:
  // Bytes before the slots, in which their number is stored if they must be destroyed one by one. 8
  // bytes keep the slots aligned.
  static constexpr unsigned COUNT_ROOM = 8;

  static constexpr TemplOps tableWith(void (*copyOp)(void*, const void*)) {
    static_assert(sizeof(Vector) == sizeof(VectorFields),
                  "the offsets of capacity_ and data_ are those of VectorFields");
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

  // True if a copy of an element is a copy of its bytes. The base then gets a table that says so,
  // which makes it several times faster, and operations that need no new storage are done here: an
  // insertion among 10000 pointers would take one per cent longer through the table.
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
      const T copy = item;  // it may be in the storage that is freed
      VectorBase::resizeFor(size_ + 1, byteOps_, this);
      if (size_ == capacity_) return static_cast<unsigned>(-1);
      data_[size_] = copy;
      return size_++;
    } else {
      return VectorBase::add(__builtin_addressof(item), ops_, this);
    }
  }

  void insertInPlace(const T& item, unsigned index) {  // Requires: there is room
    const T copy = item;                               // it may be one of those that move
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
