// SPDX-License-Identifier: MIT
// The initial settings of the hub, read once from the system layer.
//
// An invalid setting is ignored silently, like a missing one.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "utils/sdk/log.h"

namespace Utils {

namespace {

// The values of YUtils.Log.Enabled.
enum Enabled : unsigned { NONE, LISTED, ALL };

Enabled readEnabled() {
  int number;
  if (YIF_GetConfigNumber("YUtils.Log.Enabled", &number) != 0) return LISTED;
  return number == ALL || number == LISTED ? static_cast<Enabled>(number) : NONE;
}

// A text setting of less than `capacity` bytes.
template <unsigned capacity>
struct Setting {
  explicit Setting(const char* key) : isThere_(YIF_GetConfigString(key, text_, capacity) == 0) {}
  bool is(const char* value) const { return isThere_ && std::strcmp(text_, value) == 0; }

  char text_[capacity];
  const bool isThere_;
};

Logger* fileSink() {
  const Setting<1024> name("YUtils.Log.Filename");
  const Setting<256> mode("YUtils.Log.FileOpenMode");
  if (!name.isThere_) return nullptr;
  return new FileLogger(name.text_, mode.is("replace") ? FileLogger::Replace : FileLogger::Append);
}

// Null if the default sink stays.
Logger* configuredSink() {
  const Setting<1024> kind("YUtils.Log.Logger");
  if (kind.is("file")) return fileSink();
  if (kind.is("windebug")) return new SystemLogger(nullptr);
  if (kind.is("null")) return new NullLogger;
  return nullptr;
}

// Returns the number at the start of a text; 0 if there is none; the nearest int if out of range.
int parseInt(const char* text) {
  const long number = std::strtol(text, nullptr, 10);
  if (number > INT_MAX) return INT_MAX;
  return number < INT_MIN ? INT_MIN : static_cast<int>(number);
}

}  // namespace

// The order matters: the categories take the level and the verbosity that were set before.
void Log::initialiseFromConfig() {
  int number;
  if (YIF_GetConfigNumber("YUtils.Log.Level", &number) == 0) setLevel(number);
  if (YIF_GetConfigNumber("YUtils.Log.Verbosity", &number) == 0)
    setVerbosity(static_cast<unsigned>(number));
  const Enabled enabled = readEnabled();
  setEnabled(enabled == ALL);
  const Setting<1024> list("YUtils.Log.Categories");
  if (list.isThere_) enableCategories(list.text_, enabled != NONE);
  if (Logger* sink = configuredSink()) setLogger(sink);
}

// The list is "name[#level]:name[#level]...". A copy of it is cut at the separators.
void Log::enableCategories(const char* list, bool enable) {
  char* copy = strdup(list);
  if (!copy) return;
  for (char* entry = copy + std::strspn(copy, ":"); *entry;) {
    char* end = entry + std::strcspn(entry, ":");
    char* next = end + std::strspn(end, ":");
    *end = '\0';
    int level = level_;
    char* mark = std::strchr(entry, '#');
    if (mark && mark[1]) {
      *mark = '\0';
      level = parseInt(mark + 1);
    }
    getCategory(entry, level, enable, verbosity_);
    entry = next;
  }
  std::free(copy);
}

}  // namespace Utils
