// SPDX-License-Identifier: MIT
// The process's log: what may be told, in which words, and where it goes.
//
// A message has a class (how bad), a category (who speaks, by name or number), a level (how much
// detail) and the place in the source. The hub decides whether it goes out, puts a header before
// it and hands it to the sink of its class. Debug messages alone are filtered, by the flag and the
// level of their category; each class counts what it lets through. At verbosity 0, 1 and 2:
//
//   debug[2]|net|3 bytes came
//   debug[2]|net|net.cpp:49|3 bytes came
//   debug[2]|net|net.cpp:49|1795392000.250000|2480|3 bytes came
//
// The hub is made by the first theLog(), from the settings YUtils.Log.*, and lives to the end of
// the process: destructors of static objects and handlers at exit may log. Nothing is reported to
// the caller, and a call leaves `errno` as it was; what cannot be written is dropped, and so is
// what there is no memory for.
//
// Thread safety: several tasks may print, ask willPrint and count at the same time while nobody
// makes a category or changes a sink or a setting; these, and the first theLog(), are serialised by
// the caller with everything else here. No line takes memory of the process allocator; one whose
// format is longer than some 500 characters takes memory of the runtime library. Lines of other
// tasks do not come into a line of a FileLogger or a StdLogger; they may come between a
// SystemLogger's name and its line.
#pragma once

#include <cstdarg>

#include "utils/sdk/base/immortal.h"
#include "utils/sdk/export.h"
#include "utils/sdk/object.h"
#include "utils/sdk/vector.h"
#include "utils/sdk/ysys.h"

namespace Utils {

template <class T>
struct LateImmortal;

enum MessageClass { Error, Warning, Info, Debug };

// --- Sinks ---

// The sink of one or more classes. Created with new; owned by the Refs to it, as those in the hub.
// A sink of your own needs one operation:
//
//   struct ConsoleLogger : Utils::Logger {
//     void print(Utils::MessageClass, const char* format, std::va_list args) override {
//       const BoundedLine line(format, args, "\r\n");
//       if (line.valid()) writeToConsole(line.text(), line.size());
//     }
//   };
//   Utils::Log::theLog()->setLogger(new ConsoleLogger);
//
// Thread safety: several tasks may be in print at once, if several tasks print.
struct YUTILS_EXPORT Logger : Object {
  ~Logger() override;

  // Writes one line: `format`, header included and without a line end, expanded with `args`, which
  // can be read once (va_copy makes another list). Leaves `errno` as it was.
  virtual void print(MessageClass cls, const char* format, std::va_list args) = 0;

 protected:
  // An expanded line, cut after 478 characters, and its end, a literal of at most 2. It lies on the
  // stack and takes no memory of the process allocator. Restores `errno` when it is destroyed.
  struct BoundedLine {
    template <unsigned N>
    BoundedLine(const char* format, std::va_list args, const char (&end)[N])
        : BoundedLine(end, N - 1, format, args) {
      static_assert(N - 1 <= LONGEST_END);
    }
    BoundedLine(const BoundedLine&) = delete;
    BoundedLine& operator=(const BoundedLine&) = delete;
    ~BoundedLine();

    bool valid() const { return isValid_; }     // false if the format cannot be expanded
    const char* text() const { return text_; }  // with the end; empty unless valid()
    unsigned size() const { return size_; }     // of text()

   private:
    BoundedLine(const char* end, unsigned endSize, const char* format, std::va_list args);

    static constexpr unsigned LONGEST_TEXT = 478, LONGEST_END = 2;

    const int errno_;
    bool isValid_ = false;
    unsigned size_ = 0;
    char text_[LONGEST_TEXT + LONGEST_END + 1];
  };

  // As vsnprintf, and quicker for plain %s, %d, %u, %ld and %lu. Returns the length of `text` up to
  // its first NUL, or -1 if the format cannot be expanded or `size` is 0. Leaves `errno` as it was.
  static int expand(char* text, unsigned size, const char* format, std::va_list args);
};

extern template struct YUTILS_EXPORT Ref<Logger>;

struct YUTILS_EXPORT NullLogger : Logger {
  ~NullLogger() override;
  void print(MessageClass cls, const char* format, std::va_list args) override;
};

// A file. Lines are cut after 478 characters, end in "\r\n" and are each with the system before
// print returns, in one write: several processes may append to one file.
struct YUTILS_EXPORT FileLogger : Logger {
  enum OpenMode { Replace, Append };

  FileLogger(const char* path, OpenMode mode);
  FileLogger(const FileLogger&) = delete;
  FileLogger& operator=(const FileLogger&) = delete;
  ~FileLogger() override;

  bool valid() const { return handle_ != YIF_NO_FILE; }  // else every line is dropped
  void print(MessageClass cls, const char* format, std::va_list args) override;

 private:
  YIF_Handle handle_;
};

// A stream of the runtime library, flushed after each line. Lines may have any length.
struct YUTILS_EXPORT StdLogger : Logger {
  enum Channel { Stdout, Stderr };

  StdLogger(Channel channel = Stderr) : channel_(channel) {}
  ~StdLogger() override;
  void print(MessageClass cls, const char* format, std::va_list args) override;

