// SPDX-License-Identifier: MIT
// Reports on standard error, for people who look for the reason why a process stopped or a setting
// has no effect.
//
// Not a log: a report allocates nothing, takes no lock and uses no handle, so it works with a
// broken heap, without the log, and in the handlers of a fork.
//
// Thread safety: may be called from any task. A report is one system call, unless the system writes
// it in parts, so the reports of two tasks do not mix: {"ysys: ", "YIF_SetEvent", ": no event\n"}
// is one write of 29 bytes.
#pragma once

#include <initializer_list>

namespace ysys {

// The digits of a number in base 10, or in base 16 after "0x".
class NumberText {
 public:
  NumberText(unsigned number, unsigned base);
  const char* text() const { return text_; }

 private:
  char room_[16];
  const char* text_;
};

// Writes the parts, at most 12, as one report. A null part counts as empty.
void report(std::initializer_list<const char*> parts);

// Reports, and stops the process.
[[noreturn]] void reportAndStop(std::initializer_list<const char*> parts);

}  // namespace ysys
