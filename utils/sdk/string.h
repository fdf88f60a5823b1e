// SPDX-License-Identifier: MIT
// Text as a value, shared between its copies, and views of ranges of it.
//
// A String is one pointer: to a reference-counted StringRep, or null for an empty string without an
// allocation. Copies share the representation. An operation that changes a text copies a shared
// representation first, so no change is visible through another String. Reading never copies, not
// even through the StringChar that [] returns. A SubString shares a range of a text as it was when
// the view was created.
//
// A text is bytes, with its length stored and a NUL after it. Operations that take a count copy
// embedded NULs; comparisons and searches stop at the first NUL, except searches by a set of
// characters, which treat a NUL as a character of the set.
//
//   String ──> StringRep: size_ 3, capacity_ 16, refCount_ 1, text_ ──> "abc\0" and 12 bytes
//
// is String("abc"), of 24 + 16 bytes in YfTotalStringMemory() (16 + 16 with pointers of 4 bytes).
// Capacity is the smallest power of two, at least 16, above the size that the last reallocation
// asked for. A buffer adopted by consume() has exactly size_ + 1 bytes.
//
// Beside the types of the standard library: a std::string_view or a std::string can be appended,
// assigned and compared, and is copied by an explicit String(text). A String converts to both, to a
// std::string as a const char* does, up to the first NUL; std::string(std::string_view(s)) is
// whole. Streams write a text with its NULs. std::hash agrees with ==. A moved-from String is
// empty. format.h has the formatters of std::format.
//
// Sizes and positions are 32-bit; a search that finds nothing returns 0xffffffff. If there is no
// memory, an operation leaves the string unchanged, and a String or SubString that cannot be
// created is empty, without a representation. The same holds for a text of more than 33554431
// bytes: the next capacity, 67108864 bytes, is larger than the largest block (alloc.h). Only an
// adopted text may be longer, up to the largest block. The source of an operation may lie in the
// text that it changes.
//
// Thread safety: the caller serialises all operations on strings that share a representation, and
// all that allocate or free. Reference counts and the total of string memory are not atomic.
#pragma once

// <string_view> is two thirds of the text that this header includes. Templates could accept a
// std::string_view without it, but not the types that convert to one.
#include <cstddef>
#include <cstring>
#include <iosfwd>
#include <string_view>
#include <type_traits>
#ifdef __cpp_impl_three_way_comparison
#include <compare>
#endif

#include "utils/sdk/base/immortal.h"
#include "utils/sdk/export.h"

namespace Utils {

struct String;
struct StringChar;
struct StringRep;
struct SubString;

// A std::string_view, or a type that converts to one and not to const char*, such as std::string.
template <class T>
struct IsView : std::bool_constant<std::is_convertible_v<const T&, std::string_view> &&
                                   !std::is_convertible_v<const T&, const char*>> {};
template <>
struct IsView<String> : std::false_type {};
template <>
struct IsView<SubString> : std::false_type {};

// An integer that a conversion would take to several of int, long, double and char alike.
template <class T>
struct IsWideInteger
    : std::bool_constant<std::is_same_v<T, unsigned> || std::is_same_v<T, long> ||
                         std::is_same_v<T, unsigned long> || std::is_same_v<T, long long> ||
                         std::is_same_v<T, unsigned long long>> {};

// Operations that read a text have a deleted overload for nullptr, which also refuses a literal 0.
struct YUTILS_EXPORT String {
  constexpr String() : rep_(nullptr) {}
  String(const String& s);
  String(String&& s) noexcept : rep_(s.rep_) { s.rep_ = nullptr; }
  String(const char* text);  // null counts as empty
  String(char c);
  String(const char* text, unsigned count);  // null counts as empty
  String(char c, unsigned count);            // count times c
  explicit String(std::string_view text);
  String(int i) : rep_(nullptr) { *this += i; }
  String(float f) : rep_(nullptr) { *this += static_cast<double>(f); }
  String(double d) : rep_(nullptr) { *this += d; }
  template <class Integer, std::enable_if_t<IsWideInteger<Integer>::value, int> = 0>
  String(Integer i) : rep_(nullptr) {
    *this += i;
  }
  String(const SubString& s);               // copies the range
  String(const String& s, unsigned count);  // copies the first count characters
  ~String() { purge(); }

