// SPDX-License-Identifier: MIT
// Reference-counted objects, the references that own them, and a message as a value.
//
// An Object starts with a count of 0 and is owned by its creator; from the first Ref on its Refs
// own it, and the last one deletes it. Requires: an object under a Ref was created with new. A copy
// of an object takes the count of its source, and an assignment overwrites the count: do not copy
// or assign an object that a Ref holds.
//
// Only new reports a failure: it returns null if there is no memory.
//
// Thread safety: counts are not atomic; the caller serialises the creation, copying, assignment and
// destruction of all Refs to one object. new and delete use the process allocator, whose calls the
// caller serialises (allocator.h).
#pragma once

#include <cstddef>
#include <new>

#include "utils/sdk/export.h"

namespace Utils {

struct YUTILS_EXPORT Countable {
  Countable() : refCount_(0) {}
  Countable(const Countable&) = default;
  Countable& operator=(const Countable&) = default;

  void incRef() { ++refCount_; }
  unsigned decRef() { return --refCount_; }  // returns the new count; frees nothing
  unsigned refCount() const { return refCount_; }

 protected:
  ~Countable() {}

 private:
  friend struct DebuggerLayout;
  friend struct SinkHold;  // changes the count atomically (log.cpp)

  unsigned refCount_;
};

// An object created with new lies in memory of the process allocator, also in a program's own code.
struct YUTILS_EXPORT Object : Countable {
  Object() {}
  Object(const Object&) = default;
  Object& operator=(const Object&) = default;
  virtual ~Object();

  // Returns null, and no constructor runs, if there is no memory.
  static void* operator new(std::size_t size) noexcept;
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return operator new(size);
  }
  static void operator delete(void* mem) noexcept;
};

// A reference to a T derived from Object, or empty. A Ref of a derived class converts to a Ref of
// its base. hash.h has std::hash.
template <class T>
struct Ref {
 private:
  static void accept(T* object);  // not defined: tests if a pointer converts

 public:
  constexpr Ref() : ptr_(nullptr) {}
  Ref(const T* object) : ptr_(const_cast<T*>(object)) {
    if (ptr_) ptr_->incRef();
  }
  Ref(const Ref& other) {
    init();
    *this = other;
  }
  Ref(Ref&& other) noexcept : ptr_(other.ptr_) { other.ptr_ = nullptr; }
  template <class Derived, class = decltype(accept(static_cast<Derived*>(nullptr)))>
  Ref(const Ref<Derived>& other) : Ref(other.get()) {}
  ~Ref() {
    while (ptr_) purge();
  }

  // Increments the count of the new object before it releases the old one, so that an assignment of
  // a Ref to the same object never deletes it. The old one is released last, since its destructor
  // may assign to this Ref.
  Ref& operator=(const Ref& other) {
    T* object = other.ptr_;
    if (object) object->incRef();
    T* former = ptr_;
    ptr_ = object;
    release(former);
    return *this;
  }
  Ref& operator=(Ref&& other) noexcept {  // leaves `other` empty, unless that is this Ref
    T* object = other.ptr_;
    other.ptr_ = nullptr;
    T* former = ptr_;
    ptr_ = object;
    release(former);
    return *this;
  }
  void swap(Ref& other) noexcept {
    T* object = other.ptr_;
    other.ptr_ = ptr_;
    ptr_ = object;
  }

  T* operator->() const { return ptr_; }  // Requires: valid()
  T& operator*() const { return *ptr_; }  // Requires: valid()
  T* get() const { return ptr_; }         // null if empty; valid as long as a Ref holds the object
  bool valid() const { return ptr_ != nullptr; }
  explicit operator bool() const { return valid(); }

 private:
  void init() { ptr_ = nullptr; }
  void purge() {
    T* object = ptr_;
    ptr_ = nullptr;
    release(object);
  }
  static void release(T* object) {
    if (object && object->decRef() == 0) destroy(object);
  }
  // Not inlined: otherwise gcc warns of uses after the deletion on paths that the count excludes.
  [[gnu::noinline]] static void destroy(T* object) { delete object; }

  T* ptr_;
};

// Two Refs are equal if they refer to one object or are both empty. A pointer is compared likewise.
#define YUTILS_COMPARE_REFS(OP)                        \
  template <class T, class U>                          \
  bool operator OP(const Ref<T>& a, const Ref<U>& b) { \
    return a.get() OP b.get();                         \
  }                                                    \
  template <class T, class U>                          \
  bool operator OP(const Ref<T>& a, U* b) {            \
    return a.get() OP b;                               \
  }                                                    \
  template <class T, class U>                          \
  bool operator OP(U* a, const Ref<T>& b) {            \
    return a OP b.get();                               \
  }                                                    \
  template <class T>                                   \
  bool operator OP(const Ref<T>& a, std::nullptr_t) {  \
    return a.get() OP nullptr;                         \
  }                                                    \
  template <class T>                                   \
  bool operator OP(std::nullptr_t, const Ref<T>& b) {  \
    return b.get() OP nullptr;                         \
  }
YUTILS_COMPARE_REFS(==)
YUTILS_COMPARE_REFS(!=)
#undef YUTILS_COMPARE_REFS

// One message, formatted and owned, for programs that pass errors on as values; the library itself
// creates none.
struct YUTILS_EXPORT Problem {
  // Formats as printf, cut after 511 characters. A null format counts as empty.
  explicit Problem(const char* format, ...) __attribute__((format(printf, 2, 3)));
  Problem(const Problem& other);
  Problem& operator=(const Problem& other);  // keeps the old message if there is no memory
  ~Problem();

  // Returns the message, or a fixed text if there was no memory for it; never null. Valid until
  // this Problem is assigned to or destroyed.
  const char* msg() const;

 private:
  char* msg_;
};

}  // namespace Utils
