// SPDX-License-Identifier: MIT
// Strings beside a model that follows the steps one by one, with every byte of string memory
// accounted for; what the model cannot see; and memory that runs out.
#include "utils/sdk/string.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cfloat>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "gmock/gmock.h"
#include "support/nth_failure.h"
#include "support/seed.h"
#include "utils/testing/failing_allocator.h"

namespace {

using Utils::Allocator;
using Utils::String;
using Utils::StringRep;
using Utils::SubString;
using Utils::YfTotalStringMemory;
using Utils::Testing::FailingAllocator;

constexpr unsigned NOT_FOUND = 0xffffffffu;
constexpr unsigned REP = sizeof(StringRep);

std::string textOf(const String& s) { return std::string(s.begin(), s.end()); }
unsigned sizeOf(const std::string& s) { return static_cast<unsigned>(s.size()); }
unsigned positionOf(std::size_t i) {
  return i == std::string::npos ? NOT_FOUND : static_cast<unsigned>(i);
}
int signOf(int value) { return (value > 0) - (value < 0); }

// What the operations do to a text, a capacity and its holders.
struct Model {
  struct Rep {
    std::string text_;
    unsigned capacity_ = 0;

    static unsigned classOf(unsigned n) {
      unsigned size = 16;
      while (size <= n) size *= 2;
      return size;
    }
    unsigned size() const { return sizeOf(text_); }
    void resizeFor(unsigned n) {
      if (n == 0) {
        text_.clear();
        capacity_ = 0;
      } else if (capacity_ != classOf(n)) {
        if (n < size()) text_.resize(n);
        capacity_ = classOf(n);
      }
    }
    void append(const std::string& source) {
      resizeFor(size() + sizeOf(source));
      text_ += source;
    }
    void expandTo(unsigned n) {
      if (size() >= n) return;
      resizeFor(n);
      text_.resize(n, ' ');
    }
    void replace(const std::string& source, unsigned at) {
      if (at >= size()) {
        expandTo(at);
        append(source);
      } else if (at + source.size() > size()) {
        const unsigned fits = size() - at;
        text_.replace(at, fits, source, 0, fits);
        append(source.substr(fits));
      } else {
        text_.replace(at, source.size(), source);
      }
    }
    void insert(const std::string& source, unsigned at) {
      if (at > size()) {
        expandTo(at + sizeOf(source));
        replace(source, at);
      } else {
        resizeFor(size() + sizeOf(source));
        text_.insert(at, source);
      }
    }
    void substitute(const std::string& search, const std::string& with) {
      std::size_t at = 0;
      while ((at = text_.find(search, at)) != std::string::npos && at < text_.find('\0')) {
        if (with.size() > search.size()) resizeFor(size() + sizeOf(with) - sizeOf(search));
        text_.replace(at, search.size(), with);
        at += with.size();
      }
    }
    void remove(unsigned at, unsigned count) {
      if (at < size()) text_.erase(at, count);
    }
    void rotate(unsigned n) {
      if (size() != 0) std::rotate(text_.begin(), text_.begin() + n % size(), text_.end());
    }
    void trim() {
      const char* const spaces = " \t\n\v\f\r";
      const std::size_t first = text_.find_first_not_of(spaces);
      if (text_.empty()) return;
      if (first == std::string::npos) return resizeFor(0);
      text_ = text_.substr(first, text_.find_last_not_of(spaces) - first + 1);
    }
  };

  static Model of(const std::string& text) {
    Model m;
    m.rep_ = std::make_shared<Rep>();
    m.rep_->append(text);
    return m;
  }
  // The representation that an operation changes.
  Rep& own() {
    if (!rep_) {
      rep_ = std::make_shared<Rep>();
    } else if (rep_.use_count() > 1) {
      *this = of(rep_->text_);
    }
    return *rep_;
  }
  std::string text() const { return rep_ ? rep_->text_ : std::string(); }
  std::string zeroTerminated() const { return text().c_str(); }
  unsigned size() const { return sizeOf(text()); }
  std::string range(unsigned from, unsigned count) const {
    return from < size() ? text().substr(from, count) : "";
  }
  Model part(unsigned from, unsigned count) const {
    return rep_ ? of(range(from, count)) : Model();
  }