  String& operator=(const String& s);
  String& operator=(String&& s) noexcept;
  String& operator=(const char* text) { return takeOver(String(text)); }
  String& operator=(double d) { return takeOver(String(d)); }
  String& operator=(char c) { return takeOver(String(c)); }
  String& operator=(int i) { return takeOver(String(i)); }
  template <class Integer, std::enable_if_t<IsWideInteger<Integer>::value, int> = 0>
  String& operator=(Integer i) {
    return takeOver(String(i));
  }
  template <class View, std::enable_if_t<IsView<View>::value, char> = 0>
  String& operator=(const View& text) {
    return takeOver(String(std::string_view(text)));
  }
  void swap(String& s) noexcept;

  // Returns a negative number, 0 or a positive number if this string is less than, equal to or
  // greater than s. Every comparison is by bytes and stops at the first NUL of either text.
  int compare(const String& s) const;
  template <class View, class = std::enable_if_t<IsView<View>::value>>
  int compare(const View& text) const;
  int icompare(const String& s) const;   // ignores case, by the current locale
  int icompare(const char* text) const;  // -1 for every text if there is no representation
  int icompare(std::nullptr_t) const = delete;
  bool startsWith(const String& s) const;
  bool startsWith(const char* text) const;
  bool startsWith(std::nullptr_t) const = delete;
  int operator==(const String& s) const;
  int operator!=(const String& s) const { return !(*this == s); }
  int operator<(const String& s) const { return compare(s) < 0; }
  int operator<=(const String& s) const { return compare(s) <= 0; }
  int operator>(const String& s) const { return !(*this <= s); }
  int operator>=(const String& s) const { return !(*this < s); }
  int operator==(const char* text) const { return std::strcmp(*this, text) == 0; }
  int operator!=(const char* text) const { return !(*this == text); }
  int operator<(const char* text) const { return std::strcmp(*this, text) < 0; }
  int operator<=(const char* text) const { return std::strcmp(*this, text) <= 0; }
  int operator>(const char* text) const { return !(*this <= text); }
  int operator>=(const char* text) const { return !(*this < text); }
#ifdef __cpp_impl_three_way_comparison
  // The order is weak: equivalent texts may differ after a NUL.
  std::weak_ordering operator<=>(const String& s) const { return compare(s) <=> 0; }
  std::weak_ordering operator<=>(const char* text) const { return std::strcmp(*this, text) <=> 0; }
  std::weak_ordering operator<=>(std::nullptr_t) const = delete;
#endif

  String& operator+=(const String& s);   // shares s if there is no representation yet
  String& operator+=(const char* text);  // null adds nothing
  String& operator+=(char c) { return append(&c, 1); }
  String& operator+=(int i) { return *this += static_cast<long>(i); }
  String& operator+=(long i);
  String& operator+=(unsigned i) { return *this += static_cast<unsigned long>(i); }
  String& operator+=(unsigned long i);
  String& operator+=(long long i);
  String& operator+=(unsigned long long i);
  String& operator+=(double d);  // with six decimals
  template <class View, class = std::enable_if_t<IsView<View>::value>>
  String& operator+=(const View& text) {
    return appendView(text);
  }
  String& append(const char* text, unsigned count);  // null counts as empty

  // Returns NUL for a position outside of the text.
  char operator[](unsigned i) const;
  char operator[](int i) const { return (*this)[positionOf(i)]; }
  StringChar operator[](unsigned i);
  StringChar operator[](int i);
  template <class Integer, class = std::enable_if_t<std::is_integral_v<Integer>>>
  char operator[](Integer i) const {
    return (*this)[positionOf(i)];
  }
  template <class Integer, class = std::enable_if_t<std::is_integral_v<Integer>>>
  StringChar operator[](Integer i);

