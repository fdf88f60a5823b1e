// SPDX-License-Identifier: MIT
// The process's log: the hub, which filters messages and adds a header, and the sinks that write
// them.
//
// A message has a class (how bad), a category (which part of the program, by name or number), a
// level (how much detail) and a place in the source. The hub filters the message, puts a header
// before it and passes it to the sink of its class. Only debug messages are filtered: they pass if
// the flag of their category is set and their level is not above that of the category. Each class
// counts the messages that pass. The hub's verbosity selects the header. Lines at 0, 1 and 2 (from
// 2 on with the time and the number of the task):
//
//   debug[2]|net|3 bytes came
//   debug[2]|net|net.cpp:49|3 bytes came
//   debug[2]|net|net.cpp:49|1795392000.250000|2480|3 bytes came
//
// The first theLog() creates the hub from the settings YUtils.Log.*. It lives until the process
// ends: destructors of static objects and handlers at exit may log. Nothing is reported to the
// caller, and a call leaves `errno` as it was; a line that cannot be written, or for which there is
// no memory, is dropped.
//
// Thread safety: several tasks may print and call willPrint, resetLogStats and logStats at the same
// time, while no task adds a category or changes a sink or a setting. The caller serialises those
// changes, and the first theLog(), with everything else here. No line takes memory of the process
// allocator; a line whose format is longer than some 500 characters takes memory of the runtime
// library. A line of a FileLogger or a StdLogger is never interrupted by another task's; between a
// SystemLogger's name and its line another task's line may appear.
#pragma once

#include <cstdarg>

#include "utils/sdk/base/immortal.h"
#include "utils/sdk/export.h"
#include "utils/sdk/object.h"
#include "utils/sdk/vector.h"
#include "utils/sdk/ysys.h"

// A program may have macros of these names. They are set aside up to the end of this header.
#pragma push_macro("Error")
#pragma push_macro("Warning")
#pragma push_macro("Info")
#pragma push_macro("Debug")
#undef Error
#undef Warning
#undef Info
#undef Debug

namespace Utils {

template <class T>
struct LateImmortal;

enum MessageClass { Error, Warning, Info, Debug };

// The same classes, for programs that have macros of those names.
constexpr MessageClass ErrorClass = Error;
constexpr MessageClass WarningClass = Warning;
constexpr MessageClass InfoClass = Info;
constexpr MessageClass DebugClass = Debug;

// --- Sinks ---

// The sink of one or more classes. Created with new; owned by the Refs to it, such as those in the
// hub. A sink of your own needs one operation:
//
//   struct ConsoleLogger : Utils::Logger {
//     void print(Utils::MessageClass, const char* format, std::va_list args) override {
//       const BoundedLine line(format, args, "\r\n");
//       if (line.valid()) writeToConsole(line.text(), line.size());
//     }
//   };
//   Utils::Log::theLog()->setLogger(new ConsoleLogger);
//
// Thread safety: several tasks may call print at once, if several tasks print to the hub.
struct YUTILS_EXPORT Logger : Object {
  ~Logger() override;

  // Writes one line: `format`, header included and without a line end, expanded with `args`, which
  // can be read once (va_copy makes another list). Leaves `errno` as it was.
  virtual void print(MessageClass cls, const char* format, std::va_list args) = 0;

 protected:
  // An expanded line, cut after 478 characters, and its end, a literal of at most 2 characters. It
  // lies on the stack and takes no memory of the process allocator. Its destructor restores
  // `errno`.
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

  // Expands as vsnprintf does, quicker for plain %s, %d, %u, %ld and %lu. Returns the length of
  // `text` up to its first NUL, or -1 if the format cannot be expanded or `size` is 0. Leaves
  // `errno` as it was.
  static int expand(char* text, unsigned size, const char* format, std::va_list args);
};

extern template struct YUTILS_EXPORT Ref<Logger>;

// Drops every line.
struct YUTILS_EXPORT NullLogger : Logger {
  ~NullLogger() override;
  void print(MessageClass cls, const char* format, std::va_list args) override;
};

// Writes to a file. Lines are cut after 478 characters and end in "\r\n". Each is passed to the
// system in one write, before print returns: several processes may append to one file.
struct YUTILS_EXPORT FileLogger : Logger {
  enum OpenMode { Replace, Append };

  FileLogger(const char* path, OpenMode mode);
  FileLogger(const FileLogger&) = delete;
  FileLogger& operator=(const FileLogger&) = delete;
  ~FileLogger() override;

  bool valid() const { return handle_ != YIF_NO_FILE; }  // if false, every line is dropped
  void print(MessageClass cls, const char* format, std::va_list args) override;

 private:
  YIF_Handle handle_;
};

// Writes to a stream of the runtime library and flushes it after each line. Lines may have any
// length.
struct YUTILS_EXPORT StdLogger : Logger {
  enum Channel { Stdout, Stderr };

  StdLogger(Channel channel = Stderr) : channel_(channel) {}
  ~StdLogger() override;
  void print(MessageClass cls, const char* format, std::va_list args) override;

