// SPDX-License-Identifier: MIT
// The hub and the sinks: a random run of settings and messages against a model, with memory that
// runs out; times and formats against printf; hostile texts; lines in files, streams and dialogs.
#include "utils/sdk/log.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <functional>

#include "gmock/gmock.h"
#include "support/child_process.h"
#include "support/huge_text.h"
#include "support/seed.h"
#include "support/temporary_directory.h"
#include "utils/testing/failing_allocator.h"
#include "utils/testing/recording_sink.h"

namespace {

using namespace Utils;
using Utils::Testing::FailingAllocator;

constexpr MessageClass CLASSES[] = {Error, Warning, Info, Debug};

double _now = 0;  // the time of the clock
const std::string _task = std::to_string(YIF_CurrentTaskId());

std::string randomText(Random& random, std::size_t size) {
  std::string text(size, '\0');
  for (char& c : text) c = "%%%ns\n\x01\xff|:ab"[random.below(12)];
  return text;
}

const std::string _errnoFormat = "%m, %s";  // pedantic compilers know no such literal
const std::string _noEntry = std::string(std::strerror(ENOENT)) + ", end";

// Counted when it is destroyed.
struct RecordingSink : Testing::RecordingSink {
  ~RecordingSink() override { ended_++; }

  static inline int ended_ = 0;  // sinks of this class
};

unsigned held() { return Allocator::theAllocator()->allocatedMemory(); }

// --- The hub against a model ---

struct Category {
  std::string name_;
  int level_;
  bool enabled_;
  unsigned verbosity_;

  bool operator==(const Category&) const = default;
};

struct HubRun {
  HubRun(Random& random, FailingAllocator& memory) : random_(random), memory_(memory) {
    hub_.setLogger(sinks_[0]);
  }

  void step() {
    memory_.failFrom(random_.below(4) == 0 ? 1 + random_.below(3) : 0);
    static constexpr void (HubRun::*STEPS[])() = {
        &HubRun::print,    &HubRun::print,      &HubRun::print,        &HubRun::ask,
        &HubRun::setLevel, &HubRun::setEnabled, &HubRun::setVerbosity, &HubRun::setSink};
    errno = 4321;
    (this->*STEPS[random_.below(8)])();
    EXPECT_EQ(errno, 4321);
    memory_.failFrom(0);
    if (random_.below(40) == 0) {
      hub_.resetLogStats();
      counts_ = {};
    }
    check();
  }

  MessageClass someClass() { return CLASSES[random_.below(4)]; }
  bool someFlag() { return random_.below(2) == 1; }
  int someLevel() {
    constexpr int LEVELS[] = {INT_MIN, -2, -1, 0, 0, 1, 1, 2, 3, 10, 4711, INT_MAX};
    return LEVELS[random_.below(std::size(LEVELS))];
  }
  unsigned size() const { return static_cast<unsigned>(categories_.size()); }
  unsigned someNumber() { return random_.below(10) ? random_.below(size() + 2) : UINT_MAX; }
  // Names change their addresses, and addresses their names.
  const char* someName() {
    static char rooms[3][700];
    const unsigned n = random_.below(40);
    std::string name = "cat" + std::to_string(n);
    if (n < 5) name = std::array{"", "a", "A", "%n%s%%", "aa"}[n];
    if (n == 5) name = std::string(600, 'x');
    return std::strcpy(rooms[random_.below(3)], name.c_str());
  }

  // The number of the category after the hub has met the name. A new one has none if there was no
  // memory.
  unsigned numberOf(const std::string& name) {
    const auto has = [&](const Category& category) { return category.name_ == name; };
    const auto at =
        static_cast<unsigned>(std::ranges::find_if(categories_, has) - categories_.begin());
    if (at == size() && memory_.failed()) return UINT_MAX;
    if (at == size()) categories_.push_back({name, own_.level_, own_.enabled_, own_.verbosity_});
    return at;
  }
  bool letsThrough(MessageClass cls, unsigned cat, int level) const {
    return cat < size() && sinkOf_[cls] != NONE &&
           (cls != Debug || (categories_[cat].enabled_ && level <= categories_[cat].level_));
  }
  std::string header(MessageClass cls, unsigned cat, int level, const std::string& place) const {
    std::string text = std::array{"error", "warning", "info", "debug"}[cls];
    if (level >= 0) text += "[" + std::to_string(level) + "]";
    text += "|" + categories_[cat].name_;
    if (own_.verbosity_ >= 1) text += "|" + place;
    if (own_.verbosity_ >= 2) text += "|" + std::to_string(_now) + "|" + _task;
    return text + "|";
  }

