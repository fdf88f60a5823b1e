// log.cpp: the hub: its categories, its filter, and the header that it puts before a message.
//
// The header and the message are put together in one text, which the sink expands as a format, so
// what the header tells is written such that a format gives it back.
#include "utils/sdk/log.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "utils/sdk/decimal.h"
#include "utils/sdk/kept_errno.h"
#include "utils/sdk/load_order.h"
#include "utils/sdk/string.h"
#include "utils/sdk/text_copy.h"

namespace Utils {

// --- The default sink ---

// The storage of Log::theDefaultLogger_, by its symbol: an empty Ref is null bytes, so it is there
// before any code runs, and with no object to destroy it serves to the end of the process.
extern unsigned char _defaultLogger[] asm("_ZN5Utils3Log17theDefaultLogger_E");
[[gnu::visibility("default")]] alignas(
    Ref<Logger>) constinit unsigned char _defaultLogger[sizeof(Ref<Logger>)] = {};

namespace {

// Lets go of the default sink when the library is unloaded. The hub may still hold it.
struct DefaultLoggerEnd {
  ~DefaultLoggerEnd() { *reinterpret_cast<Ref<Logger>*>(_defaultLogger) = Ref<Logger>(); }
};

[[gnu::init_priority(LOADED_DEFAULT_LOGGER)]] DefaultLoggerEnd _defaultLoggerEnd;

}  // namespace

Ref<Logger> Log::theDefaultLogger() {
  if (!theDefaultLogger_.valid()) theDefaultLogger_ = Ref<Logger>(new StdLogger);
  return theDefaultLogger_;
}

// --- The records ---

LogCat::LogCat(const char* name)
    : name_(copyOfText(name ? name : "")), enabled_(false), level_(0), verbosity_(0) {}

LogCat::~LogCat() { Allocator::theAllocator()->free(name_); }

int LogCat::operator==(const LogCat& other) const {
  return name_ && other.name_ && std::strcmp(name_, other.name_) == 0;
}

void* LogCat::operator new(std::size_t size) noexcept {
  return Allocator::theAllocator()->alloc(static_cast<unsigned>(size));
}

void LogCat::operator delete(void* mem) noexcept { Allocator::theAllocator()->free(mem); }

LogClass::LogClass() : name_(nullptr), count_(0) {}

LogClass::LogClass(const char* name) : logger_(Log::theDefaultLogger()), name_(name), count_(0) {}

// --- The hub ---

Log* Log::theLog_ = nullptr;

// Also there for who finds it by its symbol.
[[gnu::used]] static Log* (*const _accessor)() = &Log::theLog;

namespace {

constexpr unsigned CLASSES = 4;

// What theLog() gives as long as there is no memory for the hub.
alignas(Log) unsigned char _mute[sizeof(Log)];

}  // namespace

Log* Log::makeTheLog() {
  const KeptErrno kept;
  Log* made = new Log;
  if (made && !made->isWhole()) {
    delete made;
    made = nullptr;
  }
  theLog_ = made;
  static Log* mute = ::new (_mute) Log(Mute());
  return made ? made : mute;
}

Log::Log() : enabled_(false), level_(0), verbosity_(0) {
  classes_.sizeTo(CLASSES);
  if (classes_.size() != CLASSES) return;
  classes_[Error] = LogClass("error");
  classes_[Warning] = LogClass("warning");
  classes_[Debug] = LogClass("debug");
  classes_[Info] = LogClass("info");
  initialiseFromConfig();
}

Log::Log(Mute) : enabled_(false), level_(0), verbosity_(0) {}

Log::~Log() {
  for (LogCat* category : categories_) delete category;
}

// Whether there was memory for the classes and their sinks.
bool Log::isWhole() const {
  for (const LogClass& each : classes_) {
    if (!each.logger_.valid()) return false;
  }
  return classes_.size() == CLASSES;
}

// --- Categories ---

namespace {

// The category that was found last for the address of a name. It is a guess: the name decides, so
// an address that another name has come to and a hub of somebody's own do no harm.
std::atomic<unsigned>& guessFor(const char* name) {
  constexpr unsigned SLOTS = 64;
  static constinit std::atomic<unsigned> _guesses[SLOTS] = {};
  return _guesses[reinterpret_cast<std::uintptr_t>(name) % SLOTS];
}

bool same(const char* a, const char* b) {
  while (*a == *b) {
    if (*a == '\0') return true;
    a++;
    b++;
  }
  return false;
}

}  // namespace

inline unsigned Log::find(const char* name) {
  const unsigned guess = guessFor(name).load(std::memory_order_relaxed);
  if (guess < categories_.size() && same(categories_[guess]->name_, name)) return guess;
  return search(name);
}

unsigned Log::search(const char* name) {
  unsigned cat = 0;
  while (cat < categories_.size() && !same(categories_[cat]->name_, name)) cat++;
  if (cat == categories_.size()) cat = addCategory(name);
  guessFor(name).store(cat, std::memory_order_relaxed);
  return cat;
}

unsigned Log::getCategory(const char* name) { return find(name ? name : ""); }

unsigned Log::addCategory(const char* name) {
  const KeptErrno kept;
  auto* category = new LogCat(name);
  unsigned cat = static_cast<unsigned>(-1);
  if (category && category->name_) {
    category->level_ = level_;
    category->enabled_ = enabled_;
    category->verbosity_ = verbosity_;
    cat = categories_.add(category);
  }
  if (cat == static_cast<unsigned>(-1)) delete category;
  return cat;
}

unsigned Log::getCategory(const char* name, int level, bool enabled, unsigned verbosity) {
  const unsigned cat = getCategory(name);
  setLevel(cat, level);
  setEnabled(cat, enabled);
  setVerbosity(cat, verbosity);
  return cat;
}

unsigned Log::getCategory(const char* name, int level, bool enabled) {
  return getCategory(name, level, enabled, verbosity_);
}

const char* Log::getCategory(unsigned cat) {
  return cat < categories_.size() ? categories_[cat]->name_ : nullptr;
}

// --- Printing ---

namespace {

// A format in the making. It stays on the stack as long as it is short.
struct Line {
  void add(const char* text, std::size_t size) {
    while (size > sizeof room_ - used_) {
      const std::size_t fits = sizeof room_ - used_;
      put(text, fits);
      spill();
      text += fits;
      size -= fits;
    }
    put(text, size);
  }
  void add(const char* text) { add(text, std::strlen(text)); }
  void add(char c) {
    if (used_ == sizeof room_) spill();
    room_[used_++] = c;
  }
  void addSafely(const char* text);
  void add(unsigned long number, unsigned digits);
  void add(unsigned long number) { add(number, decimalSize(number)); }
  void addSeconds(double seconds);

