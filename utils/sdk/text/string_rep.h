// SPDX-License-Identifier: MIT
// The representation that copies of a String share: a buffer, its sizes, a reference count, and
// every operation on a text that one String holds alone.
//
// A part of string.h, which programs include instead.
#pragma once

#include <cstddef>
#include <cstring>

#include "utils/sdk/export.h"

namespace Utils {

// A text that a String holds. Who changes it holds it alone, which nothing here looks at. What
// gives bool gives false, and has changed nothing, when there is no memory or the text would be too
// long.
struct YUTILS_EXPORT StringRep {
 protected:
  friend struct String;

  static constexpr unsigned NOT_FOUND = 0xffffffffu;
  static constexpr unsigned SIZE_LIMIT = 0x80000000u;  // sizes stay below it

  static unsigned lengthOf(const char* text);  // null has none; SIZE_LIMIT for all that is as long

  // Without memory these stay empty. No count yet: whoever makes one raises it.
  StringRep();
  StringRep(const char* text);  // null for an empty one
  StringRep(char c);
  StringRep(const char* text, unsigned count);  // exactly count bytes; null for an empty one
  StringRep(const char* text, unsigned from, unsigned count);  // the count bytes at text + from
  StringRep(const StringRep&) = delete;
  StringRep& operator=(const StringRep&) = delete;
  ~StringRep();

  // A representation as a String makes it: on the heap, in the total, its count 1; null without
  // memory. destroy ends it whatever its count.
  static StringRep* create(const char* text = nullptr, unsigned count = 0);
  static void destroy(StringRep* rep);
  static char* donateAndDestroy(StringRep* rep);

  void init();
  void incRef() { ++refCount_; }
  unsigned decRef() { return refCount_ ? --refCount_ : 0; }  // who gets 0 destroys
  // This one where no one else holds it, else a copy that takes over one count of this one; null,
  // and no count moved, without memory.
  StringRep* unshare();

  unsigned size() const { return size_; }
  void size(unsigned n) { size_ = n; }  // the terminator is left to the caller
  char* text() { return text_; }

  // Moves the buffer to the class of n, cutting the text to n; where that is its class already, n
  // cuts nothing. For 0 frees the buffer.
  bool resizeFor(unsigned n);
  int expandTo(unsigned n);  // blanks at the end up to n; gives whether the size is n or more

  void operator=(const char* text);  // null for an empty text; as it was without memory
  void operator=(char c);
  bool append(const char* text);  // null appends nothing
  bool append(StringRep* other);
  bool append(char c);

  // The source is the count bytes at text + from.
  bool replace(const char* text, unsigned count, unsigned from, unsigned at);
  bool insert(const char* text, unsigned count, unsigned from, unsigned at);
  void remove(unsigned from, unsigned count);
  // Requires: neither text lies in this one. An empty search changes nothing.
  bool substitute(const char* search, const char* with);
  void toUpper();
  void toLower();
  void rotateLeft(unsigned n);
  void trim();
  // The buffer, which is the caller's from then on, out of the total; where there is none the empty
  // text, which is not the caller's. Null when there is no memory for a buffer that can leave.
  char* donate();
  // Adopts a text from theAllocator() and counts it, unless it is null, empty or too long.
  void consume(char* text);

  // Every search is written here, on a text that exists. String forwards to it, inline for index()
  // alone, and returns NOT_FOUND if it has no representation. Searches for a character or a text
  // are inline below; searches by a set of characters are in string_rep.cpp.
  unsigned index(char c, unsigned from) const;
  unsigned index(const char* search, unsigned from) const;
  unsigned nthIndex(unsigned n, char c) const;
  unsigned rindex(char c) const { return position(std::strrchr(text_, c)); }
  unsigned indexChar(const char* set, unsigned from) const;
  unsigned rindexChar(const char* set, unsigned from) const;
  bool tokSpan(const char* delimiters, unsigned from, unsigned& start, unsigned& end) const;

 private:
  struct Block;
  struct OldBuffer;

  static unsigned sizeFor(unsigned n) { return 2u << (31 - __builtin_clz(n | 8)); }  // n < 2^31
  bool liesBehindText() const;
  unsigned position(const char* found) const;  // NOT_FOUND for null
  bool append(const char* text, unsigned count);
  bool appendInPlace(const char* text, unsigned count);
  bool moveFor(unsigned n, OldBuffer& old);
  bool openGap(const char* source, unsigned count, unsigned at);
  void finish(unsigned size);  // requires a buffer
  unsigned substituteFrom(char* read, const char* search, const char* with);

  unsigned size_;
  unsigned capacity_;  // 0 where text_ is the static empty text
  unsigned refCount_;
  char* text_;
};

static_assert(sizeof(StringRep) == (sizeof(void*) == 4 ? 16 : 24));

inline unsigned StringRep::lengthOf(const char* text) {
  const std::size_t length = text ? std::strlen(text) : 0;
  return length < SIZE_LIMIT ? static_cast<unsigned>(length) : SIZE_LIMIT;
}

inline void StringRep::finish(unsigned size) {
  size_ = size;
  text_[size] = '\0';
}

// Where the buffer need not move and no one shares it.
inline bool StringRep::appendInPlace(const char* text, unsigned count) {
  if (refCount_ != 1 || count == 0 || count >= capacity_ - size_) return false;
  const unsigned size = size_ + count;
  if (sizeFor(size) != capacity_) return false;
  std::memmove(text_ + size_, text, count);
  finish(size);
  return true;
}

inline unsigned StringRep::position(const char* found) const {
  return found ? static_cast<unsigned>(found - text_) : NOT_FOUND;
}

inline unsigned StringRep::index(char c, unsigned from) const {
  return from < size_ ? position(std::strchr(text_ + from, c)) : NOT_FOUND;
}

inline unsigned StringRep::index(const char* search, unsigned from) const {
  return from < size_ ? position(std::strstr(text_ + from, search)) : NOT_FOUND;
}

inline unsigned StringRep::nthIndex(unsigned n, char c) const {
  if (n == 0) return 0;
  if (c == '\0') return NOT_FOUND;
  const char* found = std::strchr(text_, c);
  while (found && --n != 0) found = std::strchr(found + 1, c);
  return position(found);
}

}  // namespace Utils