  // Valid until a String that shares the text changes or is destroyed.
  const char* begin() const { return *this; }
  const char* end() const { return begin() + size(); }

  // Return a position or 0xffffffff. If c is NUL, index(c, from) and rindex find the terminator,
  // the others nothing.
  unsigned index(char c) const;
  unsigned strchr(char c) const { return index(c); }
  unsigned index(char c, unsigned from) const;
  unsigned nthIndex(unsigned n, char c) const;  // the nth c, counted from 1; returns 0 for n = 0
  unsigned index(const char* search, unsigned from) const;
  unsigned index(std::nullptr_t, unsigned) const = delete;
  // Return the first position at or after `from`, or the last at or before it, whose character is
  // in the set. NUL is in every set. For rindexChar, 0xffffffff stands for the end.
  unsigned indexChar(const char* set, unsigned from) const;
  unsigned indexChar(std::nullptr_t, unsigned) const = delete;
  unsigned rindexChar(const char* set, unsigned from) const;
  unsigned rindexChar(std::nullptr_t, unsigned) const = delete;
  unsigned rindex(char c) const;
  unsigned strrchr(char c) const { return rindex(c); }
  // Finds the next token at or after `from`, a run of characters that are neither delimiters nor
  // NUL, and stores its range, from start to end - 1. The search for the following token begins at
  // end. Returns false if there is no token; start is then size(), or unchanged if `from` is not
  // below size() or there is no representation.
  bool tokSpan(const char* delimiters, unsigned from, unsigned& start, unsigned& end) const;
  bool tokSpan(std::nullptr_t, unsigned, unsigned&, unsigned&) const = delete;

  // Overwrite the bytes from position `at` on, and lengthen the text if necessary; or insert before
  // position `at`. The source is the count bytes at text + from, or at position `from` of s; a null
  // text counts as empty. Requires: the source has them. Blanks fill the gap if `at` is past the
  // end.
  String& replace(const char* text, unsigned count, unsigned from, unsigned at);
  String& replace(const String& s, unsigned count, unsigned from, unsigned at);
  String& insert(const char* text, unsigned count, unsigned from, unsigned at);
  String& insert(const String& s, unsigned count, unsigned from, unsigned at);
  void insert(char c, int at) { insert(&c, 1, 0, static_cast<unsigned>(at)); }
  String& remove(unsigned from, unsigned count);  // clips the range to the text; keeps the buffer
  String& truncate(unsigned n) { return remove(n, size()); }
  // Returns a copy, up to the first NUL, with every occurrence replaced, from left to right; the
  // inserted texts are not searched. An empty `search` has no occurrence. Returns an empty string
  // if there is no memory.
  [[nodiscard]] String substitute(const char* search, const char* with);
  String substitute(std::nullptr_t, const char*) = delete;
  String substitute(const char*, std::nullptr_t) = delete;
  [[nodiscard]] String reverse();  // returns a copy; empty if there is no memory
  String& toUpper();
  String& toLower();
  String& rotateLeft(unsigned n);
  String& trim();  // removes white space at both ends

