// SPDX-License-Identifier: MIT
// Comparison and assignment of views of ranges. No text is copied.
#include "utils/sdk/text/substring.h"

#include <algorithm>
#include <cstring>

#include "utils/sdk/platform.h"

namespace Utils {

// --- SubStringRep ---

int SubStringRep::operator==(const char* text) const {
  return strnlen(text, size_) == size_ && text[size_] == '\0' &&
         std::memcmp(this->text(), text, size_) == 0;
}

int SubStringRep::operator==(const String& s) const {
  return s.size() == size_ && std::strncmp(text(), s, size_) == 0;
}

int SubStringRep::compare(const char* text) const {
  return std::strncmp(text, this->text(), size_);
}

int SubStringRep::icompare(const char* text) const {
  return YfCompareIgnoringCase(text, this->text(), size_);
}

// --- SubString ---

SubString& SubString::operator=(const String& s) {
  const SubString view(s);
  return view.rep_ ? *this = view : *this;
}

SubString& SubString::operator=(const SubString& s) {
  SubStringRep* rep = s.rep_;
  if (rep) rep->incRef();
  purge();
  rep_ = rep;
  return *this;
}

int SubString::operator==(const SubString& s) const {
  if (rep_ == s.rep_) return 1;
  return size() == s.size() && std::strncmp(text(), s.text(), size()) == 0;
}

int SubString::operator==(const char* text) const { return rep_ ? *rep_ == text : *text == '\0'; }

int SubString::operator==(const String& s) const { return rep_ ? *rep_ == s : s.size() == 0; }

namespace {

using Comparison = int(const char*, const char*, std::size_t);

// Compares at most sizeOfB characters. A shorter `a` counts as a text that ends there: it is less
// than b unless b has a NUL by then.
int compareRanges(Comparison* comparison, const char* a, unsigned sizeOfA, const char* b,
                  unsigned sizeOfB) {
  const unsigned n = std::min(sizeOfA, sizeOfB);
  const int result = comparison(a, b, n);
  if (result != 0 || sizeOfB == n) return result;
  return strnlen(b, n + 1) > n ? -1 : 0;
}

}  // namespace

int SubString::compare(const SubString& s) const {
  return compareRanges(std::strncmp, s.text(), s.size(), text(), size());
}

int SubString::icompare(const SubString& s) const {
  return compareRanges(YfCompareIgnoringCase, s.text(), s.size(), text(), size());
}

}  // namespace Utils