  void print() {
    _now = random_.below(2000000000) + 1.0 / (1 + random_.below(1000));
    const MessageClass cls = someClass();
    const int level = someLevel();
    const auto line = static_cast<unsigned>(random_.engine_());
    const char* name = someFlag() ? someName() : nullptr;
    unsigned cat = someNumber();
    const std::string text = randomText(random_, random_.below(40));
    if (name) hub_.print(cls, name, level, "a/%s.cpp", line, "%s;%d", text.c_str(), level);
    if (!name) hub_.print(cls, cat, level, "a/%s.cpp", line, "%s;%d", text.c_str(), level);
    if (name) cat = numberOf(name);
    if (!letsThrough(cls, cat, level)) return;
    counts_[cls]++;
    const std::string start = header(cls, cat, level, "a/%s.cpp:" + std::to_string(line));
    expected_[sinkOf_[cls]].emplace_back(cls, start + text + ";" + std::to_string(level));
  }
  void ask() {
    const MessageClass cls = someClass();
    const Category all{someName(), someLevel(), someFlag(), random_.below(4)};
    const char* name = all.name_.c_str();
    unsigned cat = someNumber();
    EXPECT_EQ(hub_.willPrint(cls, cat, all.level_), letsThrough(cls, cat, all.level_));
    const bool will = hub_.willPrint(cls, name, all.level_);
    cat = numberOf(all.name_);
    EXPECT_EQ(will, letsThrough(cls, cat, all.level_));
    EXPECT_EQ(hub_.getCategory(name), cat);
    if (someFlag() || cat == UINT_MAX) return;
    categories_[cat] = all;
    if (someFlag()) {
      EXPECT_EQ(hub_.getCategory(name, all.level_, all.enabled_, all.verbosity_), cat);
    } else {
      EXPECT_EQ(hub_.getCategory(name, all.level_, all.enabled_), cat);
      categories_[cat].verbosity_ = own_.verbosity_;
    }
  }
  template <class Value>
  void set(Value Category::*setting, void (Log::*setAll)(Value),
           void (Log::*setOne)(unsigned, Value), Value value) {
    const unsigned cat = someNumber();
    const bool isForAll = random_.below(4) == 0;
    isForAll ? (hub_.*setAll)(value) : (hub_.*setOne)(cat, value);
    if (isForAll) own_.*setting = value;
    for (unsigned each = 0; each < size(); each++)
      if (isForAll || each == cat) categories_[each].*setting = value;
  }
  void setLevel() { set(&Category::level_, &Log::setLevel, &Log::setLevel, someLevel()); }
  void setEnabled() { set(&Category::enabled_, &Log::setEnabled, &Log::setEnabled, someFlag()); }
  void setVerbosity() {
    set(&Category::verbosity_, &Log::setVerbosity, &Log::setVerbosity, random_.below(4));
  }
  void setSink() {
    const unsigned sink = random_.below(3);
    const MessageClass cls = someClass();
    const bool isForAll = random_.below(8) == 0;
    isForAll ? hub_.setLogger(sinks_[sink]) : hub_.setLogger(cls, sinks_[sink]);
    for (MessageClass each : CLASSES)
      if (isForAll || each == cls) sinkOf_[each] = sink;
  }

  void check() {
    std::array<unsigned, 4> counts;
    hub_.logStats(counts[0], counts[1], counts[2], counts[3]);
    EXPECT_EQ(counts, counts_);
    EXPECT_TRUE((Category{"", hub_.level(), hub_.enabled(), hub_.verbosity()} == own_));
    std::vector<Category> categories;
    for (unsigned cat = 0; const char* name = hub_.getCategory(cat); cat++)
      categories.push_back({name, hub_.level(cat), hub_.enabled(cat), hub_.verbosity(cat)});
    EXPECT_TRUE(categories == categories_);
    EXPECT_EQ(hub_.getCategory(UINT_MAX), nullptr);
    EXPECT_EQ(hub_.level(UINT_MAX), own_.level_);
    for (int i : {0, 1}) EXPECT_EQ(sinks_[i]->take(), std::exchange(expected_[i], {}));
  }

  static constexpr unsigned NONE = 2;

