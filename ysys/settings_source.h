// SPDX-License-Identifier: MIT
// The two sources of settings: the environment and a regular file.
//
// Not a parser: config.cpp handles keys and lines, this handles bytes.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace ysys {

// Returns the value of an environment variable, null if there is none or if the program runs with
// more rights than its caller.
const char* environmentValue(const char* name);

class SettingsFile {
 public:
  SettingsFile() = default;
  ~SettingsFile();
  SettingsFile(const SettingsFile&) = delete;
  SettingsFile& operator=(const SettingsFile&) = delete;

  bool isOpen() const { return descriptor_ != -1; }

  // Opens a regular file without waiting. Returns null, or the reason why it cannot be opened.
  const char* open(const char* path);

  // Reads up to `size` bytes at `offset`, fewer only at the end of the file. Returns their number,
  // or -1 if they cannot be read; then `reason` is set.
  int64_t readAt(uint64_t offset, char* buffer, size_t size, const char*& reason) const;

 private:
  int descriptor_ = -1;
};

}  // namespace ysys
