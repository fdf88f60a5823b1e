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
#include <initializer_list>
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

// True if a copy of an object is a copy of its bytes.
template <class T>
constexpr bool IS_BYTES = std::is_trivially_copyable_v<T>&&
    std::is_trivially_copy_constructible_v<T>&& std::is_trivially_copy_assignable_v<T>;

// A vector of T. Requires: T has a default constructor, assignment and an alignment of at most 8; T
// has == if elements are searched or compared. Class elements are constructed with the storage and
// destroyed with it. Elements that need no construction, such as numbers and pointers, have
// unspecified values if sizeTo or sizeToExact adds them. References and pointers to elements: valid
// until the next operation that adds, removes or replaces elements, or moves or swaps the vector.
//
// Elements may have a move assignment and no copy assignment. Then the operations that copy
// elements from elsewhere do not compile, and the others move them.
template <class T>
struct YUTILS_EXPORT Vector : VectorBase {
  using value_type = T;
  using size_type = unsigned;
  using difference_type = std::ptrdiff_t;
  using reference = T&;
  using const_reference = const T&;
  using iterator = T*;
  using const_iterator = const T*;

  Vector() { init(); }
  Vector(const Vector& other) : VectorBase() {  // empty if there is no memory
    init();
    *this = other;
  }
  Vector(Vector&& other) noexcept : VectorBase() {  // constant time; `other` is then new
    init();
    swap(other);
  }
  Vector(std::initializer_list<T> items) : VectorBase() {  // empty if there is no memory
    init();
    *this = items;
  }
  ~Vector() { purge(); }

  // The new capacity is that to which appending the elements to a new vector leads: 8 for 5
  // elements. Keeps the old elements if there is no memory.
  Vector& operator=(const Vector& other) {
    copiesItems();
    VectorBase::vectorCopyOp(other.data_, other.size_, coreOps(), this);
    return *this;
  }
  Vector& operator=(std::initializer_list<T> items) {
    copiesItems();
    VectorBase::vectorCopyOp(items.begin(), static_cast<unsigned>(items.size()), coreOps(), this);
    return *this;
  }
  // Destroys the former elements; `other` is then new. Changes nothing if it is this vector.
  Vector& operator=(Vector&& other) noexcept {
    Vector moved(static_cast<Vector&&>(other));
    swap(moved);
    return *this;
  }

  void swap(Vector& other) noexcept {  // moves no element
    exchange(size_, other.size_);
    exchange(capacity_, other.capacity_);
    exchange(data_, other.data_);
  }
  friend void swap(Vector& a, Vector& b) noexcept { a.swap(b); }

  unsigned size() const { return size_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }
  unsigned capacity() const { return capacity_; }

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
  T* data() { return data_; }  // null if there is no storage
  const T* data() const { return data_; }
  T& front() { return data_[0]; }  // Requires for front and back: not empty()
  const T& front() const { return data_[0]; }
  T& back() { return data_[size_ - 1]; }
  const T& back() const { return data_[size_ - 1]; }

  // Returns the index of the new element, or (unsigned)-1, and changes nothing, if there is no
  // memory.
  unsigned add(const T& item) {
    copiesItems();
    if (size_ == capacity_) return addGrowing(item);
    if constexpr (std::is_copy_assignable_v<T>) data_[size_] = item;
    return size_++;
  }
  template <class Item = T, class = std::enable_if_t<!IS_BYTES<Item>>>
  unsigned add(T&& item) {
    if (size_ == capacity_) return addMovedGrowing(item);
    data_[size_] = static_cast<T&&>(item);
    return size_++;
  }
  unsigned push_back(const T& item) { return add(item); }
  unsigned push_back(T&& item) { return add(static_cast<T&&>(item)); }
  // The element is T(arguments...), or T{arguments...} if T has no such constructor. Unlike other
  // operations, it may have moved from the arguments if there is no memory.
  template <class... Arguments>
  unsigned emplace_back(Arguments&&... arguments) {
    if constexpr (std::is_constructible_v<T, Arguments...>) {
      return add(T(static_cast<Arguments&&>(arguments)...));
    } else {
      return add(T{static_cast<Arguments&&>(arguments)...});
    }
  }

  // The contracts of the others are those of VectorBase. The deleted overloads refuse a number,
  // such as a literal 0, where the address of elements is expected.

