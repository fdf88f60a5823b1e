// SPDX-License-Identifier: MIT
// The representation that copies of a String share: a buffer, its sizes, a reference count, and
// every operation on a text that one String holds alone.
//
// A part of string.h, which programs include instead. Thread safety: as in string.h.
#pragma once

#include <cstddef>
#include <cstring>

#include "utils/sdk/export.h"

namespace Utils {

// Requires: refCount_ is at most 1 before a change; this is not checked. Changes that return bool
// return false, and change nothing, if there is no memory or the text would be too long.
struct YUTILS_EXPORT StringRep {
 protected:
  friend struct DebuggerLayout;
  friend struct String;

  static constexpr unsigned NOT_FOUND = 0xffffffffu;
  static constexpr unsigned SIZE_LIMIT = 0x80000000u;  // above every size

  static unsigned lengthOf(const char* text);  // 0 for null; at most SIZE_LIMIT

  // Create an empty text if there is no memory. The reference count is 0; the creator raises it.
  StringRep();
  StringRep(const char* text);  // null counts as empty
  StringRep(char c);
  StringRep(const char* text, unsigned count);  // exactly count bytes; null counts as empty
  StringRep(const char* text, unsigned from, unsigned count);  // the count bytes at text + from
  StringRep(const StringRep&) = delete;
  StringRep& operator=(const StringRep&) = delete;
  ~StringRep();

  // Creates a representation for a String: in memory of the process allocator, counted in the total
  // of string memory, with a reference count of 1. Returns null if there is no memory. destroy()
  // destroys it without a test of the count.
  static StringRep* create(const char* text = nullptr, unsigned count = 0);
  static void destroy(StringRep* rep);
  static char* donateAndDestroy(StringRep* rep);

  void init();
  void incRef() { ++refCount_; }
  unsigned decRef() { return refCount_ ? --refCount_ : 0; }  // the caller destroys at 0
  // Returns this representation if nobody shares it; else a copy, and lowers this one's count.
  // Returns null, counts unchanged, if there is no memory.
  StringRep* unshare();

  unsigned size() const { return size_; }
  void size(unsigned n) { size_ = n; }  // does not write the terminator
  char* text() { return text_; }

  // Reallocates the buffer to the capacity for n characters and truncates the text to n. Does
  // nothing if it has that capacity already, even if the text is longer than n. 0 frees the buffer.
  bool resizeFor(unsigned n);
  int expandTo(unsigned n);  // appends blanks up to n; 1 if the size is then n or more

  void operator=(const char* text);  // null counts as empty; changes nothing without memory
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
  // Returns the buffer, which the caller owns, and subtracts it from the total. Returns the static
  // empty text, which must not be freed, if capacity_ is 0; a text of size 0 with a capacity has a
  // buffer. Returns null if the text is inline and there is no memory for a buffer of its own.
  char* donate();
  // Owns a text that theAllocator() has allocated, and adds it to the total. The caller keeps a
  // text that is null, empty or too long.
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
  struct DeferredFree;

  // Returns the capacity for n. Requires: n < 2^31.
  static unsigned sizeFor(unsigned n) { return 2u << (31 - __builtin_clz(n | 8)); }
  bool isInline() const;                       // the text lies in the block of the representation
  unsigned position(const char* found) const;  // NOT_FOUND for null
  bool append(const char* text, unsigned count);
  bool appendInPlace(const char* text, unsigned count);
  bool moveFor(unsigned n, DeferredFree& old);
  bool openGap(const char* source, unsigned count, unsigned at);
  void finish(unsigned size);  // Requires: a buffer
  unsigned substituteFrom(char* read, const char* search, const char* with);

  unsigned size_;
  unsigned capacity_;  // 0 if text_ is the static empty text
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

// Appends if nobody shares the text and the buffer need not move.
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
