// SPDX-License-Identifier: MIT
// The operations of String: each finds the representation to work on and leaves the work on the
// text to StringRep.
//
// A change runs on a representation that nobody shares, the string's own or a copy. The string
// adopts the copy when the change has succeeded, so a change that fails leaves the string
// unchanged, and a source that lies in the shared text remains valid.
#include "utils/sdk/string.h"

#include <algorithm>
#include <cstdio>

#include "utils/sdk/base/load_order.h"
#include "utils/sdk/platform.h"

namespace Utils {

// --- The string without a representation ---

constinit Immortal<String> String::null_;

namespace {

// Releases at unload a text that a program has assigned to null_. The string itself remains.
struct NullText {
  ~NullText() { const_cast<String&>(String::null()) = String(); }
};

[[gnu::init_priority(LOADED_NULL_STRING)]] NullText _nullText;

}  // namespace

const String& String::null() { return null_; }

// --- Construction and sharing ---

String::String(char c, unsigned count) : rep_(StringRep::create()) {
  if (!rep_ || count == 0) return;
  if (rep_->resizeFor(count)) {
    std::memset(rep_->text_, c, count);
    rep_->finish(count);
  } else {
    purge();
  }
}

String::String(std::string_view text) : rep_(nullptr) {
  const std::size_t size = std::min<std::size_t>(text.size(), StringRep::SIZE_LIMIT);
  rep_ = StringRep::create(text.data(), static_cast<unsigned>(size));
}

String::String(const SubString& s) : rep_(nullptr) {
  if (s.rep_ && s.rep_->string_.rep_) rep_ = StringRep::create(s.text(), s.size());
}

String::String(const String& s, unsigned count) : rep_(nullptr) {
  if (s.rep_) rep_ = StringRep::create(s, std::min(count, s.size()));
}

// Runs the step on a representation that nobody shares; a new one if the string has none. If the
// step returns false, which means that it has changed nothing, the string is unchanged as well.
template <class Step>
String& String::change(Step step) {
  StringRep* own = rep_ ? rep_->unshare() : StringRep::create();
  if (!own) return *this;
  if (step(*own)) {
    rep_ = own;
  } else if (own != rep_) {
    if (rep_) rep_->incRef();
    StringRep::destroy(own);
  }
  return *this;
}

// --- Comparison ---

int compareText(const char* a, std::string_view b) {
  const std::size_t size = std::min(b.find('\0'), b.size());
  const int result = size == 0 ? 0 : std::strncmp(a, b.data(), size);
  return result == 0 && a[size] != '\0' ? 1 : result;
}

int String::icompare(const String& s) const {
  if (rep_ == s.rep_) return 0;
  if (rep_ && s.rep_) return icompare(static_cast<const char*>(s));
  return rep_ ? size() != 0 : -(s.size() != 0);
}

int String::icompare(const char* text) const {
  return rep_ ? YfCompareIgnoringCase(*this, text, std::size_t{size()} + 1) : -1;
}

bool String::startsWith(const String& s) const {
  if (!s.rep_) return true;
  return rep_ && std::strncmp(*this, s, s.size()) == 0;
}

bool String::startsWith(const char* text) const {
  return std::strncmp(*this, text, std::strlen(text)) == 0;
}

// --- Appending ---

namespace {

// Longer than the digits of any double.
constexpr unsigned NUMBER_SIZE = 384;

template <class Number>
String& appendNumber(String& s, const char* format, Number number) {
  char text[NUMBER_SIZE];
  std::snprintf(text, sizeof text, format, number);
  return s += text;
}

}  // namespace

String& String::operator+=(long i) { return appendNumber(*this, "%ld", i); }

String& String::operator+=(unsigned long i) { return appendNumber(*this, "%lu", i); }

String& String::operator+=(long long i) {
  if constexpr (sizeof(long) == sizeof i) {
    return *this += static_cast<long>(i);
  } else {
    return appendNumber(*this, "%lld", i);
  }
}

String& String::operator+=(unsigned long long i) {
  if constexpr (sizeof(long) == sizeof i) {
    return *this += static_cast<unsigned long>(i);
  } else {
    return appendNumber(*this, "%llu", i);
  }
}

String& String::operator+=(double d) { return appendNumber(*this, "%f", d); }

String& String::appendAnew(const char* text, unsigned count) {
  if (!rep_) return takeOver(String(text, count));
  return change([=](StringRep& rep) { return rep.append(text, count); });
}

String& String::appendNull() {
  return change([](StringRep&) { return true; });
}

// One allocation for both texts: replace() puts b at its place, with blanks before it, and a over
// the blanks.
String String::joined(const char* a, unsigned sizeOfA, const char* b, unsigned sizeOfB) {
  String result;
  result.rep_ = StringRep::create();
  if (result.rep_ && !result.rep_->replace(b, sizeOfB, 0, sizeOfA)) result.purge();
  if (result.rep_) result.rep_->replace(a, sizeOfA, 0, 0);
  return result;
}

String operator+(const String& a, const String& b) {
  if (!b.rep_) return a;
  return a.rep_ ? String::joined(a, a.size(), b, b.size()) : b;
}

String operator+(const String& a, const char* b) {
  return String::joined(a, a.size(), b, String::lengthOf(b));
}

String operator+(const char* a, const String& b) {
  return String::joined(a, String::lengthOf(a), b, b.size());
}

// --- Element access ---

void String::set(unsigned index, char c) {
  if (index >= size()) {
    change([=](StringRep& rep) { return rep.replace(&c, 1, 0, index); });
  } else if (StringRep* own = rep_->unshare()) {
    rep_ = own;
    own->text_[index] = c;
  }
}

// --- Searching ---

unsigned String::nthIndex(unsigned n, char c) const {
  return rep_ ? rep_->nthIndex(n, c) : StringRep::NOT_FOUND;
}

unsigned String::indexChar(const char* set, unsigned from) const {
  return rep_ ? rep_->indexChar(set, from) : StringRep::NOT_FOUND;
}

unsigned String::rindexChar(const char* set, unsigned from) const {
  return rep_ ? rep_->rindexChar(set, from) : StringRep::NOT_FOUND;
}

unsigned String::rindex(char c) const { return rep_ ? rep_->rindex(c) : StringRep::NOT_FOUND; }

bool String::tokSpan(const char* delimiters, unsigned from, unsigned& start, unsigned& end) const {
  return rep_ && rep_->tokSpan(delimiters, from, start, end);
}

// --- Editing ---

String& String::replace(const char* text, unsigned count, unsigned from, unsigned at) {
  return change([=](StringRep& rep) { return rep.replace(text, count, from, at); });
}

String& String::replace(const String& s, unsigned count, unsigned from, unsigned at) {
  return replace(static_cast<const char*>(s), count, from, at);
}

String& String::insert(const char* text, unsigned count, unsigned from, unsigned at) {
  return change([=](StringRep& rep) { return rep.insert(text, count, from, at); });
}

String& String::insert(const String& s, unsigned count, unsigned from, unsigned at) {
  return insert(static_cast<const char*>(s), count, from, at);
}

String& String::remove(unsigned from, unsigned count) {
  return change([=](StringRep& rep) {
    rep.remove(from, count);
    return true;
  });
}

String String::substitute(const char* search, const char* with) {
  if (!rep_) return String();
  String result(static_cast<const char*>(*this));
  if (result.rep_ && !result.rep_->substitute(search, with)) return String();
  return result;
}

String String::reverse() {
  String result;
  if (size() == 0) return result;
  result.rep_ = StringRep::create(rep_->text_, size());
  if (result.rep_) std::reverse(result.rep_->text_, result.rep_->text_ + size());
  return result;
}

String& String::toUpper() {
  if (!rep_) return *this;
  return change([](StringRep& rep) {
    rep.toUpper();
    return true;
  });
}

String& String::toLower() {
  if (!rep_) return *this;
  return change([](StringRep& rep) {
    rep.toLower();
    return true;
  });
}

String& String::rotateLeft(unsigned n) {
  if (!rep_) return *this;
  return change([=](StringRep& rep) {
    rep.rotateLeft(n);
    return true;
  });
}

String& String::trim() {
  if (!rep_) return *this;
  return change([](StringRep& rep) {
    rep.trim();
    return true;
  });
}

// --- Buffer and size ---

void String::expandTo(unsigned n) {
  change([=](StringRep& rep) { return rep.expandTo(n) != 0; });
}

void String::resizeFor(unsigned n) {
  change([=](StringRep& rep) { return rep.resizeFor(n); });
}

char* String::donate() {
  StringRep* own = rep_ ? rep_->unshare() : nullptr;
  if (!own) return nullptr;
  rep_ = nullptr;
  if (own->size() == 0) own->resizeFor(0);
  return StringRep::donateAndDestroy(own);
}

void String::consume(char* text) {
  if (lengthOf(text) == StringRep::SIZE_LIMIT) return;
  StringRep* fresh = StringRep::create();
  if (!fresh) return;
  fresh->consume(text);
  purge();
  rep_ = fresh;
}

}  // namespace Utils
