// SPDX-License-Identifier: MIT
// For tests that replace operations of the system interface and note their calls.
//
// A test program that defines such an operation has it called in place of the system layer's, in
// the library too. NOTED and NOTED_MAKER define operations that note the call and go on to the real
// one.
#pragma once

#include <dlfcn.h>

#include <cstdarg>
#include <string>
#include <utility>
#include <vector>

#include "utils/sdk/log.h"
#include "utils/sdk/ysys.h"

struct SystemCalls {
  // Notes are taken by one task, while one of these lives.
  SystemCalls() { noting_ = true; }
  ~SystemCalls() {
    noting_ = false;
    take();
  }
  SystemCalls& operator=(SystemCalls&&) = delete;

  // The notes since the last call, in order.
  static std::vector<std::string> take() { return std::exchange(notes_, {}); }

  static void note(const std::string& text) {
    if (noting_) notes_.push_back(text);
  }

  static YIF_Handle noteMade(YIF_Handle made) {
    if (noting_) made_ = made;
    return made;
  }

  template <class Function>
  static Function* real(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
  }

  static inline YIF_Handle made_ = 0;  // the latest

 private:
  static inline bool noting_ = false;
  static inline std::vector<std::string> notes_;
};

#define NOTED(NAME, NOTE)                                    \
  void NAME(YIF_Handle handle) noexcept {                    \
    SystemCalls::note(NOTE);                                 \
    static const auto real = SystemCalls::real(NAME, #NAME); \
    real(handle);                                            \
  }
#define NOTED_MAKER(NAME, PARAMETERS, ARGUMENTS)             \
  YIF_Handle NAME PARAMETERS noexcept {                      \
    SystemCalls::note("create");                             \
    static const auto real = SystemCalls::real(NAME, #NAME); \
    return SystemCalls::noteMade(real ARGUMENTS);            \
  }

// Notes each line in full, so that lines and calls stand in their order.
struct NotingSink : Utils::Logger {
  void print(Utils::MessageClass, const char* format, std::va_list args) override {
    SystemCalls::note(BoundedLine(format, args, "").text());
  }
};

// For the length of a test: the hub with a NotingSink, and the lines of the library up to a level.
struct TracedUpTo {
  explicit TracedUpTo(int level) {
    Utils::Log::theLog()->setVerbosity(0);
    Utils::Log::theLog()->setLogger(new NotingSink);
    Utils::Log::theLog()->getCategory("utils", level, true);
  }
  ~TracedUpTo() {
    Utils::Log::theLog()->getCategory("utils", 0, false);
    Utils::Log::theLog()->setLogger(nullptr);
  }
  TracedUpTo& operator=(TracedUpTo&&) = delete;
};