  std::shared_ptr<Rep> rep_;
};

// --- The differential run ---

struct StringRun {
  static constexpr unsigned STRINGS = 6;
  static constexpr unsigned VIEWS = 3;

  struct View {
    SubString view_;
    Model model_;
    unsigned index_;
    std::string text_;
  };

  // The count_ bytes at text_ + from_: foreign ones, or some of one of the strings.
  struct Source {
    const char* text_;
    unsigned from_;
    unsigned count_;
    std::string bytes_;
    std::string rest_;  // to the next NUL of the text

    const char* start() const { return text_ ? text_ + from_ : nullptr; }
  };

  explicit StringRun(unsigned seed) : random_(seed), before_(YfTotalStringMemory()) {
    for (unsigned i = 0; i < VIEWS; i++) views_.push_back({SubString(strings_[0]), {}, 0, ""});
  }

  void run(unsigned steps) {
    for (unsigned step = 0; step < steps && !testing::Test::HasFailure(); step++) {
      SCOPED_TRACE("step " + std::to_string(step));
      i_ = random_.below(STRINGS);
      j_ = random_.below(STRINGS);
      if (m().size() > 3000) trade();
      source_ = someSource(random_.below(2) == 0 ? i_ : j_);
      at_ = random_.below(m().size() * 5 / 4 + 3);
      c_ = someCharacter();
      doSomething();
      compare();
      ask();
    }
  }

  String& s() { return strings_[i_]; }
  Model& m() { return models_[i_]; }
  String& other() { return strings_[j_]; }
  Model& otherModel() { return models_[j_]; }

  // Most often small; else around the ends of a class and of what lies in one block.
  unsigned someSize() {
    const unsigned sizes[] = {14 + random_.below(4), 250 + random_.below(12), random_.below(1200)};
    const unsigned kind = random_.below(6);
    return kind < 3 ? sizes[kind] : random_.below(40);
  }
  char someCharacter() { return "aab \tBz.\0"[random_.below(9)]; }
  std::string someText(unsigned size) {
    std::string text(size, ' ');
    for (char& c : text) c = someCharacter();
    return text;
  }
  std::string plainText(unsigned most) { return someText(random_.below(most + 1)).c_str(); }

  Source someSource(unsigned i) {
    const std::string text = models_[i].text();
    if (random_.below(8) == 0) return {nullptr, random_.below(9), random_.below(9), "", ""};
    if (random_.below(2) == 0 || text.empty()) {
      foreign_ = someText(someSize());
      const unsigned from = random_.below(sizeOf(foreign_) + 1);
      const std::string rest = foreign_.substr(from);
      return {foreign_.data(), from, sizeOf(rest), rest, rest.c_str()};
    }
    const unsigned start = random_.below(sizeOf(text));
    const unsigned from = random_.below(sizeOf(text) - start + 1);
    const unsigned count = random_.below(sizeOf(text) - start - from + 1);
    const std::string rest = text.substr(start + from);
    return {strings_[i].textAt(start), from, count, rest.substr(0, count), rest.c_str()};
  }

  // --- Operations: each on a string and its model ---

  // What the string has become is `model`.
  void now(const String&, const Model& model) { m() = model; }
  // What the string has been through is still to be done to what this gives.
  Model::Rep& after(const String&) { return m().own(); }
  std::string character() const { return std::string(1, c_); }

