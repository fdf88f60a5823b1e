// SPDX-License-Identifier: MIT
// The text of one line of the log: the header and the message, as one format. Private to the
// library.
//
// The sink expands the text with the arguments of the message, so a '%' in the header is doubled.
// For category "50%" at verbosity 0 and format "%d bytes":
//
//   debug[2]|50%%|%d bytes
//
// A line lives on the stack of the task that prints. Up to 511 characters need no memory, longer
// ones take it from the runtime library: several tasks may print at once, and the process
// allocator serves one task at a time.
#pragma once

#include <cstddef>
#include <cstdlib>

namespace Utils {

struct LogLine {
  // A negative level is not shown; a null category, file or format is an empty one. The place is
  // shown from verbosity 1, the time and the task from 2.
  LogLine(const char* className, const char* category, int level, const char* file, unsigned line,
          const char* format, unsigned verbosity);
  LogLine(const LogLine&) = delete;
  LogLine& operator=(const LogLine&) = delete;
  ~LogLine() { std::free(block_); }

  // Null if there is no memory. Valid until the line is destroyed.
  const char* text() const { return text_; }

 private:
  void addHeader(const char* className, const char* category, int level, const char* file,
                 unsigned line, unsigned verbosity);
  void add(const char* text, std::size_t size);
  void add(const char* text);
  void add(char c);
  void add(unsigned long number, unsigned digits);
  void add(unsigned long number);
  void addEscaped(const char* text);
  void addSeconds(double seconds);

  char* extend(std::size_t size);
  [[gnu::cold]] bool grow(std::size_t size);

  std::size_t used_ = 0;
  std::size_t capacity_ = sizeof room_;
  char* text_ = room_;
  char* block_ = nullptr;  // text_ if it does not fit into room_
  char room_[512];
};

}  // namespace Utils