 private:
  Channel channel_;
};

// The debugger channel (platform.h). Lines are cut after 478 characters. A name, of which a copy is
// kept, stands before each line, and is announced when the sink is made and when it ends.
struct YUTILS_EXPORT SystemLogger : Logger {
  SystemLogger(const char* name);  // null for none
  SystemLogger(const SystemLogger&) = delete;
  SystemLogger& operator=(const SystemLogger&) = delete;
  ~SystemLogger() override;
  void print(MessageClass cls, const char* format, std::va_list args) override;

 private:
  char* name_;
};

// A message on screen (platform.h), cut after 478 characters. The caller waits for the answer.
struct YUTILS_EXPORT DialogLogger : Logger {
  ~DialogLogger() override;
  void print(MessageClass cls, const char* format, std::va_list args) override;
};

// --- The records of the hub ---

struct YUTILS_EXPORT LogCat {
  LogCat(const char* name);  // copies the name; name_ is null when there is no memory
  LogCat(const LogCat&) = delete;
  LogCat& operator=(const LogCat&) = delete;
  ~LogCat();

  int operator==(const LogCat& other) const;  // 1 when the names are equal, else 0

  // Null, and no constructor runs, when there is no memory.
  static void* operator new(std::size_t size) noexcept;
  static void operator delete(void* mem) noexcept;

  char* name_;
  bool enabled_;        // debug messages may go out
  int level_;           // the highest level that they may have
  unsigned verbosity_;  // kept for the caller; the lines have the hub's
};

struct YUTILS_EXPORT LogClass {
  LogClass();                  // no sink, no name
  LogClass(const char* name);  // the default sink; borrows the name
  LogClass(const LogClass&) = default;
  LogClass& operator=(const LogClass&) = default;

  int operator==(const LogClass&) const { return 0; }

  Ref<Logger> logger_;  // empty: nothing of the class goes out
  const char* name_;
  unsigned count_;  // messages let through
};

// --- The hub ---

struct YUTILS_EXPORT Log : Object {
  // The hub, never null; one that lets nothing through as long as there is no memory to make it.
  static Log* theLog() { return theLog_ ? theLog_ : makeTheLog(); }
  // A StdLogger on standard error; empty when there is no memory for it.
  static Ref<Logger> theDefaultLogger();

  Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  ~Log() override;

  // The number of a category, which is made with the hub's settings where the name is new. Numbers
  // count from 0 and stay valid; (unsigned)-1 when there is no memory, which no operation takes for
  // a category. Names are compared by case.
  unsigned getCategory(const char* name);
  // The same, and sets what is told, also where the category was there.
  unsigned getCategory(const char* name, int level, bool enabled, unsigned verbosity);
  unsigned getCategory(const char* name, int level, bool enabled);
  const char* getCategory(unsigned cat);  // its name; null for a number not given out

  // Prints one message as printf would. A level of 0 or more is shown. Ask willPrint before when
  // the arguments cost something.
  void print(MessageClass cls, unsigned cat, int level, const char* file, unsigned line,
             const char* format, ...) __attribute__((format(printf, 7, 8)));
  // By name: makes the category where it is new, whatever becomes of the message.
  void print(MessageClass cls, const char* category, int level, const char* file, unsigned line,
             const char* format, ...) __attribute__((format(printf, 7, 8)));

  // Whether such a message would go out.
  bool willPrint(MessageClass cls, unsigned cat, int level) {
    if (__builtin_expect(cat >= categories_.size(), false)) return false;
    const LogCat& category = *categories_[cat];
    if (cls == Debug && __builtin_expect(!category.enabled_ || level > category.level_, true))
      return false;
    return cls < classes_.size() && classes_[cls].logger_.valid();
  }
  bool willPrint(MessageClass cls, const char* category, int level);

  // The sink of all classes, or of one; null for none.
  void setLogger(Logger* logger);
  void setLogger(MessageClass cls, Logger* logger);

  // Without a category: the setting that new categories begin with, and of all that there are. With
  // a number that was not given out the setters do nothing, and the hub's setting is told.
  void setLevel(int level);
  void setLevel(unsigned cat, int level);
  int level() const { return level_; }
  int level(unsigned cat) const;
  void setEnabled(bool enabled);
  void setEnabled(unsigned cat, bool enabled);
  bool enabled() const { return enabled_; }
  bool enabled(unsigned cat) const;
  void setVerbosity(unsigned verbosity);  // that of the lines too
  void setVerbosity(unsigned cat, unsigned verbosity);
  unsigned verbosity() const { return verbosity_; }
  unsigned verbosity(unsigned cat) const;

  // The messages of each class that were let through since the start or the last reset.
  void resetLogStats();
  void logStats(unsigned& errors, unsigned& warnings, unsigned& infos, unsigned& debugs) const;

 private:
  friend struct DefaultLoggerEnd;
  friend struct TraceCategory;
  friend struct LateImmortal<Log>;

  struct Mute {};
  explicit Log(Mute);
  static Log* makeTheLog();

  void printAux(MessageClass cls, unsigned cat, int level, const char* file, unsigned line,
                const char* format, std::va_list& args);
  unsigned findOrAdd(const char* name);
  unsigned search(const char* name);
  unsigned addCategory(const char* name);
  bool isWhole() const;
  void initialiseFromConfig();
  void enableCategories(const char* list, bool enable);

  Vector<LogCat*> categories_;
  Vector<LogClass> classes_;
  bool enabled_;
  int level_;
  unsigned verbosity_;

  static Log* theLog_;
  static Immortal<Ref<Logger>> theDefaultLogger_;
};

}  // namespace Utils