 private:
  Channel channel_;
};

// Writes to the debugger channel (platform.h). Lines are cut after 478 characters. The name is
// written before each line, and in a line of its own when the sink is created and destroyed.
struct YUTILS_EXPORT SystemLogger : Logger {
  SystemLogger(const char* name);  // copies it to memory of the runtime library; null for none
  SystemLogger(const SystemLogger&) = delete;
  SystemLogger& operator=(const SystemLogger&) = delete;
  ~SystemLogger() override;
  void print(MessageClass cls, const char* format, std::va_list args) override;

 private:
  char* name_;
};

// Shows a message on screen (platform.h), cut after 478 characters; print waits for the answer.
struct YUTILS_EXPORT DialogLogger : Logger {
  ~DialogLogger() override;
  void print(MessageClass cls, const char* format, std::va_list args) override;
};

// --- The records of the hub ---

// A category. `enabled_` and `level_` filter its debug messages.
struct YUTILS_EXPORT LogCat {
  LogCat(const char* name);  // copies the name; name_ is null if there is no memory
  LogCat(const LogCat&) = delete;
  LogCat& operator=(const LogCat&) = delete;
  ~LogCat();

  int operator==(const LogCat& other) const;  // returns 1 if the names are equal, else 0

  // Returns null, and no constructor runs, if there is no memory.
  static void* operator new(std::size_t size) noexcept;
  static void operator delete(void* mem) noexcept;

  char* name_;
  bool enabled_;        // debug messages may pass
  int level_;           // up to this level
  unsigned verbosity_;  // kept for the caller; lines use that of the hub
};

// A message class.
struct YUTILS_EXPORT LogClass {
  LogClass();                  // no sink, no name
  LogClass(const char* name);  // the default sink; borrows the name
  LogClass(const LogClass&) = default;
  LogClass& operator=(const LogClass&) = default;

  int operator==(const LogClass&) const { return 0; }

  Ref<Logger> logger_;  // if empty, no message of the class passes
  const char* name_;
  unsigned count_;  // messages that have passed
};

// --- The hub ---

struct YUTILS_EXPORT Log : Object {
  // Never null. While there is no memory for the hub, returns one that no message passes. Valid
  // until the process ends.
  static Log* theLog() { return theLog_ ? theLog_ : makeTheLog(); }
  // Returns the sink with which a hub starts, a StdLogger on standard error; empty if there is no
  // memory for it.
  static Ref<Logger> theDefaultLogger();

  Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  ~Log() override;

  // Returns the number of a category; a new name adds a category, with the hub's settings. Numbers
  // count from 0 and stay valid. Returns (unsigned)-1, which is never the number of a category, if
  // there is no memory. Names are case-sensitive; a null name counts as empty.
  unsigned getCategory(const char* name);
  // The same, and sets the category's level, flag and verbosity, even if it existed before.
  unsigned getCategory(const char* name, int level, bool enabled, unsigned verbosity);
  unsigned getCategory(const char* name, int level, bool enabled);
  const char* getCategory(unsigned cat);  // returns its name; null for an unknown number

  // Prints one message as printf would. A negative level is not shown. Call willPrint first if the
  // arguments are expensive.
  void print(MessageClass cls, unsigned cat, int level, const char* file, unsigned line,
             const char* format, ...) __attribute__((format(printf, 7, 8)));
  // By name: adds the category if the name is new, even if the message does not pass.
  void print(MessageClass cls, const char* category, int level, const char* file, unsigned line,
             const char* format, ...) __attribute__((format(printf, 7, 8)));

  // Returns true if such a message would pass.
  bool willPrint(MessageClass cls, unsigned cat, int level) {
    if (__builtin_expect(cat >= categories_.size(), false)) return false;
    const LogCat& category = *categories_[cat];
    if (cls == Debug && __builtin_expect(!category.enabled_ || level > category.level_, true))
      return false;
    return cls < classes_.size() && classes_[cls].logger_.valid();
  }
  bool willPrint(MessageClass cls, const char* category, int level);  // adds a new name, too

  // Set the sink of all classes, or of one; null for none. The hub owns it by Refs.
  void setLogger(Logger* logger);
  void setLogger(MessageClass cls, Logger* logger);

  // Setters without a category number set the hub's value, which new categories get, and that of
  // all existing categories. With an unknown number, setters do nothing and getters return the
  // hub's value.
  void setLevel(int level);
  void setLevel(unsigned cat, int level);
  int level() const { return level_; }
  int level(unsigned cat) const;
  void setEnabled(bool enabled);
  void setEnabled(unsigned cat, bool enabled);
  bool enabled() const { return enabled_; }
  bool enabled(unsigned cat) const;
  void setVerbosity(unsigned verbosity);  // the hub's value also selects the header of the lines
  void setVerbosity(unsigned cat, unsigned verbosity);
  unsigned verbosity() const { return verbosity_; }
  unsigned verbosity(unsigned cat) const;

  // The number of messages of each class that have passed since the start or the last reset.
  void resetLogStats();
  void logStats(unsigned& errors, unsigned& warnings, unsigned& infos, unsigned& debugs) const;

 private:
  friend struct DebuggerLayout;
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

#pragma pop_macro("Error")
#pragma pop_macro("Warning")
#pragma pop_macro("Info")
#pragma pop_macro("Debug")