  unsigned size() const;
  // Never null. Valid until a String that shares the text changes or is destroyed.
  operator const char*() const;
  operator std::string_view() const { return {begin(), size()}; }
  // As a pointer, an empty String would be true.
  explicit operator bool() const = delete;  // test size() != 0
  // Returns the address of character i in the text that the conversion returns. Null if there is no
  // representation. Requires: i <= size().
  const char* textAt(unsigned i) const;
  void expandTo(unsigned n);  // appends blanks up to n characters
  // Reallocates the buffer to the capacity for n characters and truncates the text to n. Does
  // nothing if it has that capacity already, even if the text is longer than n. 0 frees the buffer.
  void resizeFor(unsigned n);
  // Returns the buffer, which the caller owns and frees with theAllocator()->free, and empties the
  // string. If size() is 0 there is nothing to own: a buffer is freed, and the result is a static
  // empty text that must not be freed, so test size() first. Returns null, and changes nothing, if
  // there is no representation, or if the text is shared and there is no memory for a copy.
  [[nodiscard]] char* donate();
  // Replaces the string by a text that theAllocator() has allocated, without a copy, and owns it.
  // If the text is null or empty, the string becomes empty and the caller keeps the text. If it has
  // 0x80000000 bytes or more, or if there is no memory, nothing changes.
  void consume(char* text);
  static const String& null();  // without a representation; valid until the process ends

  // Return a view of the range, clipped to the text.
  SubString operator()(unsigned index, unsigned size);
  SubString operator()(unsigned index);

 protected:
  friend struct StringChar;

  void purge();

  static Immortal<String> null_;
  StringRep* rep_;

 private:
  // Returns 0xffffffff for a number that is no position.
  template <class Integer>
  static unsigned positionOf(Integer i) {
    const auto position = static_cast<unsigned>(i);
    return static_cast<Integer>(position) == i ? position : 0xffffffffu;
  }

  friend YUTILS_EXPORT String operator+(const String& a, const String& b);
  friend YUTILS_EXPORT String operator+(const String& a, const char* b);
  friend YUTILS_EXPORT String operator+(const char* a, const String& b);

  static unsigned lengthOf(const char* text);  // as in StringRep
  static String joined(const char* a, unsigned sizeOfA, const char* b, unsigned sizeOfB);
  String& takeOver(const String& made) { return made.rep_ ? *this = made : *this; }
  String& appendView(std::string_view text);
  void put(unsigned index, char c);
  void set(unsigned index, char c);  // put() if the text is shared or too short
  String& appendAnew(const char* text, unsigned count);
  String& appendNull();
  template <class Step>
  String& change(Step step);
};

// One character of a non-const String, to read or to write. Valid until the String is destroyed.
struct YUTILS_EXPORT StringChar {
  StringChar(const StringChar&) = default;

  operator char() const;
  // Writes c and returns the string. Blanks fill the gap if the index is past the end.
  String& operator=(char c);
  String& operator=(const StringChar& other) { return *this = static_cast<char>(other); }

 protected:
  friend struct String;
  StringChar(String& string, unsigned index) : string_(string), index_(index) {}

 private:
  String& string_;
  unsigned index_;
};

YUTILS_EXPORT String operator+(const String& a, const String& b);
YUTILS_EXPORT String operator+(const String& a, const char* b);  // a null b adds nothing
YUTILS_EXPORT String operator+(const char* a, const String& b);

template <class View, class = std::enable_if_t<IsView<View>::value>>
String operator+(const String& a, const View& b) {
  return String(a) += b;
}
template <class View, class = std::enable_if_t<IsView<View>::value>>
String operator+(const View& a, const String& b) {
  return String(std::string_view(a)) += b;
}

template <class T>
struct IsNumber : std::bool_constant<std::is_integral_v<T> && !std::is_same_v<T, char>> {};

// Numbers are refused: a literal 0 would be a null text, and any other number could also be added
// to the address that a String converts to.
template <class Number, class = std::enable_if_t<IsNumber<Number>::value>, class = void>
String operator+(const String& a, Number b) = delete;
template <class Number, class = std::enable_if_t<IsNumber<Number>::value>, class = void>
String operator+(Number a, const String& b) = delete;

// Append or prepend a character. Without these overloads s + t[0] would be an address. They are
// templates, which convert no operand, so t[0] + 1 stays a number.
template <class Char, class = std::enable_if_t<std::is_same_v<Char, char>>>
String operator+(const String& a, Char b) {
  return String(a) += b;
}
template <class Char, class = std::enable_if_t<std::is_same_v<Char, char>>>
String operator+(Char a, const String& b) {
  return String(a) += b;
}
template <class Text, class = std::enable_if_t<std::is_same_v<Text, String>>>
Text operator+(const Text& a, StringChar b) {
  return a + static_cast<char>(b);
}
template <class Text, class = std::enable_if_t<std::is_same_v<Text, String>>>
Text operator+(StringChar a, const Text& b) {
  return static_cast<char>(a) + b;
}

// A value that converts to a String, as the left operand of a comparison.
struct StringOperand {
  template <class T, class = std::enable_if_t<std::is_convertible_v<const T&, String> &&
                                              !std::is_same_v<T, SubString>>>
  StringOperand(const T& value) : string_(value) {}