  void add(const T* items, unsigned count) {
    copiesItems();
    VectorBase::add(items, count, coreOps(), this);
  }
  template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
  void add(Number, unsigned) = delete;  // the items are an address, not a number
  void insert(const T& item, unsigned index) {
    copiesItems();
    if constexpr (areBytes()) {
      if (index < size_ && size_ < capacity_) return insertInPlace(item, index);
    }
    VectorBase::insert(__builtin_addressof(item), index, coreOps(), this);
  }
  // For elements that cannot be copied. `item` is left as it was if there is no memory.
  template <class Item = T, class = std::enable_if_t<!std::is_copy_assignable_v<Item>>>
  void insert(T&& item, unsigned index) {
    T aside = static_cast<T&&>(item);
    const unsigned before = size_;
    VectorBase::insert(__builtin_addressof(aside), index, ops_, this);
    if (size_ == before) item = static_cast<T&&>(aside);
  }
  void insert(const T* items, unsigned count, unsigned index) {
    copiesItems();
    VectorBase::insert(items, count, index, coreOps(), this);
  }
  template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
  void insert(Number, unsigned, unsigned) = delete;  // the items are an address, not a number

  bool locate(const T& item, unsigned& index) const {
    static_assert(HasEquality<T>::value, "elements without == cannot be found");
    return VectorBase::locate(__builtin_addressof(item), index, coreOps(), this);
  }
  int compare(const T* items, unsigned count) const {
    static_assert(HasEquality<T>::value, "elements without == cannot be compared");
    return VectorBase::compare(items, count, coreOps(), this);
  }
  template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
  int compare(Number, unsigned) const = delete;  // the items are an address, not a number

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
  void reserve(unsigned n) { VectorBase::resizeFor(n, coreOps(), this); }
  void pop_back() { removeAt(size_ - 1); }  // Requires: not empty()
  void clear() { sizeTo(0); }               // keeps the storage

 protected:
  void init() {
    data_ = nullptr;
    capacity_ = 0;
  }
  void purge() { VectorBase::purge(this, coreOps()); }

  static void* _newVec(unsigned count);
  static void _deleteVec(void* block);
  // Moves an element that cannot be copied: only elements of the vector itself get here.
  static void _copyOp(void* dst, const void* src) {
    if constexpr (std::is_copy_assignable_v<T>) {
      *static_cast<T*>(dst) = *static_cast<const T*>(src);
    } else if constexpr (std::is_move_assignable_v<T>) {
      *static_cast<T*>(dst) = static_cast<T&&>(*static_cast<T*>(const_cast<void*>(src)));
    }
  }
  static int _equalOp(const void* a, const void* b);
  static void _copyBlank(void* slot) { blank(*static_cast<T*>(slot)); }

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

  // If elements are bytes, the base gets a table that says so, which makes it several times faster,
  // and operations that need no new storage are done here: an insertion among 10000 pointers would
  // take one per cent longer through the table.
  static constexpr bool areBytes() { return IS_BYTES<T>; }

  static constexpr bool fitsASlot() {
    return std::is_default_constructible_v<T> && std::is_move_assignable_v<T>;
  }

  static constexpr void copiesItems() {
    static_assert(std::is_copy_assignable_v<T> || !fitsASlot(),
                  "elements that can only be moved: pass an rvalue, and move the vector");
  }

  template <class Field>
  static void exchange(Field& a, Field& b) {
    Field former = static_cast<Field&&>(a);
    a = static_cast<Field&&>(b);
    b = static_cast<Field&&>(former);
  }

  static void blank(T& slot) {
    if constexpr (fitsASlot()) slot = T();
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

  unsigned addMovedGrowing(T& item) {
    T aside = static_cast<T&&>(item);  // it may be in the storage that is freed
    VectorBase::resizeFor(size_ + 1, ops_, this);
    if (size_ == capacity_) {
      item = static_cast<T&&>(aside);
      return static_cast<unsigned>(-1);
    }
    data_[size_] = static_cast<T&&>(aside);
    return size_++;
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
    blank(data_[--size_]);
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
  static_assert(fitsASlot(), "elements of a Vector need a default constructor and an assignment");
  constexpr unsigned room = std::is_trivially_destructible_v<T> ? 0 : COUNT_ROOM;
  if (count > (0xffffffffu - room) / sizeof(T)) return nullptr;
  const unsigned bytes = room + count * static_cast<unsigned>(sizeof(T));
  char* block = static_cast<char*>(Allocator::theAllocator()->alloc(bytes));
  if (!block) return nullptr;
  if constexpr (room != 0) ::new (static_cast<void*>(block)) unsigned(count);
  T* slots = reinterpret_cast<T*>(block + room);
  if constexpr (!std::is_trivially_default_constructible_v<T> && fitsASlot()) {
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

// True if both have the same elements in the same order.
template <class T, class = std::enable_if_t<HasEquality<T>::value>>
bool operator==(const Vector<T>& a, const Vector<T>& b) {
  return a.compare(b.data(), b.size()) == 0;
}
template <class T, class = std::enable_if_t<HasEquality<T>::value>>
bool operator!=(const Vector<T>& a, const Vector<T>& b) {
  return !(a == b);
}

}  // namespace Utils
