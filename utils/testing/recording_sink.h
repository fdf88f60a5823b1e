// SPDX-License-Identifier: MIT
// A sink for tests that keeps each line as text.
//
//   const Utils::Ref<Utils::Testing::RecordingSink> sink(new Utils::Testing::RecordingSink);
//   Utils::Log::theLog()->setLogger(sink.operator->());
//   Utils::raiseError(0x80040001);
//   const auto lines = sink->take();
//   // lines is {{Utils::Error, "error|utils|Raising error: File not found"}}
//
// The lines lie in memory of the program's own operator new, not of the process allocator, so they
// are kept while a FailingAllocator (failing_allocator.h) lives.
//
// Thread safety: the caller serialises all operations on a sink, print included.
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "utils/sdk/log.h"

namespace Utils::Testing {

struct RecordingSink : Logger {
  // The class and the expanded text, of any length and without a line end.
  using Lines = std::vector<std::pair<MessageClass, std::string>>;

  // A format that cannot be expanded is recorded as an empty text.
  void print(MessageClass cls, const char* format, std::va_list args) override {
    const int error = errno;
    std::va_list again;
    va_copy(again, args);
    const int size = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
    errno = error;  // %m in the format expands to it
    if (size > 0) std::vsnprintf(text.data(), text.size() + 1, format, args);
    lines_.emplace_back(cls, std::move(text));
    errno = error;
  }

  // Returns the lines since the last call, in order, and forgets them.
  Lines take() { return std::exchange(lines_, {}); }

 private:
  Lines lines_;
};

}  // namespace Utils::Testing
