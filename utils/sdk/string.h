// SPDX-License-Identifier: MIT
// Text as a value, shared between its copies, and views of ranges of it.
//
// A String is one pointer to a counted StringRep, or null: an empty string that has cost nothing.
// Copies share the representation; whatever changes a text first makes the representation its own,
// so no change is ever seen through another String. Reading never copies, not even through the
// proxy that [] gives. A SubString shares a range of a text as it was when the view was formed.
//
// A text is bytes, with its length stored and a NUL behind it. It may hold NULs itself: what is
// told by counts carries them, what goes by texts (comparison, searches) stops at the first one.
//
//   String ──> StringRep: size_ 3, capacity_ 16, refCount_ 1, text_ ──> "abc\0" and 12 bytes
//
// is String("abc") and counts 24 + 16 bytes of string memory (16 + 16 with pointers of 4 bytes).
// A buffer has the smallest power of two of at least 16 bytes that is greater than the size asked
// for at the latest change that could move it; one that was adopted has exactly size_ + 1.
//
// Sizes and positions are 32-bit; a search that finds nothing gives 0xffffffff. Without memory an
// operation leaves the string as it was, and a String or SubString that cannot be made is empty,
// without a representation. There is none for a text of more than 33554431 bytes: the buffer of the
// next class, 67108864 bytes, is larger than the largest block (alloc.h). An adopted text may be
// longer, up to what a block holds. Sources may lie in the very text that changes.
//
// Counts and the total are plain: the caller serialises all strings that share a representation,
// and whatever allocates or frees.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>
#include <type_traits>
#ifdef __cpp_impl_three_way_comparison
#include <compare>
#endif

#include "utils/sdk/base/immortal.h"
#include "utils/sdk/export.h"

namespace Utils {

struct StringChar;
struct StringRep;
struct SubString;

// Operations that read a text have a deleted overload for nullptr, which refuses a literal 0 too.
struct YUTILS_EXPORT String {
  constexpr String() : rep_(nullptr) {}
  String(const String& s);
  String(const char* text);
  String(char c);
  String(const char* text, unsigned count);
  String(char c, unsigned count);
  explicit String(std::string_view text);
  String(int i) : rep_(nullptr) { *this += i; }
  String(float f) : rep_(nullptr) { *this += static_cast<double>(f); }
  String(double d) : rep_(nullptr) { *this += d; }
  String(const SubString& s);               // a text of its own
  String(const String& s, unsigned count);  // the first count characters, a text of their own
  ~String() { purge(); }

  String& operator=(const String& s);
  String& operator=(const char* text) { return takeOver(String(text)); }
  String& operator=(double d) { return takeOver(String(d)); }
  String& operator=(char c) { return takeOver(String(c)); }

  // The sign tells where this string stands against s. All comparison ends at the first NUL of
  // either text, and goes by bytes.
  int compare(const String& s) const;
  int icompare(const String& s) const;   // upper and lower case are one, in the current locale
  int icompare(const char* text) const;  // -1 without a representation, whatever the text
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
  // Equivalent texts may differ after a NUL, so the order is weak.
  std::weak_ordering operator<=>(const String& s) const { return compare(s) <=> 0; }
  std::weak_ordering operator<=>(const char* text) const { return std::strcmp(*this, text) <=> 0; }
  std::weak_ordering operator<=>(std::nullptr_t) const = delete;
#endif

  String& operator+=(const String& s);   // shares s where there is no representation yet
  String& operator+=(const char* text);  // null adds nothing
  String& operator+=(char c) { return append(&c, 1); }
  String& operator+=(int i) { return *this += static_cast<long>(i); }
  String& operator+=(long i);
  String& operator+=(unsigned i) { return *this += static_cast<unsigned long>(i); }
  String& operator+=(unsigned long i);
  String& operator+=(double d);                      // with six decimals
  String& append(const char* text, unsigned count);  // a null text has none

  // NUL for a position that the text does not have.
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

  // The bytes; valid until a String that shares them changes.
  const char* begin() const { return *this; }
  const char* end() const { return begin() + size(); }

  // All give a position or 0xffffffff. The terminator is found by index(c, from) and rindex alone.
  unsigned index(char c) const;
  unsigned strchr(char c) const { return index(c); }
  unsigned index(char c, unsigned from) const;
  unsigned nthIndex(unsigned n, char c) const;  // counted from 1; 0 gives position 0
  unsigned index(const char* search, unsigned from) const;
  unsigned index(std::nullptr_t, unsigned) const = delete;
  // The first at or behind, the last at or before `from`, whose character is in the set; every set
  // has the NUL. Backwards 0xffffffff stands for the end.
  unsigned indexChar(const char* set, unsigned from) const;
  unsigned indexChar(std::nullptr_t, unsigned) const = delete;
  unsigned rindexChar(const char* set, unsigned from) const;
  unsigned rindexChar(std::nullptr_t, unsigned) const = delete;
  unsigned rindex(char c) const;
  unsigned strrchr(char c) const { return rindex(c); }
  // The next token at or behind `from`, from start up to but without end; the caller goes on at
  // end. False when there is none; start is then the size, unless from was past it already.
  bool tokSpan(const char* delimiters, unsigned from, unsigned& start, unsigned& end) const;
  bool tokSpan(std::nullptr_t, unsigned, unsigned&, unsigned&) const = delete;

