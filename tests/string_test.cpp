// SPDX-License-Identifier: MIT
// A random run compares strings with a model, every byte of string memory included, while some
// requests for memory fail. Worked examples follow for the cases that the model does not reach.
#include "utils/sdk/string.h"

#include <strings.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cfloat>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "gmock/gmock.h"
#include "support/seed.h"
#include "utils/testing/failing_allocator.h"

namespace {

using namespace Utils;
using Utils::Testing::FailingAllocator;

constexpr unsigned NOT_FOUND = 0xffffffffu;
constexpr unsigned REP = sizeof(StringRep);

std::string textOf(const String& s) { return std::string(s.begin(), s.end()); }
unsigned sizeOf(const std::string& s) { return static_cast<unsigned>(s.size()); }
unsigned positionOf(std::size_t i) { return static_cast<unsigned>(i); }  // npos is NOT_FOUND
int signOf(int value) { return (value > 0) - (value < 0); }

// The effect of the operations on a text, a capacity and its holders.
struct Model {
  struct Rep {
    std::string text_;
    unsigned capacity_ = 0;

    static unsigned classOf(unsigned n) { return std::bit_ceil(std::max(n + 1, 16u)); }
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
    // Bytes between the end and `at` are blanks.
    void replace(const std::string& source, unsigned at) {
      const unsigned end = at + sizeOf(source);
      if (at >= size() || end > size()) {
        resizeFor(end);
        text_.resize(end, ' ');
      }
      text_.replace(at, source.size(), source);
    }
    void insert(const std::string& source, unsigned at) {
      if (at >= size()) return replace(source, at);
      resizeFor(size() + sizeOf(source));
      text_.insert(at, source);
    }
    void append(const std::string& source) { replace(source, size()); }
    void expandTo(unsigned n) {
      if (size() < n) replace("", n);
    }
    void substitute(const std::string& search, const std::string& with) {
      for (std::size_t at = 0; (at = text_.find(search, at)) != std::string::npos;
           at += with.size())
        text_.replace(at, search.size(), with);
      if (with.size() > search.size()) resizeFor(size());
    }
    void remove(unsigned at, unsigned count) {
      if (at < size()) text_.erase(at, count);
    }
    void rotate(unsigned n) {
      if (size() != 0) std::rotate(text_.begin(), text_.begin() + n % size(), text_.end());
    }
    void map(int (*each)(int)) {
      for (char& c : text_) c = static_cast<char>(each(c));
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

  explicit StringRun(unsigned seed) : random_(seed) {
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
      count_ = random_.below(4) == 0 ? NOT_FOUND : random_.below(20);
      c_ = someCharacter();
      place_ = s().textAt(0);
      memory_.failFrom(random_.below(4) == 0 ? 1 + random_.below(2) : 0);
      steps_[random_.below(static_cast<unsigned>(steps_.size()))]();
      memory_.failFrom(0);
      compare();
      memory_.failFrom(1);
      ask();
      EXPECT_FALSE(memory_.failed()) << "questions take no memory";
      memory_.failFrom(0);
      askViews(views_[0], views_[1]);
    }
  }

  String& s() { return strings_[i_]; }
  Model& m() { return models_[i_]; }
  String& other() { return strings_[j_]; }
  Model& otherModel() { return models_[j_]; }
  std::string otherText() { return otherModel().text(); }

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

  // The string was assigned a text that was made for it: `model`, or none if there was no memory.
  void made(const String&, const Model& model) { m() = memory_.failed() ? Model() : model; }
  // The string is now `model`; it is unchanged if there was no memory.
  void now(const String& string, const Model& model) {
    if (!isUnchanged(string)) m() = model;
  }
  // The string was changed: returns the text to which the same is still to be done, a spare one if
  // there was no memory.
  Model::Rep& after(const String& string) { return isUnchanged(string) ? spare_ = {} : m().own(); }
  // The same for an operation that does nothing without a representation.
  Model::Rep& within(const String& string) { return m().rep_ ? after(string) : spare_ = {}; }
  bool isUnchanged(const String& string) {
    EXPECT_EQ(&string, &s());
    EXPECT_TRUE(!memory_.failed() || s().textAt(0) == place_);
    place_ = s().textAt(0);
    return memory_.failed();
  }
  std::string character() const { return std::string(1, c_); }