  // The whole; null when there was no memory for it. Valid as long as this.
  const char* text() {
    add('\0');
    if (start_.size() == 0 && !failed_) return room_;
    spill();
    return failed_ ? nullptr : static_cast<const char*>(start_);
  }

 private:
  void put(const char* text, std::size_t size) {
    std::memcpy(room_ + used_, text, size);
    used_ += size;
  }
  void spill() {
    const unsigned size = start_.size() + static_cast<unsigned>(used_);
    failed_ = failed_ || start_.append(room_, static_cast<unsigned>(used_)).size() != size;
    used_ = 0;
  }

  String start_;  // what did not stay in the room
  bool failed_ = false;
  std::size_t used_ = 0;
  char room_[512];
};

// A text such that a format gives it back.
void Line::addSafely(const char* text) {
  if (!text) return;
  while (const char* percent = std::strchr(text, '%')) {
    add(text, static_cast<std::size_t>(percent + 1 - text));
    add('%');
    text = percent + 1;
  }
  add(text);
}

void Line::add(unsigned long number, unsigned digits) {
  if (sizeof room_ - used_ < digits) spill();
  putDecimal(room_ + used_, number, digits);
  used_ += digits;
}

// As "%f" writes it where the decimal point is a point. From 2^9 to 2^32 - 1 the fraction has no
// more than 43 bits, and a million times as many units fit into 64: the digits come from one
// product, rounded to even as printf does it, in a tenth of its time.
void Line::addSeconds(double seconds) {
  constexpr unsigned BITS = 43;
  if (!(seconds >= 512 && seconds < 4294967295.0)) {
    char text[384];  // longer than the digits of any double
    add(text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "%f", seconds)));
    return;
  }
  auto whole = static_cast<std::uint32_t>(seconds);
  const auto fraction = static_cast<std::uint64_t>((seconds - whole) * (std::uint64_t{1} << BITS));
  const std::uint64_t product = fraction * 1000000;
  const std::uint64_t rest = product & ((std::uint64_t{1} << BITS) - 1);
  auto micros = static_cast<std::uint32_t>(product >> BITS);
  const std::uint64_t half = std::uint64_t{1} << (BITS - 1);
  if (rest > half || (rest == half && micros % 2 != 0)) micros++;
  whole += micros / 1000000;
  add(static_cast<unsigned long>(whole));
  add('.');
  add(static_cast<unsigned long>(micros % 1000000), 6);
}