  // A position past the end is reached with blanks. The source is the count bytes at text + from,
  // or those of s, which must be there; a null text has none.
  String& replace(const char* text, unsigned count, unsigned from, unsigned at);
  String& replace(const String& s, unsigned count, unsigned from, unsigned at);
  String& insert(const char* text, unsigned count, unsigned from, unsigned at);
  String& insert(const String& s, unsigned count, unsigned from, unsigned at);
  void insert(char c, int at) { insert(&c, 1, 0, static_cast<unsigned>(at)); }
  String& remove(unsigned from, unsigned count);  // as far as the text reaches; keeps the buffer
  String& truncate(unsigned n) { return remove(n, size()); }
  // Every occurrence, from left to right and never in what was put in. An empty search has none.
  String substitute(const char* search, const char* with);
  String substitute(std::nullptr_t, const char*) = delete;
  String substitute(const char*, std::nullptr_t) = delete;
  String reverse();
  String& toUpper();
  String& toLower();
  String& rotateLeft(unsigned n);
  String& trim();  // white space at both ends

  unsigned size() const;
  // Never null; valid until a String that shares the text changes.
  operator const char*() const;
  operator std::string_view() const { return {begin(), size()}; }
  // Unlike the conversion null without a representation. Requires: i is in the text or its end.
  const char* textAt(unsigned i) const;
  void expandTo(unsigned n);
  // Moves the text to a buffer for n characters. Cuts it to n only where that is a buffer of
  // another size; for 0 the text and its buffer go.
  void resizeFor(unsigned n);
  // The text, which the caller gives back with theAllocator()->free. Where size() is 0 it is a
  // static empty text, which nobody gives back, and the buffer is freed: ask size() before. Null
  // without a representation, or without memory for it where the text is shared: the string then
  // keeps it.
  char* donate();
  // Takes over a text from theAllocator()->alloc. One that is empty stays the caller's, as does one
  // of 0x80000000 bytes and more, and any when there is no memory for a representation: the string
  // is then left as it was.
  void consume(char* text);
  static const String& null();  // without a representation, to the end of the process

  // A view of the range, as far as the text reaches.
  SubString operator()(unsigned index, unsigned size);
  SubString operator()(unsigned index);

 protected:
  friend struct StringChar;

  void purge();

  static Immortal<String> null_;
  StringRep* rep_;

 private:
  // 0xffffffff for all that no text reaches.
  template <class Integer>
  static unsigned positionOf(Integer i) {
    const auto position = static_cast<unsigned>(i);
    return static_cast<Integer>(position) == i ? position : 0xffffffffu;
  }

  friend YUTILS_EXPORT String operator+(const String& a, const String& b);
  friend YUTILS_EXPORT String operator+(const String& a, const char* b);
  friend YUTILS_EXPORT String operator+(const char* a, const String& b);

  static unsigned lengthOf(const char* text);  // as StringRep::lengthOf
  static String joined(const char* a, unsigned sizeOfA, const char* b, unsigned sizeOfB);
  String& takeOver(const String& made) { return made.rep_ ? *this = made : *this; }
  void put(unsigned index, char c);
  void set(unsigned index, char c);  // put, for a text that is shared or too short
  String& appendAnew(const char* text, unsigned count);
  String& appendNull();
  template <class Step>
  String& change(Step step);
};

// One character of a non-const String, read or written. Valid as long as the String.
struct YUTILS_EXPORT StringChar {
  StringChar(const StringChar&) = default;

  operator char() const;
  // Gives the string. At or past the end the character lands at its index, blanks before it.
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

template <class T>
struct IsNumber : std::bool_constant<std::is_integral_v<T> && !std::is_same_v<T, char>> {};

// A literal 0 would be a null text. Every other number is ambiguous.
template <class Number, class = std::enable_if_t<IsNumber<Number>::value>, class = void>
String operator+(const String& a, Number b) = delete;
template <class Number, class = std::enable_if_t<IsNumber<Number>::value>, class = void>
String operator+(Number a, const String& b) = delete;

// Characters as they are. Without these, s + t[0] would be an address; as templates they take
// nothing else, so that t[0] + 1 stays a number.
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

// As strcmp, of the view up to its first NUL.
YUTILS_EXPORT int compareText(const char* a, std::string_view b);

// Comparison with what is not a String, in both orders, by the rule of String::compare. A literal 0
// is a null pointer to one overload as to another, so it is refused as nullptr is. None of them may
// be left to the language, which takes no int from an operator whose operands it has exchanged.
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

// Bytes in representations and their buffers, of all strings of the process together.
YUTILS_EXPORT unsigned YfTotalStringMemory();

}  // namespace Utils

#include "utils/sdk/text/string_inline.h"
#include "utils/sdk/text/string_rep.h"
#include "utils/sdk/text/substring.h"
