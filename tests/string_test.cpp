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
#include "support/failing_allocator.h"
#include "support/nth_failure.h"
#include "support/seed.h"

namespace {

using Utils::Allocator;
using Utils::String;
using Utils::StringRep;
using Utils::SubString;
using Utils::YfTotalStringMemory;

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

  std::shared_ptr<Rep> rep_;
};

// --- The differential run ---

struct DifferentialRun {
  static constexpr unsigned STRINGS = 6;
  static constexpr unsigned VIEWS = 3;

  struct View {
    SubString view_;
    Model model_;
    unsigned index_;
    unsigned size_;
  };

  // The count_ bytes at text_ + from_: foreign ones, or some of one of the strings.
  struct Source {
    const char* text_;
    unsigned from_;
    unsigned count_;
    std::string bytes_;

    const char* start() const { return text_ + from_; }
  };

  explicit DifferentialRun(unsigned seed) : random_(seed), before_(YfTotalStringMemory()) {
    for (unsigned i = 0; i < VIEWS; i++) views_.push_back({SubString(strings_[0]), {}, 0, 0});
  }

  void run(unsigned steps) {
    for (unsigned step = 0; step < steps && !testing::Test::HasFailure(); step++) {
      const unsigned operation = random_.below(std::size(OPERATIONS));
      SCOPED_TRACE("step " + std::to_string(step) + ", operation " + std::to_string(operation));
      i_ = random_.below(STRINGS);
      j_ = random_.below(STRINGS);
      if (m().size() > 3000) trade();
      source_ = someSource(random_.below(2) == 0 ? i_ : j_);
      at_ = random_.below(m().size() * 5 / 4 + 3);
      c_ = someCharacter();
      (this->*OPERATIONS[operation])();
      compare();
      ask();
    }
  }

  String& s() { return strings_[i_]; }
  Model& m() { return models_[i_]; }
  String& other() { return strings_[j_]; }
  Model& otherModel() { return models_[j_]; }

  unsigned someSize() {
    switch (random_.below(6)) {
      case 0:
        return 14 + random_.below(4);
      case 1:
        return 250 + random_.below(12);
      case 2:
        return random_.below(1200);
      default:
        return random_.below(40);
    }
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
    if (random_.below(2) == 0 || text.empty()) {
      foreign_ = someText(someSize());
      const unsigned from = random_.below(sizeOf(foreign_) + 1);
      return {foreign_.data(), from, sizeOf(foreign_) - from, foreign_.substr(from)};
    }
    const unsigned start = random_.below(sizeOf(text));
    const unsigned from = random_.below(sizeOf(text) - start + 1);
    const unsigned count = random_.below(sizeOf(text) - start - from + 1);
    return {strings_[i].textAt(start), from, count, text.substr(start + from, count)};
  }

  // --- Operations: each on a string and its model ---