  void assign() { now(s() = other(), otherModel()); }
  void assignText() { now(s() = source_.start(), Model::of(source_.rest_)); }
  void assignCharacter() { now(s() = c_, Model::of(character())); }
  void assignNone() { now(s() = String(), Model()); }
  void make() { now(s() = String(source_.start(), source_.count_), Model::of(source_.bytes_)); }
  void fill() { now(s() = String(c_, source_.count_), Model::of(std::string(source_.count_, c_))); }
  void takeBeginning() { now(s() = String(other(), at_), otherModel().part(0, at_)); }
  void takeRange() {
    now(s() = other()(at_, source_.count_), otherModel().part(at_, source_.count_));
  }
  void append() { after(s().append(source_.start(), source_.count_)).append(source_.bytes_); }
  void appendText() {
    Model::Rep& rep = after(s() += source_.start());
    if (source_.text_) rep.append(source_.rest_);
  }
  void appendString() {
    s() += other();
    if (!otherModel().rep_) return;
    if (!m().rep_) return static_cast<void>(m() = otherModel());
    m().own().append(otherModel().text());
  }
  void appendCharacters() {
    for (unsigned i = random_.below(20); i > 0; i--) after(s() += c_).append(character());
  }
  void appendNumber() {
    const int number = static_cast<int>(random_.engine_());
    after(s() += number).append(std::to_string(number));
  }
  void join() {
    const Model both = Model::of(m().text() + otherModel().text());
    now(s() = s() + other(), !m().rep_ ? otherModel() : otherModel().rep_ ? both : m());
  }
  void joinTexts() {
    const std::string text = otherModel().text();
    if (random_.below(2) == 0) {
      now(s() = source_.start() + other(), Model::of(source_.rest_ + text));
    } else {
      now(s() = other() + source_.start(), Model::of(text + source_.rest_));
    }
  }
  void replace() {
    after(s().replace(source_.text_, source_.count_, source_.from_, at_))
        .replace(source_.bytes_, at_);
  }
  void insert() {
    after(s().insert(source_.text_, source_.count_, source_.from_, at_))
        .insert(source_.bytes_, at_);
  }
  void copyFromString() {
    const unsigned from = random_.below(otherModel().size() + 1);
    const std::string text = otherModel().text().substr(from);
    if (random_.below(2) == 0) {
      after(s().insert(other(), sizeOf(text), from, at_)).insert(text, at_);
    } else {
      after(s().replace(other(), sizeOf(text), from, at_)).replace(text, at_);
    }
  }
  void insertCharacter() {
    s().insert(c_, static_cast<int>(at_));
    m().own().insert(character(), at_);
  }
  void remove() {
    const unsigned count = random_.below(4) == 0 ? NOT_FOUND : random_.below(20);
    after(s().remove(at_, count)).remove(at_, count);
  }
  void truncate() { after(s().truncate(at_)).remove(at_, NOT_FOUND); }
  void substitute() {
    const std::string search = plainText(2), with = plainText(4);
    const std::string text = otherModel().zeroTerminated();
    s() = other().substitute(search.c_str(), with.c_str());
    m() = otherModel().rep_ ? Model::of(text) : Model();
    if (m().rep_ && !search.empty()) m().rep_->substitute(search, with);
  }
  void reverse() {
    const std::string text = otherModel().text();
    const Model reversed = Model::of(std::string(text.rbegin(), text.rend()));
    now(s() = other().reverse(), text.empty() ? Model() : reversed);
  }
  void changeCase() {
    const bool upper = random_.below(2) == 0;
    const String& result = upper ? s().toUpper() : s().toLower();
    EXPECT_EQ(&result, &s());
    if (!m().rep_) return;
    for (char& c : m().own().text_)
      c = static_cast<char>(upper ? std::toupper(c) : std::tolower(c));
  }
  void rotate() {
    s().rotateLeft(at_);
    if (m().rep_) m().own().rotate(at_);
  }
  void trim() {
    s().trim();
    if (m().rep_) m().own().trim();
  }
  void expand() {
    s().expandTo(at_);
    m().own().expandTo(at_);
  }
  void resize() {
    const unsigned n = random_.below(3) == 0 ? m().size() : random_.below(4) * at_ / 2;
    s().resizeFor(n);
    m().own().resizeFor(n);
  }
  void writeInto() { after(s()[at_] = c_).replace(character(), at_); }
  void writeFromOther() {
    const std::string text = otherModel().range(at_, 1);
    after(s()[0] = other()[at_]).replace(text.empty() ? std::string(1, '\0') : text, 0);
  }
  // The buffer of one string becomes that of another.
  void trade() {
    const std::string text = m().text();
    char* const buffer = s().donate();
    ASSERT_EQ(buffer == nullptr, !m().rep_);
    ASSERT_EQ(s().textAt(0), nullptr);
    m() = Model();
    other().consume(buffer);
    const bool adopted = !text.empty() && text[0] != '\0';
    otherModel() = Model::of(adopted ? text.c_str() : "");
    if (adopted) otherModel().rep_->capacity_ = otherModel().size() + 1;
    if (!adopted && !text.empty()) Allocator::theAllocator()->free(buffer);
  }
  void form() {
    View& v = views_[random_.below(VIEWS)];
    v.view_ = s()(at_, source_.count_);
    v.model_ = m();
    v.index_ = at_ < m().size() ? at_ : 0;
    v.text_ = m().range(at_, source_.count_);
  }

