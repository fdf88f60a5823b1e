// SPDX-License-Identifier: MIT
#include "support/assertion_recorder.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <utility>

#include "utils/sdk/platform.h"
#include "utils/sdk/ysys.h"

namespace {
AssertionRecorder* _recorder = nullptr;
}

AssertionRecorder::AssertionRecorder() { _recorder = this; }

AssertionRecorder::~AssertionRecorder() { _recorder = nullptr; }

std::vector<std::string> AssertionRecorder::take() { return std::exchange(texts_, {}); }

std::vector<std::string> AssertionRecorder::sourceLines() const {
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < lines_.size(); i++) {
    std::ifstream source(SOURCES "/" + files_[i] + ".cpp");
    std::string text;
    for (unsigned line = 0; line < lines_[i] && std::getline(source, text);) line++;
    texts.push_back(source ? text : "");
  }
  return texts;
}

extern "C" {

[[gnu::visibility("default")]] void YfAssert__(const char* condition, const char* file,
                                               unsigned int line) noexcept {
  if (_recorder) {
    _recorder->texts_.push_back(condition);
    _recorder->files_.push_back(file);
    _recorder->lines_.push_back(line);
    return;
  }
  std::fprintf(stderr, "assertion failed: %s, %s:%u\n", condition, file, line);
  if (!std::getenv("SYSTEM_MEMORY_FAILS_AT_LOAD")) std::abort();
}

// Reports of broken blocks are printed only if the process stops.
[[gnu::visibility("default")]] void OutputDebugStringA(const char* text) noexcept {
  if (!_recorder) std::fputs(text, stderr);
  if (_recorder) _recorder->reports_ += text;
}
}