  // The buffer of one string becomes that of another.
  void trade() {
    const std::string text = m().text();
    char* const buffer = s().donate();
    ASSERT_EQ(buffer == nullptr, !m().rep_ || memory_.failed());
    if (memory_.failed()) return;
    ASSERT_EQ(s().textAt(0), nullptr);
    m() = Model();
    other().consume(buffer);
    const bool isText = !text.empty() && text[0] != '\0', isAdopted = isText && !memory_.failed();
    if (!memory_.failed()) otherModel() = Model::of(isText ? text.c_str() : "");
    if (isAdopted) otherModel().rep_->capacity_ = otherModel().size() + 1;
    if (!isAdopted && !text.empty()) Allocator::theAllocator()->free(buffer);
  }
  void form() {
    View& v = views_[random_.below(VIEWS)];
    const bool isPart = random_.below(2) == 0;
    isPart ? v.view_ = s()(at_, count_) : v.view_ = s();
    if (!memory_.failed()) {
      const unsigned from = isPart ? at_ : 0;
      const std::string text = m().range(from, isPart ? count_ : NOT_FOUND);
      v = {v.view_, m(), from < m().size() ? from : 0, text};
    } else if (isPart) {
      v = {v.view_, {}, 0, ""};
    }
  }

  const std::vector<std::function<void()>> steps_ = {
      [this] { now(s() = other(), otherModel()); },
      [this] { now(s() = source_.start(), Model::of(source_.rest_)); },
      [this] { now(s() = c_, Model::of(character())); },
      [this] { now(s() = String(), Model()); },
      [this] { made(s() = String(source_.start(), source_.count_), Model::of(source_.bytes_)); },
      [this] {
        made(s() = String(c_, source_.count_), Model::of(std::string(source_.count_, c_)));
      },
      [this] { made(s() = String(other(), at_), otherModel().part(0, at_)); },
      [this] { made(s() = other()(at_, count_), otherModel().part(at_, count_)); },
      [this] { after(s().append(source_.start(), source_.count_)).append(source_.bytes_); },
      [this] {
        Model::Rep& rep = after(s() += source_.start());
        if (source_.text_) rep.append(source_.rest_);
      },
      [this] {
        s() += other();
        if (!otherModel().rep_) return;
        if (!m().rep_) return now(s(), otherModel());
        after(s()).append(otherModel().text());
      },
      [this] {
        for (unsigned i = random_.below(20); i > 0; i--) after(s() += c_).append(character());
      },
      [this] {
        const int number = static_cast<int>(random_.engine_());
        after(s() += number).append(std::to_string(number));
      },
      [this] {
        const Model both = Model::of(m().text() + otherModel().text());
        made(s() = s() + other(), !m().rep_ ? otherModel() : otherModel().rep_ ? both : m());
      },
      [this] { made(s() = source_.start() + other(), Model::of(source_.rest_ + otherText())); },
      [this] { made(s() = other() + source_.start(), Model::of(otherText() + source_.rest_)); },
      [this] {
        after(s().replace(source_.text_, source_.count_, source_.from_, at_))
            .replace(source_.bytes_, at_);
      },
      [this] {
        after(s().insert(source_.text_, source_.count_, source_.from_, at_))
            .insert(source_.bytes_, at_);
      },
      [this] {
        after(s().replace(other(), otherModel().size(), 0, at_)).replace(otherText(), at_);
      },
      [this] {
        const unsigned from = random_.below(otherModel().size() + 1);
        const std::string text = otherText().substr(from);
        after(s().insert(other(), sizeOf(text), from, at_)).insert(text, at_);
      },
      [this] {
        s().insert(c_, static_cast<int>(at_));
        after(s()).insert(character(), at_);
      },
      [this] { after(s().remove(at_, count_)).remove(at_, count_); },
      [this] { after(s().truncate(at_)).remove(at_, NOT_FOUND); },
      [this] {
        const std::string search = plainText(2), with = plainText(4);
        Model result = otherModel().rep_ ? Model::of(otherText().c_str()) : Model();
        if (result.rep_ && !search.empty()) result.rep_->substitute(search, with);
        made(s() = other().substitute(search.c_str(), with.c_str()), result);
      },
      [this] {
        const std::string text = otherText();
        const Model reversed = Model::of(std::string(text.rbegin(), text.rend()));
        made(s() = other().reverse(), text.empty() ? Model() : reversed);
      },
      [this] { within(s().toUpper()).map(std::toupper); },
      [this] { within(s().toLower()).map(std::tolower); },
      [this] { within(s().rotateLeft(at_)).rotate(at_); },
      [this] { within(s().trim()).trim(); },
      [this] {
        s().expandTo(at_);
        after(s()).expandTo(at_);
      },
      [this] {
        const unsigned n = random_.below(3) == 0 ? m().size() : random_.below(4) * at_ / 2;
        s().resizeFor(n);
        after(s()).resizeFor(n);
      },
      [this] { after(s()[at_] = c_).replace(character(), at_); },
      [this] {
        const std::string text = otherModel().range(at_, 1);
        after(s()[0] = other()[at_]).replace(text.empty() ? std::string(1, '\0') : text, 0);
      },
      [this] { trade(); },
      [this] { form(); },
      [this] { views_[random_.below(VIEWS)] = views_[random_.below(VIEWS)]; }};