  Random& random_;
  FailingAllocator& memory_;
  RecordingSink* const sinks_[3] = {new RecordingSink, new RecordingSink, nullptr};
  const Ref<Logger> owners_[2] = {sinks_[0], sinks_[1]};
  Log hub_;
  Category own_{};
  std::vector<Category> categories_;
  std::array<unsigned, 4> counts_{};
  unsigned sinkOf_[4] = {};
  RecordingSink::Lines expected_[2];
};

TEST(Hub, DoesAsTheModelDoes) {
  Random random(7);
  const Ref<Logger> usual = Log::theDefaultLogger();
  const unsigned before = held();
  RecordingSink::ended_ = 0;
  for (int round = 0; round < 4; round++) {
    FailingAllocator memory;
    HubRun run(random, memory), other(random, memory);
    for (int i = 0; i < 2000 && !HasFailure(); i++) (random.below(2) ? run : other).step();
  }
  EXPECT_EQ(RecordingSink::ended_, 4 * 2 * 2);
  EXPECT_EQ(held(), before);
}

// Changes the hub while it prints or when it is destroyed.
struct ActingSink : RecordingSink {
  ~ActingSink() override { atEnd_(); }
  void print(MessageClass cls, const char* format, std::va_list args) override {
    atPrint_();
    RecordingSink::print(cls, format, args);
    EXPECT_EQ(take(), (Lines{{cls, "error|c|x"}}));
  }

  std::function<void()> atPrint_ = [] {}, atEnd_ = [] {};
};

TEST(Hub, KeepsItsSinksAsLongAsTheyPrintOrServeAClass) {
  Log hub;
  RecordingSink::ended_ = 0;
  hub.setLogger(new RecordingSink);
  for (MessageClass cls : CLASSES) {
    EXPECT_EQ(RecordingSink::ended_, 0);
    hub.setLogger(cls, nullptr);
  }
  auto* const leaving = new ActingSink;
  leaving->atPrint_ = [&] {
    hub.setLogger(nullptr);
    EXPECT_EQ(RecordingSink::ended_, 1);
  };
  hub.setLogger(leaving);
  hub.print(Error, "c", -1, "f", 1, "%s", "x");
  EXPECT_EQ(RecordingSink::ended_, 2);
}

// The one that was set by the end of the former one.
TEST(Hub, UsesTheSinkThatWasSetLast) {
  Log hub;
  auto* const former = new ActingSink;
  auto* const successor = new RecordingSink;
  former->atEnd_ = [&] { hub.setLogger(successor); };
  hub.setLogger(former);
  RecordingSink::ended_ = 0;
  hub.setLogger(new RecordingSink);
  EXPECT_EQ(RecordingSink::ended_, 2) << "the former one and the one that was replaced meanwhile";
  for (MessageClass cls : CLASSES) hub.print(cls, hub.getCategory("c", 1, true), 1, "f", 1, "x");
  EXPECT_EQ(successor->take().size(), std::size(CLASSES));
}

TEST(Categories, CompareByName) {
  const LogCat a("a"), same("a"), other("b");
  EXPECT_TRUE(a == same && !(a == other));
  EXPECT_EQ(a.level_ + static_cast<int>(a.verbosity_) + a.enabled_, 0);
}

// --- The content of a line ---

struct OneSinkHub {
  explicit OneSinkHub(unsigned verbosity) {
    hub_.setLogger(sink_);
    hub_.setVerbosity(verbosity);
  }
  std::string line() {
    const auto lines = sink_->take();
    return lines.size() == 1 ? lines[0].second : std::to_string(lines.size()) + " lines";
  }

