// SPDX-License-Identifier: MIT
// Result codes, their texts, and the last error of each task.
//
// A result code is a number whose bit 31 is set for a failure; 0 is success. A function that fails
// calls raiseError, which logs the text of the code, stores the code as the calling task's last
// error, calls the listeners and returns the code. These codes, named in result_codes.h, have texts
// from the start:
//
//   0x00000000 "Success"           0x80000003 "Invalid argument"   0x80040002 "File read error"
//   0x80000000 "Generic failure"   0x80000004 "No interface"       0x80040003 "File write error"
//   0x80000001 "Not implemented"   0x80040001 "File not found"     0x80040004 "File is corrupt"
//   0x80000002 "Out of memory"
//
// A last error is stored under the id of its task (YIF_CurrentTaskIdCoop). It stays when the task
// ends, so a new task that gets the same id starts with it; after a fork the child has it too. A
// text, a last error or a listener for which there is no memory is dropped silently.
//
// Thread safety: all tasks share one table of texts, one of last errors and one list of listeners,
// and reading changes them too. The caller serialises everything here except succeeded.
#pragma once

#include "utils/sdk/export.h"
#include "utils/sdk/result_codes.h"

namespace Utils {

constexpr bool succeeded(unsigned code) { return (code & 0x80000000u) == 0; }

// Returns the text of the code, or "Success #0x00000007" or "Failure #0x80001234" if it has none.
// Null only if a null text was registered. Valid until the registered text is freed, which the
// library only borrows; for a code without a text, until the next call for such a code.
YUTILS_EXPORT const char* resultToString(unsigned code);

// Raises the code as described above, and returns it. A code of success is treated like any other,
// so 0 clears the last error.
YUTILS_EXPORT unsigned raiseError(unsigned code);

YUTILS_EXPORT unsigned lastError();  // of the calling task; 0 if none
YUTILS_EXPORT void clearError();

// Registers a text for a code. A code that has a text keeps it. The text is removed when any
// ResultString with that code, a copy included, is destroyed.
struct YUTILS_EXPORT ResultString {
  ResultString(unsigned code, const char* text);  // borrows the text until it is removed
  ResultString(const ResultString&) = default;
  ResultString& operator=(const ResultString&) = default;  // the code only; the texts stay
  ~ResultString();

 private:
  unsigned code_;
};

// Is called for raised errors. Requires: it is removed before it is destroyed.
struct YUTILS_EXPORT ResultListener {
  ResultListener() = default;
  ResultListener(const ResultListener&) = default;
  ResultListener& operator=(const ResultListener&) = default;
  virtual ~ResultListener();

  // Runs in the task that raises; lastError() already returns the code. May add and remove
  // listeners: an added one is called in the same pass; if one removes itself, or one before it,
  // the next is skipped.
  virtual void errorRaised(unsigned code) const = 0;
};

// Borrows the listener until it is removed. It is called once for each time it was added, in the
// order of adding.
YUTILS_EXPORT void addResultListener(const ResultListener* listener);
YUTILS_EXPORT void removeResultListener(const ResultListener* listener);  // its first entry only

}  // namespace Utils