  // --- Comparison with the models ---

  // The total shows which strings share a representation.
  void compare() {
    std::set<const Model::Rep*> reps;
    for (unsigned i = 0; i < STRINGS; i++) {
      const Model& model = models_[i];
      const String& string = strings_[i];
      ASSERT_EQ(textOf(string), model.text()) << "string " << i;
      ASSERT_EQ(*string.end(), '\0');
      ASSERT_EQ(string.textAt(0) == nullptr, !model.rep_);
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
    ASSERT_EQ(YfTotalStringMemory(), total);
  }

  // --- Questions, answered from the text alone ---

  void ask() {
    askForPositions(s(), m().text(), someSize(), plainText(3));
    askForOrder();
    askForTokens(s(), m().text(), plainText(3));
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
    EXPECT_EQ(string.nthIndex(0, c_), m().rep_ ? 0 : NOT_FOUND);
    const std::string members = set + '\0';
    EXPECT_EQ(string.indexChar(set.c_str(), from), positionOf(text.find_first_of(members, from)));
    EXPECT_EQ(string.rindexChar(set.c_str(), from), positionOf(text.find_last_of(members, from)));
    EXPECT_EQ(string.rindexChar(set.c_str(), NOT_FOUND), positionOf(text.find_last_of(members)));
    EXPECT_EQ(string[from], rest ? *rest : '\0');
    EXPECT_EQ(s()[from], string[from]);
    EXPECT_EQ(string.startsWith(set.c_str()), std::strncmp(first, set.c_str(), set.size()) == 0);
  }

  // A string without a representation stands before every other that is not empty.
  int signBy(int (*order)(const char*, const char*), const char* a, const char* b) {
    if (!m().rep_ && otherModel().size() != 0) return -1;
    return !otherModel().rep_ && m().size() != 0 ? 1 : signOf(order(a, b));
  }
  void askForOrder() {
    const std::string a = m().text().c_str(), b = otherText().c_str();
    const int sign = signBy(std::strcmp, a.c_str(), b.c_str());
    EXPECT_EQ(signOf(s().compare(other())), sign);
    EXPECT_EQ(signOf(s().icompare(other())), signBy(strcasecmp, a.c_str(), b.c_str()));
    EXPECT_EQ(signOf(s().icompare(b.c_str())),
              m().rep_ ? signOf(strcasecmp(a.c_str(), b.c_str())) : -1);
    EXPECT_EQ(s().startsWith(other()),
              !otherModel().rep_ ||
                  (m().rep_ && std::strncmp(a.c_str(), b.c_str(), otherModel().size()) == 0));
    EXPECT_EQ(s() == other(), sign == 0);
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
    EXPECT_EQ(signOf(a.view_.icompare(b.text_.c_str())),
              signOf(strncasecmp(b.text_.c_str(), a.text_.c_str(), a.text_.size())));
    EXPECT_EQ(signOf(a.view_.icompare(b.view_)), signOf(a.view_.icompare(b.text_.c_str())));
    for (const char* text : {a.text_.c_str(), b.text_.c_str()})
      EXPECT_EQ(a.view_ == text, a.text_ == text);
    const bool equal = a.text_.size() == b.text_.size() && sign == 0;
    EXPECT_EQ(a.view_ == b.view_, equal);
    EXPECT_EQ(a.view_ != String(b.view_), !equal);
    EXPECT_EQ(String(b.view_) == a.view_, equal);
  }

  Random random_;
  FailingAllocator memory_;
  String strings_[STRINGS];
  Model models_[STRINGS];
  std::vector<View> views_;
  std::string foreign_;
  Model::Rep spare_;
  unsigned i_ = 0, j_ = 0, at_ = 0, count_ = 0;
  const char* place_ = nullptr;  // of the text before the step
  Source source_ = {};
  char c_ = ' ';
};

TEST(String, BehavesAsItsModel) {
  const unsigned held = Allocator::theAllocator()->allocatedMemory();
  StringRun(20240301).run(20000);
  EXPECT_EQ(YfTotalStringMemory(), 0u);
  EXPECT_EQ(Allocator::theAllocator()->allocatedMemory(), held);
}

// --- What the model does not see ---

// `past` is a position of the type that no text reaches.
TEST(String, IsIndexedByAnyInteger) {
  const auto isIndexedBy = [](auto past) {
    const decltype(past) one{1};
    String s("abc");
    const String& reader = s;
    s[one] = 'B';
    s[past] = 'x';
    return s == "aBc" && s[one] == 'B' && reader[one] == 'B' && reader[past] == '\0';
  };
  EXPECT_TRUE(isIndexedBy(-1) && isIndexedBy(NOT_FOUND) && isIndexedBy(-1L) && isIndexedBy(~0ul));
  EXPECT_TRUE(isIndexedBy(-1LL) && isIndexedBy(~0ull) && isIndexedBy(0x100000000LL));
  EXPECT_TRUE(isIndexedBy(short{-1}) && isIndexedBy(static_cast<signed char>(-1)));
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
  EXPECT_EQ('c' + (s[0] + s + s[1]) + 'c', "c22.000000.c");
  EXPECT_EQ(s[0] + 1, '3');
}

TEST(String, RefusesLengthsThatDoNotFit) {
  constexpr unsigned LIMIT = 0x80000000u;
  String s("text");
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
  EXPECT_EQ(YfTotalStringMemory(), REP + 16);
  s.expandTo(33554431);
  EXPECT_EQ(s.size(), 33554431u);
}

// The operations that a String hides run on representations outside of strings too.
struct OpenRep : StringRep {
  using StringRep::operator=;
  using StringRep::consume;
  using StringRep::create;
  using StringRep::decRef;
  using StringRep::destroy;
  using StringRep::donate;
  using StringRep::text;
  template <class... Args>
  explicit OpenRep(Args... args) : StringRep(args...) {}
  bool appendItself() { return append(this); }
};

template <class... Args>
void expectMade(const char* text, Args... args) {
  alignas(OpenRep) char room[sizeof(OpenRep)];
  for (volatile char& each : room) each = 'x';
  OpenRep* const rep = new (room) OpenRep(args...);
  EXPECT_STREQ(rep->text(), text);
  EXPECT_EQ(rep->decRef(), 0u);
  rep->~OpenRep();
}

TEST(StringRep, StandsAlone) {
  expectMade("");
  expectMade("0123", "0123");
  expectMade("c", 'c');
  expectMade("01", "0123", 2u);
  {
    OpenRep rep("0123456789", 2u, 5u);
    rep = rep.text() + 1;
    EXPECT_TRUE(rep.appendItself());
    EXPECT_STREQ(rep.text(), "34563456");
    EXPECT_EQ(YfTotalStringMemory(), 16u);
    char* const text = rep.donate();
    EXPECT_STREQ(rep.text(), "");
    EXPECT_EQ(YfTotalStringMemory(), 0u);
    rep = 'c';
    EXPECT_STREQ(rep.text(), "c");
    rep.consume(text);
    EXPECT_EQ(YfTotalStringMemory(), 9u);
    OpenRep* inOneBlock = static_cast<OpenRep*>(OpenRep::create("short", 5));
    char* const buffer = inOneBlock->donate();
    OpenRep::destroy(inOneBlock);
    EXPECT_STREQ(buffer, "short");
    Allocator::theAllocator()->free(buffer);
  }
  EXPECT_EQ(YfTotalStringMemory(), 0u);
}

}  // namespace