  RecordingSink* const sink_ = new RecordingSink;
  Log hub_;
};

// The clock changes errno, which the format prints.
void expectTime(OneSinkHub& log, double time) {
  _now = time;
  errno = ENOENT;
  log.hub_.print(Error, "c", -1, "f", 1, _errnoFormat.c_str(), "end");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(log.line(), "error|c|f:1|" + std::to_string(time) + "|" + _task + "|" + _noEntry);
}

TEST(Line, TellsTheTimeAsPrintfDoes) {
  Random random(11);
  OneSinkHub log(2);
  for (double time : {0.0, 1.5, 511.9999995, 512.0, 512.0078125, 1792384729.0000005, DBL_MAX,
                      4294967295.0, std::nextafter(4294967296.0, 0), 4294967296.5,
                      static_cast<double>(INFINITY), std::nan("")}) {
    expectTime(log, time);
    expectTime(log, -time);
  }
  for (int i = 0; i < 30000; i++) {
    const auto whole = static_cast<unsigned>(random.engine_() >> random.below(32));
    const unsigned bits = random.below(31);  // from 7 on the fraction may end in half a millionth
    double time = whole + std::ldexp(random.below(1u << bits), -static_cast<int>(bits));
    const unsigned kind = random.below(6);
    if (kind < 2) time = std::nextafter(time, kind * 1e10);
    if (kind == 2) time = std::ldexp(time, static_cast<int>(random.below(2000)) - 1000);
    expectTime(log, time);
  }
}

// Each part in turn has lengths around the hub's room on the stack and well beyond.
TEST(Line, HoldsTextsOfAnyLengthAndContentAsTheyAre) {
  Random random(13);
  OneSinkHub log(1);
  for (std::size_t size = 0; size < 40000; size += size < 1100 ? 1 + random.below(3) : 8999) {
    std::string texts[4];  // category, file, format, argument
    for (std::string& text : texts) text = randomText(random, random.below(20));
    texts[random.below(4)] = randomText(random, size);
    std::string format;
    for (char c : texts[2]) format += std::string(c == '%' ? 2 : 1, c);
    log.hub_.print(Info, texts[0].c_str(), 3, texts[1].c_str(), UINT_MAX, (format + "%s").c_str(),
                   texts[3].c_str());
    ASSERT_EQ(log.line(),
              "info[3]|" + texts[0] + "|" + texts[1] + ":4294967295|" + texts[2] + texts[3]);
  }
  const std::string large(34000000, 'x');  // more than the process allocator's largest block
  log.hub_.print(Info, "c", -1, "f", 1, (large + "%s").c_str(), "y");
  EXPECT_EQ(log.line(), "info|c|f:1|" + large + "y");
  log.hub_.print(Info, nullptr, -1, nullptr, 0, "%s", "text");
  EXPECT_EQ(log.line(), "info||:0|text");
}

// --- Logger::expand ---

struct Expander : Logger {
  static int call(char* text, unsigned size, const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const int length = expand(text, size, format, args);
    va_end(args);
    return length;
  }
};

template <class... Args>
void expectExpanded(unsigned size, const std::string& format, Args... args) {
  std::vector<char> expected(size), room(size);  // of their very size, for the sanitizer
  std::snprintf(expected.data(), size, format.c_str(), args...);
  const int length = Expander::call(room.data(), size, format.c_str(), args...);
  ASSERT_STREQ(room.data(), expected.data()) << format;
  ASSERT_EQ(length, static_cast<int>(std::strlen(expected.data()))) << format;
}

// A format of random length: its directives take the arguments in their order.
TEST(Expand, GivesWhatPrintfGives) {
  static constexpr const char* DIRECTIVES[][4] = {
      {"%s", "%s", "%-8s", "%.3s"},      {"%d", "%u", "%5d", "%x"},  {"%ld", "%lu", "%-9ld", "%lx"},
      {"%lld", "%llu", "%+lld", "%llx"}, {"%s", "%s", "%10s", "%s"}, {"%f", "%g", "%.2f", "%12e"}};
  Random random(17);
  for (int i = 0; i < 20000 && !HasFatalFailure(); i++) {
    std::string format;
    for (unsigned k = 0, count = random.below(7); k <= count; k++) {
      format += random.below(2) ? "%%" : std::string(random.below(30), 'x');
      if (k < count) format += DIRECTIVES[k][random.below(4)];
    }
    const std::string text(random.below(random.below(2) ? 10 : 500), 'y');
    const auto wide = static_cast<long long>(random.engine_()) << random.below(31);
    const bool isLeast = random.below(8) == 0;
    expectExpanded(1 + random.below(random.below(2) ? 600 : 80), format, text.c_str(),
                   isLeast ? INT_MIN : static_cast<int>(wide),
                   isLeast ? LONG_MIN : static_cast<long>(wide), wide,
                   random.below(2) ? nullptr : "z", static_cast<double>(wide) / 8);
  }
  expectExpanded(20, "%*d|%c|%%", 7, -5, 'c');
  expectExpanded(20, "a%cb", 0);
}

// Cuts a text of more than INT_MAX characters as one of 6000.
TEST(Expand, CutsTextsOfAnyLength) {
  const char* const huge = hugeText();
  if (!huge) GTEST_SKIP() << "the address space has no room for such a text";
  const std::string large(2000, 'x');
  const auto expectCut = [&](const std::string& format, auto... args) {
    const char* const a = large.c_str();
    char expected[479], text[479];
    errno = ENOENT;
    std::snprintf(expected, sizeof expected, format.c_str(), args..., a, a, a, 7, L"wide");
    errno = ENOENT;
    EXPECT_EQ(
        Expander::call(text, sizeof text, format.c_str(), args..., huge, huge, huge, 7, L"wide"),
        static_cast<int>(std::strlen(expected)));
    EXPECT_STREQ(text, expected) << format;
    EXPECT_EQ(errno, ENOENT);
  };
  for (const char* format :
       {"%s%s%s", "%%a%s%s%s%d", "%-5s|%s%s%5d", "%m%%%1000s%s%s", "%.3s%-2s%s%+5d%ls",
        "%4$-12d%5$ls%1$s%2$s%3$s", "%4$d%1$*4$s%2$s%3$s"})
    expectCut(format);
  expectCut("%*d%-*s%s%s", 9, 8, 2);
  char text[479];
  EXPECT_EQ(Expander::call(text, sizeof text, "%0+ #'I3000000000d|", 0), 478);
  EXPECT_EQ(text, "+" + std::string(477, '0'));
  const char* impossible = "a%d%3000000000$d|";  // which no limit helps
  EXPECT_EQ(Expander::call(text, sizeof text, impossible, 5), 2) << text;
  EXPECT_EQ(Expander::call(text, sizeof text, "%ls", L"\xd800"), -1);
  const std::wstring brokenLate = std::wstring(600, L'x') + L"\xd800";
  EXPECT_EQ(Expander::call(text, sizeof text, "%ls", brokenLate.c_str()), 478);
  EXPECT_EQ(Expander::call(text, 0, "x"), -1);
}

// --- The sinks ---

[[gnu::format(printf, 3, 4)]] void write(Logger& sink, MessageClass cls, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  sink.print(cls, format, args);
  va_end(args);
}

struct SinkRow {
  std::function<Logger*()> make_;
  std::string file_, first_, start_, end_, last_;  // where lines go, and what stands around them
  std::size_t most_;                               // characters of a line
};

// In a child that has no terminal and no display, and that ends without a flush. The sink expands
// the caller's errno and keeps it.
void writeLines(const SinkRow& row, const TemporaryDirectory& directory) {
  setsid();
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) unsetenv(name);
  setenv("YSYS_DEBUG_CHANNEL", directory.write("debug", "").c_str(), 1);
  for (int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    const std::string path = directory.write(stream == STDOUT_FILENO ? "out" : "err", "");
    dup2(open(path.c_str(), O_WRONLY | O_APPEND), stream);
  }
  errno = ENOENT;
  Logger* const sink = row.make_();
  std::string expected = row.first_;
  for (unsigned length : {1u, 477u, 478u, 479u, 480u, 481u, 10000u}) {
    for (const std::string& format : {std::string("%s"), std::string("%-1s"), _errnoFormat}) {
      EXPECT_EQ(directory.read(row.file_), expected);
      const std::string text = "%n" + std::string(length, 'x');
      write(*sink, CLASSES[length % 4], format.c_str(), text.c_str());
      EXPECT_EQ(errno, ENOENT);
      const std::string start =
          format == _errnoFormat ? std::strerror(ENOENT) + std::string(", ") : "";
      if (row.most_ > 0) expected += row.start_ + (start + text).substr(0, row.most_) + row.end_;
    }
  }
  EXPECT_EQ(directory.read(row.file_), expected);
  delete sink;
  EXPECT_EQ(directory.read(row.file_), expected + row.last_);
  EXPECT_EQ(errno, ENOENT);
}