  const String string_;
};

// Returns as strcmp does; b ends at its first NUL, if it has one.
YUTILS_EXPORT int compareText(const char* a, std::string_view b);

// Comparison of a String with other types, in both orders, by the rule of String::compare. A
// literal 0 is a null pointer to several overloads, so it is refused, as nullptr is. Both orders
// are written out because C++20 does not exchange the operands of an operator == that returns int.
#define YUTILS_COMPARE_STRINGS(OP)                                                           \
  inline int operator OP(const char* a, const String& b) { return std::strcmp(a, b) OP 0; }  \
  inline int operator OP(const StringOperand& a, const String& b) { return a.string_ OP b; } \
  inline int operator OP(const StringOperand& a, const char* b) { return a.string_ OP b; }   \
  int operator OP(std::nullptr_t, const String&) = delete;                                   \
  int operator OP(const String&, std::nullptr_t) = delete;                                   \
  template <class Text, class = std::enable_if_t<std::is_same_v<Text, String>>>              \
  int operator OP(const Text& a, std::string_view b) {                                       \
    return compareText(a, b) OP 0;                                                           \
  }                                                                                          \
  template <class Text, class = std::enable_if_t<std::is_same_v<Text, String>>>              \
  int operator OP(std::string_view a, const Text& b) {                                       \
    return 0 OP compareText(b, a);                                                           \
  }
YUTILS_COMPARE_STRINGS(==)
YUTILS_COMPARE_STRINGS(!=)
YUTILS_COMPARE_STRINGS(<)
YUTILS_COMPARE_STRINGS(<=)
YUTILS_COMPARE_STRINGS(>)
YUTILS_COMPARE_STRINGS(>=)
#undef YUTILS_COMPARE_STRINGS

#ifdef __cpp_impl_three_way_comparison
template <class Text, class = std::enable_if_t<std::is_same_v<Text, String>>>
std::weak_ordering operator<=>(const Text& a, std::string_view b) {
  return compareText(a, b) <=> 0;
}
#endif

template <class View, class>
int String::compare(const View& text) const {
  return compareText(*this, text);
}

// Writes a String or a SubString, with its NULs, as the stream writes a std::string_view.
template <class Traits, class Text,
          class = std::enable_if_t<std::is_same_v<Text, String> || std::is_same_v<Text, SubString>>>
std::basic_ostream<char, Traits>& operator<<(std::basic_ostream<char, Traits>& out,
                                             const Text& text) {
  const std::string_view view(text);
  return out << std::basic_string_view<char, Traits>(view.data(), view.size());
}

// Returns the bytes that the representations and buffers of all strings of the process take.
YUTILS_EXPORT unsigned YfTotalStringMemory();

}  // namespace Utils

// Hashes a text up to its first NUL, since == compares no more.
template <>
struct std::hash<Utils::String> {
  std::size_t operator()(const Utils::String& s) const noexcept {
    return std::hash<std::string_view>()(s.begin());
  }
};

#include "utils/sdk/text/string_inline.h"
#include "utils/sdk/text/string_rep.h"
#include "utils/sdk/text/substring.h"
