// SPDX-License-Identifier: MIT
// The library's own debug lines in the log. Private to the library.
#pragma once

#include <atomic>

#include "utils/sdk/log.h"
#include "utils/sdk/ysys.h"

namespace Utils {

// The category of all lines of the library.
inline constexpr char LIBRARY_CATEGORY[] = "utils";

// Level 0 reports that system objects are created and destroyed, and violations; level 2 each use.
enum TraceLevel { TRACE_LIFETIME = 0, TRACE_USE = 2 };

// Caches the hub's record of LIBRARY_CATEGORY. The hub is stored after its record and read before
// it, so a task that reads the hub reads the record that belongs to it. If there is no memory for
// the record, no hub is stored and the next line looks it up again.
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

// Returns whether a line of that level would be printed. Call it before the arguments are computed.
// While the level is off it reads one record; each use of a lock calls it three times.
inline bool traces(TraceLevel level) {
  Log* hub = Log::theLog();
  if (!_traceCategory.isFor(hub)) _traceCategory.lookUp(hub);
  return _traceCategory.allows(level) && hub->willPrint(Debug, LIBRARY_CATEGORY, level);
}

}  // namespace Utils