  void assign() {
    s() = other();
    m() = otherModel();
  }
  void assignText() {
    const std::string text = source_.start();
    s() = source_.start();
    m() = Model::of(text);
  }
  void assignNull() {
    s() = static_cast<const char*>(nullptr);
    m() = Model::of("");
  }
  void assignCharacter() {
    s() = c_;
    m() = Model::of(std::string(1, c_));
  }
  void assignNone() {
    s() = String();
    m() = Model();
  }
  void make() {
    s() = String(source_.start(), source_.count_);
    m() = Model::of(source_.bytes_);
  }
  void fill() {
    s() = String(c_, source_.count_);
    m() = Model::of(std::string(source_.count_, c_));
  }
  void takeBeginning() {
    s() = String(other(), at_);
    m() = otherModel().rep_ ? Model::of(otherModel().text().substr(0, at_)) : Model();
  }
  void takeRange() {
    s() = String(other()(at_, source_.count_));
    const std::string text = otherModel().text();
    const std::string range = at_ < text.size() ? text.substr(at_, source_.count_) : "";
    m() = otherModel().rep_ ? Model::of(range) : Model();
  }
  void append() {
    s().append(source_.start(), source_.count_);
    m().own().append(source_.bytes_);
  }
  void appendString() {
    s() += other();
    if (!otherModel().rep_) return;
    if (!m().rep_) return static_cast<void>(m() = otherModel());
    const std::string text = otherModel().text();
    m().own().append(text);
  }
  void appendText() {
    const std::string text = source_.start();
    s() += source_.start();
    m().own().append(text);
  }
  void appendNull() {
    s() += static_cast<const char*>(nullptr);
    m().own();
  }
  void appendCharacters() {
    for (unsigned i = random_.below(20); i > 0; i--) {
      s() += c_;
      m().own().append(std::string(1, c_));
    }
  }
  void appendNumber() {
    const int number = static_cast<int>(random_.engine_());
    s() += number;
    m().own().append(std::to_string(number));
  }
  void join() {
    const std::string a = textOf(s());
    const std::string b = textOf(other());
    const bool none = !m().rep_ && !otherModel().rep_;
    const Model shared = m().rep_ ? m() : otherModel();
    const bool shares = !m().rep_ || !otherModel().rep_;
    s() = s() + other();
    m() = none ? Model() : shares ? shared : Model::of(a + b);
  }
  void joinTexts() {
    const std::string text = source_.start();
    const bool left = random_.below(2) == 0;
    s() = left ? source_.start() + other() : other() + source_.start();
    m() = Model::of(left ? text + otherModel().text() : otherModel().text() + text);
  }
  void replace() {
    s().replace(source_.text_, source_.count_, source_.from_, at_);
    m().own().replace(source_.bytes_, at_);
  }
  void insert() {
    s().insert(source_.text_, source_.count_, source_.from_, at_);
    m().own().insert(source_.bytes_, at_);
  }
  void insertFromString() {
    const std::string text = otherModel().text();
    const unsigned from = random_.below(sizeOf(text) + 1);
    s().insert(other(), sizeOf(text) - from, from, at_);
    m().own().insert(text.substr(from), at_);
  }
  void replaceFromString() {
    const std::string text = otherModel().text();
    const unsigned from = random_.below(sizeOf(text) + 1);
    s().replace(other(), sizeOf(text) - from, from, at_);
    m().own().replace(text.substr(from), at_);
  }
  void insertCharacter() {
    s().insert(c_, static_cast<int>(at_));
    m().own().insert(std::string(1, c_), at_);
  }
  void remove() {
    const unsigned count = random_.below(4) == 0 ? NOT_FOUND : random_.below(20);
    s().remove(at_, count);
    std::string& text = m().own().text_;
    if (at_ < text.size()) text.erase(at_, count);
  }
  void truncate() {
    s().truncate(at_);
    std::string& text = m().own().text_;
    if (at_ < text.size()) text.resize(at_);
  }
  void substitute() {
    const std::string search = plainText(2);
    const std::string with = plainText(4);
    const std::string text = otherModel().text().c_str();
    s() = other().substitute(search.c_str(), with.c_str());
    if (!otherModel().rep_) return static_cast<void>(m() = Model());
    m() = Model::of(text);
    if (!search.empty()) m().rep_->substitute(search, with);
  }
  void reverse() {
    const std::string text = otherModel().text();
    s() = other().reverse();
    m() = text.empty() ? Model() : Model::of(std::string(text.rbegin(), text.rend()));
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
    if (!m().rep_) return;
    std::string& text = m().own().text_;
    if (!text.empty()) text = text.substr(at_ % text.size()) + text.substr(0, at_ % text.size());
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
  void writeInto() {
    s()[at_] = c_;
    m().own().replace(std::string(1, c_), at_);
  }
  void writeFromOther() {
    const std::string text = otherModel().text();
    const char c = at_ < text.size() ? text[at_] : '\0';
    s()[0] = other()[at_];
    m().own().replace(std::string(1, c), 0);
  }
  // The buffer of one string becomes that of another.
  void trade() {
    const unsigned capacity = m().rep_ ? m().own().capacity_ : 0;
    const std::string text = m().text();
    char* const buffer = s().donate();
    ASSERT_EQ(buffer == nullptr, !m().rep_);
    ASSERT_EQ(s().textAt(0), nullptr);
    m() = Model();
    other().consume(buffer);
    const bool adopted = !text.empty() && text[0] != '\0';
    otherModel() = Model::of(adopted ? text.c_str() : "");
    if (adopted) otherModel().rep_->capacity_ = otherModel().size() + 1;
    if (!adopted && capacity != 0) Allocator::theAllocator()->free(buffer);
  }
  void form() {
    View& v = views_[random_.below(VIEWS)];
    v.view_ = s()(at_, source_.count_);
    v.model_ = m();
    v.index_ = at_ < m().size() ? at_ : 0;
    v.size_ = at_ < m().size() ? std::min(source_.count_, m().size() - at_) : 0;
  }

  static constexpr void (DifferentialRun::*OPERATIONS[])() = {&DifferentialRun::assign,
                                                              &DifferentialRun::assignText,
                                                              &DifferentialRun::assignNull,
                                                              &DifferentialRun::assignCharacter,
                                                              &DifferentialRun::assignNone,
                                                              &DifferentialRun::make,
                                                              &DifferentialRun::fill,
                                                              &DifferentialRun::takeBeginning,
                                                              &DifferentialRun::takeRange,
                                                              &DifferentialRun::append,
                                                              &DifferentialRun::append,
                                                              &DifferentialRun::appendString,
                                                              &DifferentialRun::appendText,
                                                              &DifferentialRun::appendNull,
                                                              &DifferentialRun::appendCharacters,
                                                              &DifferentialRun::appendNumber,
                                                              &DifferentialRun::join,
                                                              &DifferentialRun::joinTexts,
                                                              &DifferentialRun::replace,
                                                              &DifferentialRun::replace,
                                                              &DifferentialRun::insert,
                                                              &DifferentialRun::insert,
                                                              &DifferentialRun::insert,
                                                              &DifferentialRun::insertFromString,
                                                              &DifferentialRun::replaceFromString,
                                                              &DifferentialRun::insertCharacter,
                                                              &DifferentialRun::remove,
                                                              &DifferentialRun::remove,
                                                              &DifferentialRun::truncate,
                                                              &DifferentialRun::substitute,
                                                              &DifferentialRun::reverse,
                                                              &DifferentialRun::changeCase,
                                                              &DifferentialRun::rotate,
                                                              &DifferentialRun::trim,
                                                              &DifferentialRun::expand,
                                                              &DifferentialRun::resize,
                                                              &DifferentialRun::writeInto,
                                                              &DifferentialRun::writeFromOther,
                                                              &DifferentialRun::trade,
                                                              &DifferentialRun::form,
                                                              &DifferentialRun::assign};

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
      ASSERT_EQ(v.view_.size(), v.size_);
      ASSERT_EQ(textOf(String(v.view_)), v.model_.text().substr(v.index_, v.size_));
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
    const std::size_t nul = std::min(text.find('\0', from), text.size());
    const auto within = [&](std::size_t i, std::size_t end) {
      return i < end ? positionOf(i) : NOT_FOUND;
    };
    const bool inside = from < text.size();
    const unsigned found =
        inside ? c_ ? within(text.find(c_, from), nul) : positionOf(nul) : NOT_FOUND;
    EXPECT_EQ(string.index(c_, from), found);
    const std::size_t place = inside ? text.find(set, from) : std::string::npos;
    EXPECT_EQ(string.index(set.c_str(), from), set.empty() && inside ? from : within(place, nul));
    const std::string members = set + '\0';
    EXPECT_EQ(string.indexChar(set.c_str(), from), positionOf(text.find_first_of(members, from)));
    EXPECT_EQ(string.rindexChar(set.c_str(), from), positionOf(text.find_last_of(members, from)));
    EXPECT_EQ(string.rindexChar(set.c_str(), NOT_FOUND), positionOf(text.find_last_of(members)));
    const std::string first = text.c_str();
    EXPECT_EQ(string.index(c_), c_ ? positionOf(first.find(c_)) : NOT_FOUND);
    const bool any = string.textAt(0) != nullptr;
    EXPECT_EQ(string.rindex(c_), c_    ? positionOf(first.rfind(c_))
                                 : any ? sizeOf(first)
                                       : NOT_FOUND);
    EXPECT_EQ(string.nthIndex(3, c_), nthIn(first));
    EXPECT_EQ(string[from], inside ? text[from] : '\0');
    EXPECT_EQ(string.startsWith(set.c_str()), first.compare(0, set.size(), set) == 0);
  }
  unsigned nthIn(const std::string& text) {
    std::size_t at = text.find(c_);
    for (unsigned n = 1; n < 3 && at != std::string::npos; n++) at = text.find(c_, at + 1);
    return c_ ? positionOf(at) : NOT_FOUND;
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
    const std::string textOfA = a.model_.text().substr(a.index_, a.size_);
    const std::string textOfB = b.model_.text().substr(b.index_, b.size_);
    const int sign = std::strncmp(textOfB.c_str(), textOfA.c_str(), textOfA.size());
    EXPECT_EQ(signOf(a.view_.compare(b.view_)), signOf(sign));
    EXPECT_EQ(signOf(a.view_.compare(textOfB.c_str())), signOf(sign));
    EXPECT_EQ(a.view_ == textOfB.c_str(), textOfA == textOfB.c_str());
    const bool equal = textOfA.size() == textOfB.size() && sign == 0;
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
  DifferentialRun(20240301).run(20000);
  EXPECT_EQ(YfTotalStringMemory(), total);
  EXPECT_EQ(Allocator::theAllocator()->allocatedMemory(), held);
}

// --- What the model does not see ---

TEST(String, ReadsWithoutTakingMemory) {
  String s("some text");
  String shared(s);
  const unsigned total = YfTotalStringMemory();
  std::string read;
  for (char c : s) read += c;
  for (unsigned i = 0; i < 12; i++) read += s[i];
  EXPECT_EQ(read, "some textsome text" + std::string(3, '\0'));
  EXPECT_TRUE(s[0] == 's' && s[1] == shared[1]);
  EXPECT_EQ(std::string_view(s), "some text");
  EXPECT_EQ(s.textAt(0), shared.textAt(0));
  EXPECT_EQ(YfTotalStringMemory(), total);
  EXPECT_EQ(s + s[5] + 'c', "some texttc");
  EXPECT_EQ('c' + (s[5] + s), "ctsome text");
}

template <class Integer>
void indexBy(Integer minusOne) {
  String s("abc");
  const String& reader = s;
  EXPECT_EQ(reader[Integer{2}], 'c');
  EXPECT_EQ(reader[Integer{3}], '\0');
  EXPECT_EQ(reader[minusOne], '\0');
  EXPECT_EQ(s[Integer{1}], 'b');
  s[Integer{1}] = 'B';
  s[minusOne] = 'x';
  EXPECT_STREQ(s, "aBc") << "a position that no text reaches";
}

TEST(String, IsIndexedByAnyInteger) {
  indexBy<int>(-1);
  indexBy<unsigned>(NOT_FOUND);
  indexBy<long>(-1);
  indexBy<unsigned long>(static_cast<unsigned long>(-1));
  indexBy<long long>(-1);
  indexBy<unsigned long long>(0xffffffffffffffff);
  indexBy<long long>(0x100000000);
  indexBy<short>(-1);
  indexBy<signed char>(-1);
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
  const std::string_view back = String(view);
  EXPECT_EQ(String(view).size(), 3u);
  EXPECT_EQ(std::string_view(String(view)), view);
  EXPECT_EQ(back.size(), 3u);
}

TEST(String, HasThreeFormsOfEmptiness) {
  const String none;
  const String empty("");
  String buffered("text");
  buffered.truncate(0);
  EXPECT_EQ(none == empty, 1);
  EXPECT_EQ(none == buffered, 1);
  EXPECT_STREQ(none, "");
  EXPECT_EQ(none == "", 1);
  EXPECT_EQ(none.icompare(""), -1);
  EXPECT_EQ(empty.icompare(""), 0);
  EXPECT_EQ(none.icompare(empty), 0);
  EXPECT_EQ(none.nthIndex(0, 'a'), NOT_FOUND);
  EXPECT_EQ(empty.nthIndex(0, 'a'), 0u);
  EXPECT_FALSE(none.startsWith(empty));
  EXPECT_TRUE(empty.startsWith(none));
  EXPECT_EQ(String("ABC").icompare(String("abd")) < 0, true);
  EXPECT_EQ(String("ABC").icompare("abc"), 0);
}

TEST(SubString, ComparesInTheOtherDirection) {
  String s("xabyAB");
  const SubString ab = s(1, 2);
  EXPECT_EQ(ab.compare("abc"), 0);
  EXPECT_EQ(ab == "abc", 0);
  EXPECT_GT(ab.compare("ac"), 0);
  EXPECT_LT(ab.compare(String()), 0);
  EXPECT_EQ(s(4).icompare("abx"), 0);
  EXPECT_EQ(s(4).icompare(ab), 0);
  EXPECT_LT(s(4).icompare(s(1, 1)), 0);
  EXPECT_EQ(s(0, 0) == "", 1);
  EXPECT_EQ(s(6).index(), 0u);
  EXPECT_EQ(s(2, NOT_FOUND).size(), 4u);
  const String holdsNul("a\0b", 3);
  EXPECT_EQ(SubString(holdsNul) == "a", 0) << "the text ends where the range goes on";
  EXPECT_EQ("ab" == ab, 1);
}

TEST(SubString, OutlivesTheString) {
  SubString view{String("gone")};
  EXPECT_EQ(view == "gone", 1);
  String s("other");
  view = s;
  s = "changed";
  EXPECT_EQ(view == "other", 1);
  const SubString& same = view;
  view = same;
  EXPECT_EQ(view == "other", 1);
}

TEST(String, RefusesLengthsThatDoNotFit) {
  constexpr unsigned LIMIT = 0x80000000u;
  String s("text");
  const unsigned total = YfTotalStringMemory();
  for (const unsigned n : {LIMIT, LIMIT + 1, NOT_FOUND - 3, NOT_FOUND}) {
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
    EXPECT_EQ(s.rindexChar("t", n), n == NOT_FOUND ? 3u : NOT_FOUND);
  }
  EXPECT_EQ(YfTotalStringMemory(), total);
}

// The operations that a String hides run on representations outside of strings too.
struct OpenRep : StringRep {
  using StringRep::operator=;
  using StringRep::consume;
  using StringRep::create;
  using StringRep::decRef;
  using StringRep::destroy;
  using StringRep::donate;
  using StringRep::resizeFor;
  using StringRep::size;
  using StringRep::StringRep;
  using StringRep::text;
  OpenRep(const char* text, unsigned from, unsigned count) : StringRep(text, from, count) {}
  bool appendItself() { return append(this); }
};

TEST(StringRep, StandsAlone) {
  const unsigned total = YfTotalStringMemory();
  const unsigned held = Allocator::theAllocator()->allocatedMemory();
  {
    OpenRep rep("0123456789", 2u, 5u);
    EXPECT_STREQ(rep.text(), "23456");
    rep.resizeFor(3);
    EXPECT_EQ(rep.size(), 5u) << "nothing is cut within a class";
    EXPECT_EQ(YfTotalStringMemory() - total, 16u);
    rep = rep.text() + 1;
    EXPECT_STREQ(rep.text(), "3456");
    EXPECT_TRUE(rep.appendItself());
    EXPECT_STREQ(rep.text(), "34563456");
    char* text = rep.donate();
    EXPECT_EQ(YfTotalStringMemory(), total);
    rep.consume(text);
    EXPECT_EQ(YfTotalStringMemory() - total, 9u);
    rep = 'c';
    EXPECT_EQ(YfTotalStringMemory() - total, 16u);
    EXPECT_EQ(rep.decRef(), 0u);
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
    [](String& s) { s = 2.5; },
    [](String& s) { s += "tail"; },
    [](String& s) { s += 'c'; },
    [](String& s) { s += s; },
    [](String& s) { s += 12345; },
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
  for (const unsigned n : {1u, 2u}) {
    allocator.failFrom(n);
    EXPECT_EQ(String(_long.c_str()).textAt(0), nullptr);
    allocator.failFrom(n);
    EXPECT_EQ(String('c', 1000).textAt(0), nullptr);
    allocator.failFrom(n);
    EXPECT_EQ((s + other).textAt(0), nullptr);
    allocator.failFrom(n);
    EXPECT_EQ(other.substitute("y", "yyyy").textAt(0), nullptr);
    allocator.failFrom(n);
    EXPECT_EQ(other.reverse().textAt(0), nullptr);
    allocator.failFrom(0);
    EXPECT_EQ(YfTotalStringMemory(), total);
  }
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
