// SPDX-License-Identifier: MIT
// Views of ranges of a text, and their shared representation.
//
// A part of string.h, which programs include instead. Thread safety: as in string.h.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "utils/sdk/allocator.h"
#include "utils/sdk/string.h"

namespace Utils {

// A range of a text, shared by the SubStrings that view it. A String member keeps the text alive.
struct YUTILS_EXPORT SubStringRep {
 protected:
  friend struct DebuggerLayout;
  friend struct String;
  friend struct SubString;

  SubStringRep(const String& s) : string_(s) {
    init();
    size_ = s.size();
  }
  SubStringRep(const String& s, unsigned index) : SubStringRep(s, index, s.size() - index) {}
  SubStringRep(const String& s, unsigned index, unsigned size) : string_(s) {
    init();
    index_ = index;
    size_ = size;
    clip();
  }
  SubStringRep(const SubStringRep&) = delete;
  SubStringRep& operator=(const SubStringRep&) = delete;
  ~SubStringRep() {}

  static void* operator new(std::size_t size) noexcept {
    return Allocator::theAllocator()->alloc(static_cast<unsigned>(size));
  }
  static void operator delete(void* mem) noexcept { Allocator::theAllocator()->free(mem); }

  const String& string() const { return string_; }
  unsigned index() const { return index_; }
  unsigned size() const { return size_; }
  void incRef() { ++refCount_; }
  unsigned decRef() { return refCount_ ? --refCount_ : 0; }  // the caller destroys at 0

  int operator==(const char* text) const;
  int operator==(const String& s) const;
  int compare(const char* text) const;
  int icompare(const char* text) const;

 private:
  void init() { index_ = size_ = refCount_ = 0; }
  void empty() { size_ = index_ = 0; }
  void clip() {
    const unsigned end = string_.size();
    if (index_ >= end) {
      empty();
    } else if (size_ > end - index_) {
      size_ = end - index_;
    }
  }
  const char* text() const { return string_.begin() + index_; }

  String string_;
  unsigned index_;
  unsigned size_;
  unsigned refCount_;
};

// A snapshot of a range: it keeps the text alive, and later changes of the string are not visible
// in it. A range is clipped to the text; one that begins outside of it is empty, at position 0.
struct YUTILS_EXPORT SubString {
  SubString(const String& s) : SubString(new SubStringRep(s)) {}
  SubString(const String& s, unsigned index) : SubString(new SubStringRep(s, index)) {}
  SubString(const String& s, unsigned index, unsigned size)
      : SubString(new SubStringRep(s, index, size)) {}
  SubString(const SubString& s) : SubString(s.rep_) {}
  SubString(SubString&& s) noexcept : rep_(s.rep_) { s.rep_ = nullptr; }
  ~SubString() { purge(); }

  unsigned index() const { return rep_ ? rep_->index_ : 0; }
  unsigned size() const { return rep_ ? rep_->size_ : 0; }

  // Views all of s, or the range that s views; copies no text. Unchanged if there is no memory.
  SubString& operator=(const String& s);
  SubString& operator=(const SubString& s);
  SubString& operator=(SubString&& s) noexcept {
    SubStringRep* rep = s.rep_;
    s.rep_ = nullptr;
    purge();
    rep_ = rep;
    return *this;
  }
  void swap(SubString& s) noexcept {
    SubStringRep* rep = s.rep_;
    s.rep_ = rep_;
    rep_ = rep;
  }
  // Valid until the last SubString of the range is destroyed or assigned to.
  operator std::string_view() const { return {text(), size()}; }

  int operator==(const SubString& s) const;
  int operator==(const char* text) const;
  int operator==(const String& s) const;
  int operator==(std::nullptr_t) const = delete;
  int operator!=(const SubString& s) const { return !(*this == s); }
  int operator!=(const char* text) const { return !(*this == text); }
  int operator!=(const String& s) const { return !(*this == s); }
  int operator!=(std::nullptr_t) const = delete;