TEST(Sinks, WriteEachLineWholeAndKeepErrno) {
  const TemporaryDirectory directory;
  const std::string path = directory.pathOf("log"), fifo = directory.pathOf("fifo");
  mkfifo(fifo.c_str(), 0600);
  const auto inFile = [](const std::string& name, FileLogger::OpenMode mode, bool isValid = true) {
    return [=] {
      auto* const sink = new FileLogger(name.c_str(), mode);
      EXPECT_EQ(sink->valid(), isValid);
      return sink;
    };
  };
  const auto named = [] {
    char name[] = "%s";
    auto* const sink = new SystemLogger(name);
    name[1] = 'd';
    return sink;
  };
  const SinkRow rows[] = {
      {inFile(path, FileLogger::Append), "log", "old", "", "\r\n", "", 478},
      {inFile(path, FileLogger::Replace), "log", "", "", "\r\n", "", 478},
      {inFile(fifo, FileLogger::Append, false), "err", "", "", "", "", 0},
      {inFile("/none/such", FileLogger::Replace, false), "err", "", "", "", "", 0},
      {[] { return new StdLogger; }, "err", "", "", "\n", "", UINT_MAX},
      {[] { return new StdLogger(StdLogger::Stderr); }, "err", "", "", "\n", "", UINT_MAX},
      {[] { return new StdLogger(StdLogger::Stdout); }, "out", "", "", "\n", "", UINT_MAX},
      {[] { return new SystemLogger(nullptr); }, "debug", "", "", "\n", "", 478},
      {named, "debug", "%s: Initialised\n", "%s: ", "\n", "%s: Finish\n", 478},
      {[] { return new DialogLogger; }, "err", "", "Error: ", "\n\n", "", 478},
      {[] { return new NullLogger; }, "err", "", "", "", "", 0}};
  for (const SinkRow& row : rows) {
    SCOPED_TRACE(&row - rows);
    directory.write("log", "old");
    expectInChild([&] { writeLines(row, directory); });
  }
}

