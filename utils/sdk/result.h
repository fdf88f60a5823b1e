// SPDX-License-Identifier: MIT
// Result codes, their texts, and the last error of each task.
//
// A result code is a number whose bit 31 tells failure; 0 is success. raiseError is called where
// something fails: it logs the code, keeps it as the calling task's last error, tells the listeners
// and gives the code back, to be handed on. These, named in result_codes.h, have texts from the
// start:
//
//   0x00000000 "Success"           0x80000003 "Invalid argument"   0x80040002 "File read error"
//   0x80000000 "Generic failure"   0x80000004 "No interface"       0x80040003 "File write error"
//   0x80000001 "Not implemented"   0x80040001 "File not found"     0x80040004 "File is corrupt"
//   0x80000002 "Out of memory"
//
// A task's last error stays with its id when the task ends, and a new task that gets the id begins
// with it; a task that forks has it in the child, too. Where there is no memory for what is to be
// kept, it is not kept, and nothing is reported.
//
// All tasks share one table of texts, one of last errors and one list of listeners, which reading
// changes too: the caller serialises everything here but succeeded.
#pragma once

#include "utils/sdk/export.h"
#include "utils/sdk/result_codes.h"

namespace Utils {

constexpr bool succeeded(unsigned code) { return (code & 0x80000000u) == 0; }

// The text of the code; "Success #0x00000007" or "Failure #0x80001234" where it has none. Never
// null, unless a null text was given to the code. Valid as long as its ResultString; what was made
// up, until the next text that is made up.
YUTILS_EXPORT const char* resultToString(unsigned code);

// Gives the code. A code of success is treated as any other: 0 so clears the last error.
YUTILS_EXPORT unsigned raiseError(unsigned code);

YUTILS_EXPORT unsigned lastError();  // 0 when the task has raised none; stays until it is cleared
YUTILS_EXPORT void clearError();

// Gives a code its text as long as it lives. The first text of a code stays, and goes with the
// first ResultString of that code that ends.
struct YUTILS_EXPORT ResultString {
  ResultString(unsigned code, const char* text);  // borrows the text
  ResultString(const ResultString&) = default;
  ResultString& operator=(const ResultString&) = default;  // the code; no text comes or goes
  ~ResultString();

 private:
  unsigned code_;
};

// Is told of raised errors. Must be removed before it ends.
struct YUTILS_EXPORT ResultListener {
  ResultListener() = default;
  ResultListener(const ResultListener&) = default;
  ResultListener& operator=(const ResultListener&) = default;
  virtual ~ResultListener();

  // Runs in the task that raises, after lastError() gives the code. May add and remove listeners:
  // one that is added is told in the same pass; when one removes itself the next is passed over.
  virtual void errorRaised(unsigned code) const = 0;
};

// Borrows the listener and tells it once for each time that it was added, in the order of adding.
YUTILS_EXPORT void addResultListener(const ResultListener* listener);
YUTILS_EXPORT void removeResultListener(const ResultListener* listener);  // once, the first time

}  // namespace Utils
