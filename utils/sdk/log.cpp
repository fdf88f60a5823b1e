// SPDX-License-Identifier: MIT
// The hub: its records, its filter, its sinks and settings.
#include "utils/sdk/log.h"

#include <atomic>
#include <cstdint>
#include <cstring>

#include "utils/sdk/base/errno_saver.h"
#include "utils/sdk/base/late_immortal.h"
#include "utils/sdk/base/load_order.h"
#include "utils/sdk/logging/log_line.h"
#include "utils/sdk/memory/text_copy.h"

namespace Utils {

// --- The default sink ---

constinit Immortal<Ref<Logger>> Log::theDefaultLogger_;

// Releases the default sink when the library is unloaded. The hub may still hold it.
struct DefaultLoggerEnd {
  ~DefaultLoggerEnd() { Log::theDefaultLogger_.object_ = Ref<Logger>(); }
};

[[gnu::init_priority(LOADED_DEFAULT_LOGGER)]] static DefaultLoggerEnd _defaultLoggerEnd;

Ref<Logger> Log::theDefaultLogger() {
  Ref<Logger>& sink = theDefaultLogger_;
  if (!sink.valid()) sink = Ref<Logger>(new StdLogger);
  return sink;
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

// Forces an exported out-of-line copy of the inline function, for callers that look it up by its
// symbol.
[[gnu::used]] static Log* (*const _accessor)() = &Log::theLog;

namespace {

constexpr unsigned CLASSES = Debug + 1;

// The hub that theLog() returns while there is no memory for the real one.
constinit LateImmortal<Log> _mute;

}  // namespace

Log* Log::makeTheLog() {
  const ErrnoSaver saver;
  Log* made = new Log;
  if (made && !made->isWhole()) {
    delete made;
    made = nullptr;
  }
  theLog_ = made;
  Log& mute = _mute.make(Mute());
  return made ? made : &mute;
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

// False if there was no memory for the classes or their sinks.
bool Log::isWhole() const {
  for (const LogClass& each : classes_) {
    if (!each.logger_.valid()) return false;
  }
  return classes_.size() == CLASSES;
}

// --- Categories ---

namespace {

// Cache from name pointer to category number. Only a hint: the name is always compared, so a reused
// address or a second hub is harmless.
std::atomic<unsigned>& cachedCategory(const char* name) {
  constexpr unsigned SLOTS = 64;
  static constinit std::atomic<unsigned> _cached[SLOTS] = {};
  return _cached[reinterpret_cast<std::uintptr_t>(name) % SLOTS];
}

bool equal(const char* a, const char* b) {
  while (*a == *b) {
    if (*a == '\0') return true;
    a++;
    b++;
  }
  return false;
}

}  // namespace

inline unsigned Log::findOrAdd(const char* name) {
  const unsigned cached = cachedCategory(name).load(std::memory_order_relaxed);
  if (cached < categories_.size() && equal(categories_[cached]->name_, name)) return cached;
  return search(name);
}

unsigned Log::search(const char* name) {
  unsigned cat = 0;
  while (cat < categories_.size() && !equal(categories_[cat]->name_, name)) cat++;
  if (cat == categories_.size()) cat = addCategory(name);
  cachedCategory(name).store(cat, std::memory_order_relaxed);
  return cat;
}

unsigned Log::getCategory(const char* name) { return findOrAdd(name ? name : ""); }

unsigned Log::addCategory(const char* name) {
  const ErrnoSaver saver;
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
  printAux(cls, findOrAdd(category ? category : ""), level, file, line, format, args);
  va_end(args);
}

bool Log::willPrint(MessageClass cls, const char* category, int level) {
  return willPrint(cls, findOrAdd(category ? category : ""), level);
}

// Holds a reference to a sink while it prints, since a sink may replace itself in the hub. Several
// tasks may print at once, so the count is changed atomically, unlike by a Ref.
struct SinkHold {
  explicit SinkHold(Logger* sink) : sink_(sink) {
    __atomic_fetch_add(&sink_->refCount_, 1, __ATOMIC_RELAXED);
  }
  ~SinkHold() {
    if (__atomic_sub_fetch(&sink_->refCount_, 1, __ATOMIC_ACQ_REL) == 0) delete sink_;
  }
  SinkHold(const SinkHold&) = delete;
  SinkHold& operator=(const SinkHold&) = delete;

  Logger* const sink_;
};

void Log::printAux(MessageClass cls, unsigned cat, int level, const char* file, unsigned line,
                   const char* format, std::va_list& args) {
  if (!willPrint(cls, cat, level)) return;
  const ErrnoSaver saver;
  __atomic_fetch_add(&classes_[cls].count_, 1, __ATOMIC_RELAXED);
  const SinkHold hold(classes_[cls].logger_.operator->());
  const LogLine text(classes_[cls].name_, categories_[cat]->name_, level, file, line, format,
                     verbosity_);
  if (!text.text()) return;
  saver.restore();
  hold.sink_->print(cls, text.text(), args);
}

// --- Sinks, settings and counts ---

void Log::setLogger(Logger* logger) {
  // The former sinks are destroyed after all classes are set: a destructor may set them again.
  const Ref<Logger> sink(logger);
  Ref<Logger> former[CLASSES];
  for (unsigned cls = 0; cls < classes_.size(); cls++) {
    former[cls] = classes_[cls].logger_;
    classes_[cls].logger_ = sink;
  }
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
  for (LogClass& counted : classes_) __atomic_store_n(&counted.count_, 0, __ATOMIC_RELAXED);
}

void Log::logStats(unsigned& errors, unsigned& warnings, unsigned& infos, unsigned& debugs) const {
  unsigned* const counts[CLASSES] = {&errors, &warnings, &infos, &debugs};
  for (unsigned cls = 0; cls < CLASSES; cls++)
    *counts[cls] =
        cls < classes_.size() ? __atomic_load_n(&classes_[cls].count_, __ATOMIC_RELAXED) : 0;
}

}  // namespace Utils