TEST(FileLogger, LosesAndTearsNoLineOfTwoProcesses) {
  const TemporaryDirectory directory;
  const auto lineOf = [](char process, unsigned i) { return std::string(1 + i % 478, process); };
  const auto writeAll = [&](char process) {
    FileLogger sink(directory.pathOf("log").c_str(), FileLogger::Append);
    for (unsigned i = 0; i < 4000; i++) write(sink, Info, "%s", lineOf(process, i).c_str());
    return 0;
  };
  const pid_t child = startChild([&] { return writeAll('B'); });
  writeAll('A');
  EXPECT_EQ(waitForChild(child), 0);
  unsigned found[2] = {};
  std::ifstream file(directory.pathOf("log"));
  for (std::string line; std::getline(file, line);)
    ASSERT_EQ(line, lineOf(line[0], found[line[0] == 'B']++) + "\r");
  EXPECT_THAT(found, testing::Each(4000u));
}

// A task prints to the sink, whose FIFO is full, and is cancelled; a line of another task follows.
void cancelWhilePrinting(Logger* sink, int fifo) {
  char text[4096] = {};
  EXPECT_EQ(::write(fifo, text, sizeof text), 4096);
  Log hub;
  hub.setLogger(sink);
  const auto print = [](void* log) -> void* {
    static_cast<Log*>(log)->print(Info, "c", -1, "f", 1, "line");
    return nullptr;
  };
  pthread_t task;
  EXPECT_EQ(pthread_create(&task, nullptr, print, &hub), 0);
  usleep(20000);
  EXPECT_EQ(pthread_cancel(task), 0);
  EXPECT_EQ(read(fifo, text, sizeof text), 4096);
  pthread_join(task, nullptr);
  print(&hub);
  const unsigned withSink = held();
  hub.setLogger(nullptr);
  EXPECT_LT(held(), withSink);
  const ssize_t size = read(fifo, text, sizeof text - 1);
  text[std::max<ssize_t>(size, 0)] = '\0';
  EXPECT_THAT(text, testing::MatchesRegex("(info.c.line\r?\n){2}"));
}

TEST(Sinks, FinishTheLineOfATaskThatIsCancelled) {
  const TemporaryDirectory directory;
  const std::string path = directory.pathOf("fifo");
  mkfifo(path.c_str(), 0600);
  const int fifo = open(path.c_str(), O_RDWR | O_NONBLOCK), usual = dup(STDERR_FILENO);
  fcntl(fifo, F_SETPIPE_SZ, 4096);
  cancelWhilePrinting(new FileLogger(path.c_str(), FileLogger::Append), fifo);
  freopen(path.c_str(), "w", stderr);
  cancelWhilePrinting(new StdLogger, fifo);
  dup2(usual, STDERR_FILENO);
  for (int each : {fifo, usual}) close(each);
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] double YIF_CurrentTime() noexcept {
  errno = EINVAL;
  return _now;
}
}
