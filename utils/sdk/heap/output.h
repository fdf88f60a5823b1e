// SPDX-License-Identifier: MIT
// The file that a picture of the heap is written to, through a buffer of fixed size.
//
// For the library's own sources, not installed. Allocates nothing. One file is open at a time: the
// buffer and the name are static, because a task that has run out of memory may have little stack
// left. Thread safety: the caller serialises, as for the process allocator.
#pragma once

namespace Utils {

struct Output {
  explicit Output(const char* path);  // Borrows the path
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  bool isOpen() const { return file_ != -1; }
  int end();  // closes the file; returns 0 or a result code. Requires: isOpen()

  void put(char byte);
  void text(const char* text);
  void number(unsigned long long number);  // Requires: not more than an unsigned long can have
  void hex(unsigned char byte);            // two digits
  // As printf. Requires: the text has less than 256 bytes.
  void print(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // "512 B", "1.5 KiB", "48.0 MiB": rounded down to a tenth.
  void bytes(unsigned long long number);
  void bytes(unsigned long long number, int width);  // right-aligned in a column

 private:
  void flush();

  const char* path_;
  int file_;
  unsigned used_ = 0;
  bool isWhole_ = true;
};

}  // namespace Utils
