// SPDX-License-Identifier: MIT
// A sink that keeps what it is given: the class and the expanded text of each
// line.
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "utils/sdk/log.h"

struct RecordingSink : Utils::Logger {
  using Lines = std::vector<std::pair<Utils::MessageClass, std::string>>;

  ~RecordingSink() override { ended_++; }

  void print(Utils::MessageClass cls, const char* format, std::va_list args) override {
    const int error = errno;
    std::va_list again;
    va_copy(again, args);
    std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, again)), '\0');
    va_end(again);
    errno = error;
    std::vsnprintf(text.data(), text.size() + 1, format, args);
    lines_.emplace_back(cls, text);
  }

  // The lines since the last call, in order.
  Lines take() { return std::exchange(lines_, {}); }

  static inline int ended_ = 0;  // sinks of this class

 private:
  Lines lines_;
};
