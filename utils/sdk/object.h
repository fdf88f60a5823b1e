// SPDX-License-Identifier: MIT
// Reference-counted objects, the references that own them, and a message as a value.
//
// An Object starts with a count of 0 and belongs to whoever made it; from the first Ref on it
// belongs to its Refs, and the last one deletes it. So only what was made with new goes under a
// Ref. A copy of an object takes the count of its source, and an assignment overwrites it: an
// object that a Ref holds is neither copied nor assigned to.
//
// Counts are plain numbers: the caller serialises everything that copies, assigns or ends a Ref on
// one object. No operation reports a failure.
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
  unsigned decRef() { return --refCount_; }  // the count after it; frees nothing
  unsigned refCount() const { return refCount_; }

 protected:
  ~Countable() {}

 private:
  friend struct SinkHold;  // the one that counts atomically (log.cpp)

  unsigned refCount_;
};

// Lies in the process allocator's memory, on whichever side of the library's boundary it is made.
struct YUTILS_EXPORT Object : Countable {
  Object() {}
  Object(const Object&) = default;
  Object& operator=(const Object&) = default;
  virtual ~Object();

  // Null, and no constructor runs, when there is no memory.
  static void* operator new(std::size_t size) noexcept;
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return operator new(size);
  }
  static void operator delete(void* mem) noexcept;
};

// A reference to a T derived from Object, or empty.
template <class T>
struct Ref {
  constexpr Ref() : ptr_(nullptr) {}
  Ref(const T* object) : ptr_(const_cast<T*>(object)) {
    if (ptr_) ptr_->incRef();
  }
  Ref(const Ref& other) {
    init();
    *this = other;
  }
  ~Ref() {
    while (ptr_) purge();
  }

  // Counts the new object up before it lets the old one go, so that assigning a Ref on the same
  // object never ends it. The old one goes last: its destructor may assign to this Ref.
  Ref& operator=(const Ref& other) {
    T* object = other.ptr_;
    if (object) object->incRef();
    T* former = ptr_;
    ptr_ = object;
    release(former);
    return *this;
  }

  T* operator->() const { return ptr_; }  // requires: valid()
  bool valid() const { return ptr_ != nullptr; }

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
  // Kept apart from its callers: inlined, it makes gcc see uses of an object after its end on paths
  // that the count never takes.
  [[gnu::noinline]] static void destroy(T* object) { delete object; }

  T* ptr_;
};

// One message, formatted and owned. Kept for programs that hand errors on as values; the library
// itself makes none.
struct YUTILS_EXPORT Problem {
  // As printf, cut after 511 characters. A null format is an empty one.
  explicit Problem(const char* format, ...) __attribute__((format(printf, 2, 3)));
  Problem(const Problem& other);
  Problem& operator=(const Problem& other);  // keeps the old message when there is no memory
  ~Problem();

  // Never null, valid until this Problem is assigned to or ends. A fixed text where there was no
  // memory for the message.
  const char* msg() const;

 private:
  char* msg_;
};

}  // namespace Utils