  void doSomething() {
    using S = StringRun;
    doOneOf(&S::assign, &S::assign, &S::assignText, &S::assignCharacter, &S::assignNone, &S::make,
            &S::fill, &S::takeBeginning, &S::takeRange, &S::append, &S::append, &S::appendString,
            &S::appendText, &S::appendCharacters, &S::appendNumber, &S::join, &S::joinTexts,
            &S::replace, &S::replace, &S::insert, &S::insert, &S::insert, &S::copyFromString,
            &S::copyFromString, &S::insertCharacter, &S::remove, &S::remove, &S::truncate,
            &S::substitute, &S::reverse, &S::changeCase, &S::rotate, &S::trim, &S::expand,
            &S::resize, &S::writeInto, &S::writeFromOther, &S::trade, &S::form);
  }
  template <class... Steps>
  void doOneOf(Steps... steps) {
    void (StringRun::*const all[])() = {steps...};
    (this->*all[random_.below(sizeof...(steps))])();
  }

  // --- Comparison with the models ---

  // Holders are those of the representation: texts without a buffer all show the same empty text.
  void compare() {
    std::set<const Model::Rep*> reps;
    for (unsigned i = 0; i < STRINGS; i++) {
      const Model& model = models_[i];
      const String& string = strings_[i];
      ASSERT_EQ(textOf(string), model.text()) << "string " << i;
      ASSERT_EQ(*string.end(), '\0');
      ASSERT_EQ(string.textAt(0) == nullptr, !model.rep_);
      for (unsigned k = 0; k < i; k++) {
        if (!model.rep_ || model.rep_->capacity_ == 0) continue;
        ASSERT_EQ(string.textAt(0) == strings_[k].textAt(0), model.rep_ == models_[k].rep_);
      }
      reps.insert(model.rep_.get());
    }
    for (const View& v : views_) {
      ASSERT_EQ(v.view_.index(), v.index_);
      ASSERT_EQ(v.view_.size(), v.text_.size());
      ASSERT_EQ(textOf(String(v.view_)), v.text_);
      reps.insert(v.model_.rep_.get());
    }
    unsigned total = 0;
    for (const Model::Rep* rep : reps) total += rep ? REP + rep->capacity_ : 0;
    ASSERT_EQ(YfTotalStringMemory() - before_, total);
  }

  // --- Questions, answered from the text alone ---

  void ask() {
    askForPositions(s(), m().text(), someSize(), plainText(3));
    askForOrder();
    askForTokens(s(), m().text(), plainText(3));
    askViews(views_[0], views_[1]);
  }