  // Returns a negative number, 0 or a positive number if the argument is less than, equal to or
  // greater than this range: the reverse of String::compare. Compares at most size() characters.
  int compare(const char* text) const { return rep_ ? rep_->compare(text) : 0; }
  int compare(std::nullptr_t) const = delete;
  int compare(const String& s) const { return compare(static_cast<const char*>(s)); }
  int compare(const SubString& s) const;
  int icompare(const char* text) const { return rep_ ? rep_->icompare(text) : 0; }
  int icompare(std::nullptr_t) const = delete;
  int icompare(const String& s) const { return icompare(static_cast<const char*>(s)); }
  int icompare(const SubString& s) const;

 private:
  friend struct String;

  explicit SubString(SubStringRep* rep) : rep_(rep) {
    if (rep_) rep_->incRef();
  }
  void purge() {
    SubStringRep* rep = rep_;
    rep_ = nullptr;
    if (rep && rep->decRef() == 0) destroy(rep);
  }
  static void destroy(SubStringRep* rep) { delete rep; }
  const char* text() const { return rep_ ? rep_->text() : ""; }

  SubStringRep* rep_;  // null if there was no memory for it: an empty range
};

inline int operator==(const String& a, const SubString& b) { return b == a; }
inline int operator!=(const String& a, const SubString& b) { return b != a; }
inline int operator==(const char* a, const SubString& b) { return b == a; }
inline int operator!=(const char* a, const SubString& b) { return b != a; }

// Returns a negative number, 0 or a positive number if a is less than, equal to or greater than b:
// by their bytes up to the first NUL, then by their sizes, as == finds them equal.
inline int orderOfRanges(std::string_view a, std::string_view b) {
  const std::size_t common = a.size() < b.size() ? a.size() : b.size();
  const int result = common == 0 ? 0 : std::strncmp(a.data(), b.data(), common);
  return result != 0 ? result : (a.size() > b.size()) - (a.size() < b.size());
}

// A SubString, and a SubString or a text that it is compared with.
template <class T>
struct IsRange : std::is_same<T, SubString> {};
template <class T>
struct IsText : std::is_convertible<const T&, std::string_view> {};
template <>
struct IsText<std::nullptr_t> : std::false_type {};
template <class A, class B, class Result>
using IfRanges = std::enable_if_t<std::disjunction_v<std::conjunction<IsRange<A>, IsText<B>>,
                                                     std::conjunction<IsRange<B>, IsText<A>>>,
                                  Result>;

// == and != of the types above are functions, which are chosen before templates.
#define YUTILS_COMPARE_RANGES(OP)                           \
  template <class A, class B>                               \
  IfRanges<A, B, int> operator OP(const A& a, const B& b) { \
    return orderOfRanges(a, b) OP 0;                        \
  }
YUTILS_COMPARE_RANGES(==)
YUTILS_COMPARE_RANGES(!=)
YUTILS_COMPARE_RANGES(<)
YUTILS_COMPARE_RANGES(<=)
YUTILS_COMPARE_RANGES(>)
YUTILS_COMPARE_RANGES(>=)
#undef YUTILS_COMPARE_RANGES
#ifdef __cpp_impl_three_way_comparison
template <class A, class B>
IfRanges<A, B, std::weak_ordering> operator<=>(const A& a, const B& b) {
  return orderOfRanges(a, b) <=> 0;
}
#endif

inline SubString String::operator()(unsigned index, unsigned size) {
  return SubString(*this, index, size);
}

inline SubString String::operator()(unsigned index) { return SubString(*this, index); }

}  // namespace Utils

// A range and a String that are equal have one hash.
template <>
struct std::hash<Utils::SubString> {
  std::size_t operator()(const Utils::SubString& s) const noexcept {
    const std::string_view text(s);
    return std::hash<std::string_view>()(text.substr(0, text.find('\0')));
  }
};