void itemHeader(const char* className, const char* category, int level, const char* file,
                unsigned line, Line& out, unsigned verbosity) {
  out.add(className);
  if (level >= 0) {
    out.add('[');
    out.add(static_cast<unsigned long>(level));
    out.add(']');
  }
  out.add('|');
  out.addSafely(category);
  if (verbosity == 0) return;
  out.add('|');
  out.addSafely(file);
  out.add(':');
  out.add(static_cast<unsigned long>(line));
  if (verbosity == 1) return;
  out.add('|');
  out.addSeconds(YIF_CurrentTime());
  out.add('|');
  out.add(YIF_CurrentTaskId());
}

}  // namespace

void Log::print(MessageClass cls, unsigned cat, int level, const char* file, unsigned line,
                const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  printAux(cls, cat, level, file, line, format, args);
  va_end(args);
}

void Log::print(MessageClass cls, const char* category, int level, const char* file, unsigned line,
                const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  printAux(cls, find(category ? category : ""), level, file, line, format, args);
  va_end(args);
}

bool Log::willPrint(MessageClass cls, const char* category, int level) {
  return willPrint(cls, find(category ? category : ""), level);
}

// The sink is held, since what it does may change the hub.
void Log::printAux(MessageClass cls, unsigned cat, int level, const char* file, unsigned line,
                   const char* format, std::va_list& args) {
  if (!willPrint(cls, cat, level)) return;
  const KeptErrno kept;
  classes_[cls].count_++;
  const Ref<Logger> sink = classes_[cls].logger_;
  Line text;
  itemHeader(classes_[cls].name_, categories_[cat]->name_, level, file, line, text, verbosity_);
  text.add('|');
  text.add(format ? format : "");
  if (const char* whole = text.text()) {
    kept.putBack();
    sink->print(cls, whole, args);
  }
}

// --- Sinks, settings and counts ---

void Log::setLogger(Logger* logger) {
  const Ref<Logger> sink(logger);
  for (LogClass& target : classes_) target.logger_ = sink;
}

void Log::setLogger(MessageClass cls, Logger* logger) {
  const Ref<Logger> sink(logger);
  if (cls < classes_.size()) classes_[cls].logger_ = sink;
}

void Log::setLevel(int level) {
  level_ = level;
  for (LogCat* category : categories_) category->level_ = level;
}

void Log::setLevel(unsigned cat, int level) {
  if (cat < categories_.size()) categories_[cat]->level_ = level;
}

int Log::level(unsigned cat) const {
  return cat < categories_.size() ? categories_[cat]->level_ : level_;
}

void Log::setEnabled(bool enabled) {
  enabled_ = enabled;
  for (LogCat* category : categories_) category->enabled_ = enabled;
}

void Log::setEnabled(unsigned cat, bool enabled) {
  if (cat < categories_.size()) categories_[cat]->enabled_ = enabled;
}

bool Log::enabled(unsigned cat) const {
  return cat < categories_.size() ? categories_[cat]->enabled_ : enabled_;
}

void Log::setVerbosity(unsigned verbosity) {
  verbosity_ = verbosity;
  for (LogCat* category : categories_) category->verbosity_ = verbosity;
}

void Log::setVerbosity(unsigned cat, unsigned verbosity) {
  if (cat < categories_.size()) categories_[cat]->verbosity_ = verbosity;
}

unsigned Log::verbosity(unsigned cat) const {
  return cat < categories_.size() ? categories_[cat]->verbosity_ : verbosity_;
}

void Log::resetLogStats() {
  for (LogClass& counted : classes_) counted.count_ = 0;
}

void Log::logStats(unsigned& errors, unsigned& warnings, unsigned& infos, unsigned& debugs) const {
  unsigned* const counts[CLASSES] = {&errors, &warnings, &infos, &debugs};
  for (unsigned cls = 0; cls < CLASSES; cls++)
    *counts[cls] = cls < classes_.size() ? classes_[cls].count_ : 0;
}

}  // namespace Utils
