// SPDX-License-Identifier: MIT
// The inline members of String, those that a call would slow down.
//
// A part of string.h, which programs include instead. Thread safety: as in string.h.
#pragma once

#include <cstring>

#include "utils/sdk/string.h"
#include "utils/sdk/text/string_rep.h"

namespace Utils {

// --- Construction and sharing ---

inline String::String(const String& s) : rep_(s.rep_) {
  if (rep_) rep_->incRef();
}

inline String::String(const char* text) : rep_(StringRep::create(text, lengthOf(text))) {}

inline String::String(char c) : rep_(StringRep::create(&c, 1)) {}

inline String::String(const char* text, unsigned count) : rep_(StringRep::create(text, count)) {}

inline String& String::operator=(const String& s) {
  StringRep* rep = s.rep_;
  if (rep) rep->incRef();
  purge();
  rep_ = rep;
  return *this;
}

inline String& String::operator=(String&& s) noexcept {
  StringRep* rep = s.rep_;
  s.rep_ = nullptr;
  purge();
  rep_ = rep;
  return *this;
}

inline void String::swap(String& s) noexcept {
  StringRep* rep = s.rep_;
  s.rep_ = rep_;
  rep_ = rep;
}

inline void String::purge() {
  StringRep* rep = rep_;
  rep_ = nullptr;
  if (rep && rep->decRef() == 0) StringRep::destroy(rep);
}

// --- Reading ---

inline unsigned String::size() const { return rep_ ? rep_->size_ : 0; }

inline String::operator const char*() const { return rep_ ? rep_->text_ : ""; }

inline const char* String::textAt(unsigned i) const { return rep_ ? rep_->text_ + i : nullptr; }

inline char String::operator[](unsigned i) const { return i < size() ? rep_->text_[i] : '\0'; }

inline StringChar String::operator[](unsigned i) { return StringChar(*this, i); }

inline StringChar String::operator[](int i) { return StringChar(*this, static_cast<unsigned>(i)); }

template <class Integer, class>
StringChar String::operator[](Integer i) {
  return StringChar(*this, positionOf(i));
}

inline StringChar::operator char() const {
  const String& string = string_;
  return string[index_];
}

inline void String::put(unsigned index, char c) {
  if (rep_ && rep_->refCount_ == 1 && index < rep_->size_) {
    rep_->text_[index] = c;
  } else {
    set(index, c);
  }
}

inline String& StringChar::operator=(char c) {
  string_.put(index_, c);
  return string_;
}

// --- Searching ---

inline unsigned String::index(char c) const { return c ? index(c, 0) : StringRep::NOT_FOUND; }

inline unsigned String::index(char c, unsigned from) const {
  return rep_ ? rep_->index(c, from) : StringRep::NOT_FOUND;
}

inline unsigned String::index(const char* search, unsigned from) const {
  return rep_ ? rep_->index(search, from) : StringRep::NOT_FOUND;
}

// --- Comparison and appending ---

inline unsigned String::lengthOf(const char* text) { return StringRep::lengthOf(text); }

inline int String::compare(const String& s) const {
  if (rep_ == s.rep_) return 0;
  if (rep_ && s.rep_) return std::strcmp(rep_->text_, s.rep_->text_);
  return rep_ ? size() != 0 : -(s.size() != 0);
}

// memcmp finds equal texts of equal sizes faster than strcmp.
inline int String::operator==(const String& s) const {
  const StringRep* a = rep_;
  const StringRep* b = s.rep_;
  if (a && b && a->size_ == b->size_ && std::memcmp(a->text_, b->text_, a->size_) == 0) return 1;
  return compare(s) == 0;
}

inline String& String::append(const char* text, unsigned count) {
  return rep_ && text && rep_->appendInPlace(text, count) ? *this : appendAnew(text, count);
}

// A view that is too long is cut to SIZE_LIMIT, which no text has, so nothing is appended.
inline String& String::appendView(std::string_view text) {
  const bool fits = text.size() < StringRep::SIZE_LIMIT;
  return append(text.data(), fits ? static_cast<unsigned>(text.size()) : StringRep::SIZE_LIMIT);
}

inline String& String::operator+=(const char* text) {
  return text ? append(text, lengthOf(text)) : appendNull();
}

inline String& String::operator+=(const String& s) {
  if (!s.rep_) return *this;
  if (!rep_) return *this = s;
  return append(s.rep_->text_, s.rep_->size_);
}

}  // namespace Utils
