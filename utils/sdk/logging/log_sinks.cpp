// SPDX-License-Identifier: MIT
// The sinks of the library. None of them reports a failure.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/sdk/base/errno_saver.h"
#include "utils/sdk/log.h"
#include "utils/sdk/logging/bounded_text.h"
#include "utils/sdk/platform.h"

namespace Utils {

template struct Ref<Logger>;

// --- Shared by all sinks ---

Logger::~Logger() {}

int Logger::expand(char* text, unsigned size, const char* format, std::va_list args) {
  return size == 0 ? -1 : expandText(text, size, format, args);
}

Logger::BoundedLine::BoundedLine(const char* end, unsigned endSize, const char* format,
                                 std::va_list args)
    : errno_(errno) {
  const int size = expand(text_, LONGEST_TEXT + 1, format, args);
  isValid_ = size >= 0;
  if (!isValid_) {
    text_[0] = '\0';
    return;
  }
  std::memcpy(text_ + size, end, endSize + 1);
  size_ = static_cast<unsigned>(size) + endSize;
}

Logger::BoundedLine::~BoundedLine() { errno = errno_; }

// --- NullLogger ---

NullLogger::~NullLogger() {}

void NullLogger::print(MessageClass, const char*, std::va_list) {}

// --- FileLogger ---

FileLogger::FileLogger(const char* path, OpenMode mode) {
  const ErrnoSaver saver;
  handle_ = YIF_Open(path, mode == Replace ? YIF_OPEN_REPLACE : YIF_OPEN_APPEND, 1);
}

FileLogger::~FileLogger() {
  if (valid()) YIF_Close(handle_);
}

void FileLogger::print(MessageClass, const char* format, std::va_list args) {
  if (!valid()) return;
  const BoundedLine line(format, args, "\r\n");
  if (!line.valid()) return;
  YIF_Write(handle_, line.text(), line.size());
  YIF_Flush(handle_);
}

// --- StdLogger ---

StdLogger::~StdLogger() {}

void StdLogger::print(MessageClass, const char* format, std::va_list args) {
  YfPrintLine(channel_ == Stdout ? stdout : stderr, format, args);
}

// --- SystemLogger ---

SystemLogger::SystemLogger(const char* name) : name_(nullptr) {
  if (!name) return;
  const ErrnoSaver saver;
  OutputDebugStringA(name);
  OutputDebugStringA(": Initialised\n");
  name_ = strdup(name);
}

SystemLogger::~SystemLogger() {
  if (!name_) return;
  OutputDebugStringA(name_);
  OutputDebugStringA(": Finish\n");
  std::free(name_);
}

void SystemLogger::print(MessageClass, const char* format, std::va_list args) {
  const BoundedLine line(format, args, "\n");
  if (!line.valid()) return;
  if (name_) {
    OutputDebugStringA(name_);
    OutputDebugStringA(": ");
  }
  OutputDebugStringA(line.text());
}

// --- DialogLogger ---

DialogLogger::~DialogLogger() {}

void DialogLogger::print(MessageClass, const char* format, std::va_list args) {
  const BoundedLine line(format, args, "\n");
  if (line.valid()) MessageBoxA(nullptr, line.text(), "Error", 0);
}

}  // namespace Utils
