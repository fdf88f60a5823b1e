// trace.h: inside the library, its own lines in the log: class Debug, category "utils".
#pragma once

#include <atomic>

#include "utils/sdk/log.h"
#include "utils/sdk/ysys.h"

namespace Utils {

// Level 0 tells of the lifetime of system objects and of violations, level 2 of each use.
enum TraceLevel { TRACE_LIFETIME = 0, TRACE_USE = 2 };

// The hub that was asked for the number of the category, and the number that it gave. The hub is
// stored last and read first, so whoever reads it has its number.
struct TraceCategory {
  bool isOf(const Log* hub) const { return hub_.load(std::memory_order_acquire) == hub; }
  unsigned number() const { return number_.load(std::memory_order_relaxed); }
  void ask(Log* hub);

 private:
  std::atomic<Log*> hub_{nullptr};
  std::atomic<unsigned> number_{0};
};

extern constinit TraceCategory _traceCategory;

// Whether lines of that level go out. To be asked before their arguments are worked out.
inline bool traces(TraceLevel level) {
  Log* hub = Log::theLog();
  if (!_traceCategory.isOf(hub)) _traceCategory.ask(hub);
  return hub->willPrint(Debug, _traceCategory.number(), level);
}

}  // namespace Utils
