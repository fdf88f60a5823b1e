// SPDX-License-Identifier: MIT
// Inside the library, its own lines in the log: class Debug, category "utils".
#pragma once

#include <atomic>

#include "utils/sdk/log.h"
#include "utils/sdk/ysys.h"

namespace Utils {

// The category of all lines of the library.
inline constexpr char LIBRARY_CATEGORY[] = "utils";

// Level 0 tells of the lifetime of system objects and of violations, level 2 of each use.
enum TraceLevel { TRACE_LIFETIME = 0, TRACE_USE = 2 };

// The hub that was asked for the category, and the record that it has for it, null when there was
// no memory. The hub is stored last and read first, so whoever reads it has its record.
struct TraceCategory {
  bool isFor(const Log* hub) const { return hub_.load(std::memory_order_acquire) == hub; }
  bool allows(TraceLevel level) const {
    const LogCat* record = record_.load(std::memory_order_relaxed);
    return record && record->enabled_ && level <= record->level_;
  }
  void lookUp(Log* hub);

 private:
  std::atomic<Log*> hub_{nullptr};
  std::atomic<const LogCat*> record_{nullptr};
};

extern constinit TraceCategory _traceCategory;

// Whether lines of that level go out. To be asked before their arguments are worked out. What is
// off costs one look at the record, which every lock takes three times.
inline bool traces(TraceLevel level) {
  Log* hub = Log::theLog();
  if (!_traceCategory.isFor(hub)) _traceCategory.lookUp(hub);
  return _traceCategory.allows(level) && hub->willPrint(Debug, LIBRARY_CATEGORY, level);
}

}  // namespace Utils
