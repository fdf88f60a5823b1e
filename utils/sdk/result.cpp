// SPDX-License-Identifier: MIT
// The tables of texts, last errors and listeners.
//
// They must work before this library's static objects are constructed and after they are destroyed:
// in other libraries' initialisers, destructors and handlers at exit. So they are never destroyed.
// At unload they are emptied.
#include "utils/sdk/result.h"

#include <cstdio>
#include <new>

#include "utils/sdk/atree.h"
#include "utils/sdk/base/late_immortal.h"
#include "utils/sdk/base/layout.h"
#include "utils/sdk/base/load_order.h"
#include "utils/sdk/log.h"
#include "utils/sdk/logging/trace.h"
#include "utils/sdk/vector.h"
#include "utils/sdk/ysys.h"

namespace Utils {

// --- Texts ---

namespace {

constexpr char SOURCE[] = "utils/sdk/result";

using ErrorStrings = AVLTree<unsigned, const char*>;

ErrorStrings* _errorStrings = nullptr;  // lives for ever, once made

void makeStdResults();

void registerResultString(unsigned code, const char* text) {
  makeStdResults();
  if (!_errorStrings) _errorStrings = new (std::nothrow) ErrorStrings;
  if (_errorStrings) _errorStrings->insert(code, text);
}

void unregisterResultString(unsigned code) {
  if (_errorStrings) _errorStrings->remove(code);
}

}  // namespace

DEBUGGER_ROOT(yutils_root_errorTexts, _errorStrings);

ResultString::ResultString(unsigned code, const char* text) : code_(code) {
  registerResultString(code, text);
}

ResultString::~ResultString() { unregisterResultString(code_); }

const char* resultToString(unsigned code) {
  makeStdResults();
  if (_errorStrings) {
    const auto found = _errorStrings->find(code);
    if (found.valid()) return found.value();
  }
  static char buf[40];
  std::snprintf(buf, sizeof buf, succeeded(code) ? "Success #0x%08x" : "Failure #0x%08x", code);
  return buf;
}

namespace {

// Registers the standard texts at load, or earlier at the first call that needs a text: in a
// program linked with the library's object files, its own constructors may run first. After their
// removal at unload they are not registered again.
void makeStdResults() {
  static bool _made = false;
  if (_made) return;
  _made = true;
  static ResultString _stdResults[] = {
      {RESULT_SUCCESS, "Success"},
      {RESULT_FAILURE, "Generic failure"},
      {RESULT_NOT_IMPLEMENTED, "Not implemented"},
      {RESULT_OUT_OF_MEMORY, "Out of memory"},
      {RESULT_INVALID_ARGUMENT, "Invalid argument"},
      {RESULT_NO_INTERFACE, "No interface"},
      {RESULT_FILE_NOT_FOUND, "File not found"},
      {RESULT_FILE_READ_ERROR, "File read error"},
      {RESULT_FILE_WRITE_ERROR, "File write error"},
      {RESULT_FILE_CORRUPT, "File is corrupt"},
  };
  static_cast<void>(_stdResults);
}

struct StdResultsLife {
  StdResultsLife() { makeStdResults(); }
};

[[gnu::init_priority(LOADED_STD_RESULTS)]] StdResultsLife _stdResultsLife;

}  // namespace

// --- Last errors ---

namespace {

using LastErrors = AVLTree<unsigned long, unsigned>;

constinit LateImmortal<LastErrors> _lastErrorValues;

struct LastErrorsLife {
  LastErrorsLife() { _lastErrorValues.make(); }
  ~LastErrorsLife() { _lastErrorValues.make().empty(); }
};

[[gnu::init_priority(LOADED_LAST_ERRORS)]] LastErrorsLife _lastErrorsLife;

// Returns the entry of the calling task; adds one if there is none.
LastErrors::Iter ownError() { return _lastErrorValues.make()[YIF_CurrentTaskIdCoop()]; }

}  // namespace

DEBUGGER_ROOT(yutils_root_lastErrors, _lastErrorValues);

unsigned lastError() { return ownError(); }

void clearError() { ownError() = 0; }

// --- Listeners ---

ResultListener::~ResultListener() {}

namespace {

using Listeners = Vector<const ResultListener*>;

Listeners* _resultListeners = nullptr;  // lives for ever, once made

// The list may change while it is traversed.
void notifyListeners(unsigned code) {
  if (!_resultListeners) return;
  for (unsigned i = 0; i < _resultListeners->size(); i++) (*_resultListeners)[i]->errorRaised(code);
}

}  // namespace

DEBUGGER_ROOT(yutils_root_listeners, _resultListeners);

void addResultListener(const ResultListener* listener) {
  if (!_resultListeners) _resultListeners = new (std::nothrow) Listeners;
  if (_resultListeners) _resultListeners->add(listener);
}

void removeResultListener(const ResultListener* listener) {
  if (_resultListeners) _resultListeners->remove(listener);
}

unsigned raiseError(unsigned code) {
  const char* text = resultToString(code);
  Log::theLog()->print(Error, LIBRARY_CATEGORY, -3, SOURCE, __LINE__, "Raising error: %s", text);
  ownError() = code;
  notifyListeners(code);
  return code;
}

}  // namespace Utils