  void askForPositions(const String& string, const std::string& text, unsigned from,
                       const std::string& set) {
    const char* const first = text.c_str();
    const char* const rest = from < text.size() ? first + from : nullptr;
    const auto at = [&](const char* found) {
      return found ? static_cast<unsigned>(found - first) : NOT_FOUND;
    };
    EXPECT_EQ(string.index(c_, from), at(rest ? std::strchr(rest, c_) : nullptr));
    EXPECT_EQ(string.index(set.c_str(), from), at(rest ? std::strstr(rest, set.c_str()) : nullptr));
    EXPECT_EQ(string.index(c_), at(c_ ? std::strchr(first, c_) : nullptr));
    EXPECT_EQ(string.rindex(c_), at(string.textAt(0) ? std::strrchr(first, c_) : nullptr));
    const char* third = c_ ? std::strchr(first, c_) : nullptr;
    for (int n = 1; n < 3 && third; n++) third = std::strchr(third + 1, c_);
    EXPECT_EQ(string.nthIndex(3, c_), at(third));
    const std::string members = set + '\0';
    EXPECT_EQ(string.indexChar(set.c_str(), from), positionOf(text.find_first_of(members, from)));
    EXPECT_EQ(string.rindexChar(set.c_str(), from), positionOf(text.find_last_of(members, from)));
    EXPECT_EQ(string.rindexChar(set.c_str(), NOT_FOUND), positionOf(text.find_last_of(members)));
    EXPECT_EQ(string[from], rest ? *rest : '\0');
    EXPECT_EQ(string.startsWith(set.c_str()), std::strncmp(first, set.c_str(), set.size()) == 0);
  }

  void askForOrder() {
    const std::string a = m().text().c_str();
    const std::string b = otherModel().text().c_str();
    int sign = signOf(a.compare(b));
    if (!m().rep_ && otherModel().size() != 0) sign = -1;
    if (!otherModel().rep_ && m().size() != 0) sign = 1;
    EXPECT_EQ(signOf(s().compare(other())), sign);
    EXPECT_EQ(s() == other(), sign == 0);
    EXPECT_EQ(s() != other(), sign != 0);
    EXPECT_EQ(s() < other(), sign < 0);
    EXPECT_EQ(s() <= other(), sign <= 0);
    EXPECT_EQ(s() > other(), sign > 0);
    EXPECT_EQ(s() >= other(), sign >= 0);
    EXPECT_EQ(b.c_str() == s(), a == b);
    EXPECT_EQ(b.c_str() < s(), b < a);
    EXPECT_EQ(s() >= b.c_str(), a >= b);
  }

  void askForTokens(const String& string, const std::string& text, const std::string& set) {
    const std::string delimiters = set + '\0';
    unsigned start = 7, end = 0, last = start;
    std::size_t at = 0;
    for (; string.tokSpan(set.c_str(), end, start, end); last = start) {
      at = text.find_first_not_of(delimiters, at);
      ASSERT_EQ(start, at);
      at = std::min(text.find_first_of(delimiters, at), text.size());
      ASSERT_EQ(end, at);
    }
    EXPECT_EQ(text.find_first_not_of(delimiters, at), std::string::npos);
    EXPECT_EQ(start, end < text.size() ? text.size() : last);
  }

  void askViews(const View& a, const View& b) {
    const int sign = std::strncmp(b.text_.c_str(), a.text_.c_str(), a.text_.size());
    EXPECT_EQ(signOf(a.view_.compare(b.view_)), signOf(sign));
    EXPECT_EQ(signOf(a.view_.compare(b.text_.c_str())), signOf(sign));
    EXPECT_EQ(a.view_ == b.text_.c_str(), a.text_ == b.text_.c_str());
    const bool equal = a.text_.size() == b.text_.size() && sign == 0;
    EXPECT_EQ(a.view_ == b.view_, equal);
    EXPECT_EQ(a.view_ != String(b.view_), !equal);
    EXPECT_EQ(String(b.view_) == a.view_, equal);
  }

