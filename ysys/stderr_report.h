// SPDX-License-Identifier: MIT
// Reports on standard error, for the person who has to find out why a process stopped or why a
// setting has no effect.
//
// Not a log: a report allocates nothing, takes no lock and uses no handle, so it works with a
// broken heap, without the log, and in the handlers of a fork.
//
// Thread safety: reports may come from any task. A report is one system call, unless the system
// takes it in parts, so reports of two tasks do not mix: {"ysys: ", "YIF_SetEvent", ": no event\n"}
// is one write of 29 bytes.
#pragma once

#include <initializer_list>

namespace ysys {

// The digits of a number in base 10 or 16, the latter after "0x".
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