  Random random_;
  unsigned before_;
  String strings_[STRINGS];
  Model models_[STRINGS];
  std::vector<View> views_;
  std::string foreign_;
  unsigned i_ = 0, j_ = 0, at_ = 0;
  Source source_ = {};
  char c_ = ' ';
};

TEST(String, BehavesAsItsModel) {
  const unsigned total = YfTotalStringMemory();
  const unsigned held = Allocator::theAllocator()->allocatedMemory();
  StringRun(20240301).run(20000);
  EXPECT_EQ(YfTotalStringMemory(), total);
  EXPECT_EQ(Allocator::theAllocator()->allocatedMemory(), held);
}

// --- What the model does not see ---

TEST(String, ReadsWithoutTakingMemory) {
  String s("some text");
  const String shared(s);
  const unsigned total = YfTotalStringMemory();
  std::string read;
  for (unsigned i = 0; i < 12; i++) read += s[i];
  EXPECT_EQ(read, "some text" + std::string(3, '\0'));
  EXPECT_EQ(s.textAt(0), shared.textAt(0));
  EXPECT_EQ(YfTotalStringMemory(), total);
  EXPECT_EQ('c' + (s[5] + s + s[5]) + 'c', "ctsome texttc");
  EXPECT_EQ(s[5] + 1, 'u');
}

template <class Integer>
void indexBy(Integer past) {  // a position that no text reaches
  String s("abc");
  const String& reader = s;
  s[Integer{1}] = 'B';
  s[past] = 'x';
  EXPECT_STREQ(s, "aBc");
  EXPECT_TRUE(s[Integer{1}] == 'B' && reader[Integer{1}] == 'B');
  EXPECT_TRUE(reader[Integer{3}] == '\0' && reader[past] == '\0');
}

TEST(String, IsIndexedByAnyInteger) {
  const auto byEach = [](auto... past) { (indexBy(past), ...); };
  byEach(-1, NOT_FOUND, -1L, ~0ul, -1LL, ~0ull, 0x100000000LL, short{-1},
         static_cast<signed char>(-1));
}

TEST(String, ConvertsNumbersAndViews) {
  EXPECT_STREQ(String(-2147483647 - 1), "-2147483648");
  EXPECT_STREQ(String(1.5f), "1.500000");
  EXPECT_STREQ(String() += ~0ul, std::to_string(~0ul).c_str());
  EXPECT_STREQ(String() += 4000000000u, "4000000000");
  EXPECT_EQ(std::string(String(-DBL_MAX)), std::to_string(-DBL_MAX));
  String s("old");
  EXPECT_STREQ(s = 2.0, "2.000000");
  const std::string_view view("a\0b", 3);
  EXPECT_EQ(std::string_view(String(view)), view);
}

TEST(String, HasThreeFormsOfEmptiness) {
  const String none, empty("");
  String buffered("text");
  buffered.truncate(0);
  EXPECT_TRUE(none == empty && none == buffered && none == "");
  EXPECT_EQ(none.icompare(""), -1);
  EXPECT_EQ(none.icompare(empty), 0);
  EXPECT_EQ(empty.icompare(none), 0);
  EXPECT_EQ(none.nthIndex(0, 'a'), NOT_FOUND);
  EXPECT_EQ(empty.nthIndex(0, 'a'), 0u);
  EXPECT_TRUE(empty.startsWith(none) && !none.startsWith(empty));
  EXPECT_GT(String("B").icompare(String("a")), 0);
  EXPECT_EQ(String("ABC").icompare("abc"), 0);
}

TEST(SubString, ComparesInTheOtherDirection) {
  String s("xabyAB");
  const SubString ab = s(1, 2);
  EXPECT_GT(ab.compare("ac"), 0);
  EXPECT_LT(ab.compare(String()), 0);
  EXPECT_EQ(s(4).icompare("abx"), 0);
  EXPECT_EQ(s(4).icompare(ab), 0);
  EXPECT_LT(s(4).icompare(s(1, 1)), 0);
  EXPECT_TRUE(ab == "ab" && ab != "abc" && s(0, 0) == "");
  EXPECT_EQ(s(2, NOT_FOUND).size(), 4u);
  const String holdsNul("a\0b", 3);
  EXPECT_EQ(SubString(holdsNul) == "a\0b", 0) << "the text ends where the range goes on";
}

TEST(SubString, OutlivesTheString) {
  SubString view{String("gone")};
  EXPECT_EQ(view == "gone", 1);
  String s("other");
  view = s;
  s = "changed";
  const SubString& same = view;
  view = same;
  EXPECT_EQ(view == "other", 1);
}

TEST(String, RefusesLengthsThatDoNotFit) {
  constexpr unsigned LIMIT = 0x80000000u;
  String s("text");
  const unsigned total = YfTotalStringMemory();
  for (const unsigned n : {33554432u, LIMIT + 1, NOT_FOUND - 3, NOT_FOUND}) {
    s.resizeFor(n);
    s.expandTo(n);
    s.append("x", n);
    s.insert("x", n, 0, 1);
    s.replace("x", n, 0, 1);
    s.replace("x", 1, 0, n);
    s.insert('x', static_cast<int>(n));
    EXPECT_STREQ(s, "text");
    EXPECT_EQ(String("x", n).textAt(0), nullptr);
    EXPECT_EQ(String('x', n).textAt(0), nullptr);
    EXPECT_EQ(s.rindexChar("t", n), n >= LIMIT && n != NOT_FOUND ? NOT_FOUND : 3u);
  }
  EXPECT_EQ(YfTotalStringMemory(), total);
  s.expandTo(33554431);
  EXPECT_EQ(s.size(), 33554431u);
}

// The operations that a String hides run on representations outside of strings too.
struct OpenRep : StringRep {
  using StringRep::operator=;
  using StringRep::consume;
  using StringRep::create;
  using StringRep::destroy;
  using StringRep::donate;
  using StringRep::resizeFor;
  using StringRep::size;
  using StringRep::text;
  OpenRep(const char* text, unsigned from, unsigned count) : StringRep(text, from, count) {}
  bool appendItself() { return append(this); }
};

TEST(StringRep, StandsAlone) {
  const unsigned total = YfTotalStringMemory();
  const unsigned held = Allocator::theAllocator()->allocatedMemory();
  {
    OpenRep rep("0123456789", 2u, 5u);
    rep.resizeFor(3);
    EXPECT_STREQ(rep.text(), "23456") << "nothing is cut within a class";
    rep = rep.text() + 1;
    EXPECT_TRUE(rep.appendItself());
    EXPECT_STREQ(rep.text(), "34563456");
    EXPECT_EQ(YfTotalStringMemory() - total, 16u);
    char* text = rep.donate();
    EXPECT_EQ(YfTotalStringMemory(), total);
    rep.consume(text);
    EXPECT_EQ(YfTotalStringMemory() - total, 9u);
    rep = 'c';
    EXPECT_EQ(YfTotalStringMemory() - total, 16u);
    OpenRep* inOneBlock = static_cast<OpenRep*>(OpenRep::create("short", 5));
    char* const buffer = inOneBlock->donate();
    OpenRep::destroy(inOneBlock);
    EXPECT_STREQ(buffer, "short");
    Allocator::theAllocator()->free(buffer);
  }
  EXPECT_EQ(YfTotalStringMemory(), total);
  EXPECT_EQ(Allocator::theAllocator()->allocatedMemory(), held);
}

// --- Memory that runs out ---

// A string in one of the states that matter, with a sharer where it has one.
struct Subject {
  explicit Subject(unsigned state) {
    if (state > 0) string_ = state < 4 ? "a text of some 30 characters  " : "";
    if (state == 2) sharer_ = string_;
    if (state == 3) string_.consume(String("adopted").donate());
    if (state == 4) string_ = std::string(300, 'x').c_str();
  }
  String string_;
  String sharer_;
};

using Change = std::function<void(String&)>;
const std::string _long(1000, 'y');
const Change CHANGES[] = {
    [](String& s) { s = "another text of more than 30 characters"; },
    [](String& s) { s = 'c'; },
    [](String& s) { s += "tail"; },
    [](String& s) { s += 'c'; },
    [](String& s) { s += s; },
    [](String& s) { s += static_cast<const char*>(nullptr); },
    [](String& s) { s.append(_long.data(), 1000); },
    [](String& s) { s.replace(_long.data(), 500, 100, 2); },
    [](String& s) { s.insert(_long.data(), 900, 0, 1); },
    [](String& s) { s.insert(_long.data(), 3, 0, 200); },
    [](String& s) { s.remove(0, 2); },
    [](String& s) { s.toUpper(); },
    [](String& s) { s.rotateLeft(3); },
    [](String& s) { s.trim(); },
    [](String& s) { s.expandTo(400); },
    [](String& s) { s.resizeFor(3000); },
    [](String& s) { s.resizeFor(2); },
    [](String& s) { s[1] = 'c'; },
    [](String& s) { s[700] = 'c'; },
    [](String& s) { Allocator::theAllocator()->free(s.size() ? s.donate() : nullptr); },
};

TEST(Exhaustion, LeavesTheStringAsItWas) {
  FailingAllocator allocator;
  const unsigned held = Allocator::theAllocator()->allocatedMemory();
  for (unsigned change = 0; change < std::size(CHANGES); change++) {
    for (unsigned state = 0; state < 5; state++) {
      SCOPED_TRACE("change " + std::to_string(change) + ", state " + std::to_string(state));
      failEveryNth(5, [&](unsigned n) {
        Subject subject(state);
        const std::string text = textOf(subject.string_);
        const char* place = subject.string_.textAt(0);
        const unsigned total = YfTotalStringMemory();
        allocator.failFrom(n);
        CHANGES[change](subject.string_);
        const bool failed = allocator.failed();
        allocator.failFrom(0);
        if (!failed) return true;
        EXPECT_EQ(textOf(subject.string_), text);
        EXPECT_EQ(subject.string_.textAt(0), place);
        EXPECT_EQ(YfTotalStringMemory(), total);
        return false;
      });
    }
  }
  EXPECT_EQ(Allocator::theAllocator()->allocatedMemory(), held);
}

TEST(Exhaustion, GivesNothingForWhatCannotBeMade) {
  FailingAllocator allocator;
  String s("aabbaabb");
  String other(_long.c_str());
  const unsigned total = YfTotalStringMemory();
  const std::function<String()> makers[] = {
      [] { return String(_long.c_str()); },
      [] { return String('c', 1000); },
      [&] { return s + other; },
      [&] { return other.substitute("y", "yyyy"); },
      [&] { return other.reverse(); },
  };
  for (const auto& make : makers) {
    for (const unsigned n : {1u, 2u}) {
      allocator.failFrom(n);
      EXPECT_EQ(make().textAt(0), nullptr);
    }
  }
  allocator.failFrom(0);
  EXPECT_EQ(YfTotalStringMemory(), total);
  SubString view = s(2, 2);
  allocator.failFrom(1);
  view = other;
  const SubString none = s(2, 2);
  char adoptee[] = "stays";
  s.consume(adoptee);
  EXPECT_EQ(none.size(), 0u);
  EXPECT_EQ(none == "", 1);
  EXPECT_EQ(String(none).textAt(0), nullptr);
  allocator.failFrom(0);
  EXPECT_EQ(view == "bb", 1) << "the view that was";
  EXPECT_STREQ(s, "aabbaabb");
}

// --- The end of the process ---

extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* library);

// Among the last of this program's own objects to go.
struct Leaves {
  ~Leaves() { const_cast<String&>(String::null()) = "left behind"; }
};
Leaves _leaves;

void lookAtTheEnd(void*) {
  const String copy(String::null());
  if (String::null().textAt(0) == nullptr && copy.size() == 0 && String("x") + copy == "x") return;
  std::fprintf(stderr, "String::null() does not survive the end of the process\n");
  _exit(3);
}

// What is registered before the libraries are there runs when they have ended.
void registerLast(int, char**, char**) { __cxa_atexit(lookAtTheEnd, nullptr, nullptr); }
[[gnu::section(".preinit_array"), gnu::used]] void (*_registerLast)(int, char**,
                                                                    char**) = registerLast;

}  // namespace
