// SPDX-License-Identifier: MIT
// Settings, from the environment or from the file that YSYS_CONFIG names.
//
// Nothing is cached: each look-up reads the environment and the file as they are then, so a change
// takes effect at the next look-up. The file is read through a small buffer on the stack, lines may
// have any length, and a value is copied only if it fits. Only a regular file is read: another file
// may be endless, or may not be readable a second time from where the value begins.
//
// A setting is text; that of `YUtils.Log.Level = 3` is at offset 19 of its line and is 1 byte long.
// A program that runs with more rights than its caller has no settings. Keys longer than 255 bytes
// have no environment variable with '_'.
//
// Thread safety: may be called from any task. A table of marks, without a lock, records the reports
// that were made; after 64 of them nothing more is reported.
#include <limits.h>
#include <stdint.h>
#include <string.h>

#include <atomic>

#include "utils/sdk/ysys.h"
#include "ysys/caller_state.h"
#include "ysys/settings_source.h"
#include "ysys/stderr_report.h"

namespace ysys {
namespace {

constexpr int FOUND = 0;
constexpr int ABSENT = 1;
constexpr int END_OF_FILE = -1;
constexpr size_t NUMBER_TEXT_MAX = 63;

bool isBlank(int byte) {
  return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\v' || byte == '\f';
}

bool endsLine(int byte) { return byte == '\n' || byte == END_OF_FILE; }

// The bytes of a file in sequence, without a byte order mark at the start. An error counts as the
// end of the file.
class Reader {
 public:
  explicit Reader(const SettingsFile& file) : file_(file) {
    fill();
    if (end_ < 3 || memcmp(buffer_, "\xef\xbb\xbf", 3) != 0) return;
    at_ = 2;
    next();
  }
  const char* error() const { return error_; }  // null if there was none
  int byte() const { return at_ < end_ ? static_cast<unsigned char>(buffer_[at_]) : END_OF_FILE; }
  uint64_t position() const { return base_ + at_; }
  void next() {
    if (++at_ >= end_) fill();
  }
  void skipBlanks() {
    while (isBlank(byte())) next();
  }
  void skipLine() {
    while (!endsLine(byte())) next();
    next();
  }

 private:
  void fill();

  const SettingsFile& file_;
  const char* error_ = nullptr;
  uint64_t base_ = 0;
  size_t at_ = 0;
  size_t end_ = 0;
  char buffer_[1024];
};

void Reader::fill() {
  base_ += end_;
  const int64_t count = file_.readAt(base_, buffer_, sizeof buffer_, error_);
  at_ = 0;
  end_ = count > 0 ? static_cast<size_t>(count) : 0;
}

constinit std::atomic<uint64_t> _reported[64];

// Adds the mark of a report to the table. Returns false if it was there already or the table is
// full.
bool isFirstReport(const char* key, const char* complaint) {
  uint64_t mark = 0xcbf29ce484222325u;
  for (const char* text : {key, complaint}) {
    for (; *text != '\0'; ++text)
      mark = (mark ^ static_cast<unsigned char>(*text)) * 0x100000001b3u;
  }
  for (std::atomic<uint64_t>& place : _reported) {
    uint64_t there = 0;
    if (place.compare_exchange_strong(there, mark, std::memory_order_relaxed)) return true;
    if (there == mark) return false;
  }
  return false;
}

void reportFile(const char* path, const char* reason) {
  if (isFirstReport(path, reason))
    report({"ysys: cannot read the settings file ", path, ": ", reason, "\n"});
}

// The place of a setting's text: in the environment or in the file, which it keeps open.
class Setting {
 public:
  explicit Setting(const char* key);

  bool isThere() const { return isThere_; }
  size_t length() const { return length_; }

  // Copies the text and a terminator. Reports the reason and returns false, the buffer overwritten,
  // if the file has changed or cannot be read.
  bool copyTo(char* buffer) const;

 private:
  void findInEnvironment(const char* key);
  void findInFile(const char* key);
  bool takeLine(Reader& reader, const char* key);

  bool isThere_ = false;
  const char* text_ = nullptr;
  const char* path_ = nullptr;
  SettingsFile file_;
  uint64_t start_ = 0;
  size_t length_ = 0;
};

Setting::Setting(const char* key) {
  if (key == nullptr || *key == '\0') return;
  findInEnvironment(key);
  if (isThere_) return;
  path_ = environmentValue("YSYS_CONFIG");
  if (path_ == nullptr || *path_ == '\0') return;
  if (const char* reason = file_.open(path_)) {
    reportFile(path_, reason);
  } else {
    findInFile(key);
  }
}

void Setting::findInEnvironment(const char* key) {
  char underscored[256];
  const size_t size = strlen(key) + 1;
  text_ = environmentValue(key);
  if (text_ == nullptr && size <= sizeof underscored) {
    for (size_t i = 0; i < size; ++i) underscored[i] = key[i] == '.' ? '_' : key[i];
    text_ = environmentValue(underscored);
  }
  isThere_ = text_ != nullptr;
  length_ = isThere_ ? strlen(text_) : 0;
}

void Setting::findInFile(const char* key) {
  Reader reader(file_);
  while (!isThere_ && reader.byte() != END_OF_FILE) {
    isThere_ = takeLine(reader, key);
    if (!isThere_) reader.skipLine();
  }
  if (reader.error() == nullptr) return;
  isThere_ = false;
  reportFile(path_, reader.error());
}

bool Setting::takeLine(Reader& reader, const char* key) {
  reader.skipBlanks();
  if (reader.byte() == '#') return false;
  for (; *key != '\0'; ++key, reader.next()) {
    if (reader.byte() != static_cast<unsigned char>(*key)) return false;
  }
  reader.skipBlanks();
  if (reader.byte() != '=') return false;
  reader.next();
  reader.skipBlanks();
  start_ = reader.position();
  for (; !endsLine(reader.byte()); reader.next()) {
    if (!isBlank(reader.byte())) length_ = static_cast<size_t>(reader.position() - start_) + 1;
  }
  return true;
}

bool Setting::copyTo(char* buffer) const {
  buffer[length_] = '\0';
  if (text_ != nullptr) {
    memcpy(buffer, text_, length_);
    return true;
  }
  const char* reason = "it changes while it is read";
  if (file_.readAt(start_, buffer, length_, reason) == static_cast<int64_t>(length_)) return true;
  reportFile(path_, reason);
  return false;
}

bool isDigit(char byte) { return byte >= '0' && byte <= '9'; }

bool readNumber(const char* text, int* value) {
  while (isBlank(*text) || *text == '\n') ++text;
  const bool negative = *text == '-';
  if (negative || *text == '+') ++text;
  if (!isDigit(*text)) return false;
  int64_t number = 0;
  for (; isDigit(*text); ++text) {
    number = number * 10 + (*text - '0');
    if (number > int64_t{INT_MAX} + 1) return false;
  }
  while (isBlank(*text) || *text == '\n') ++text;
  if (negative) number = -number;
  if (*text != '\0' || number > INT_MAX) return false;
  *value = static_cast<int>(number);
  return true;
}

int absentAfterReport(const char* key, const char* complaint) {
  if (isFirstReport(key, complaint))
    report({"ysys: setting ", key, " ", complaint, "; it is not used\n"});
  return ABSENT;
}

}  // namespace
}  // namespace ysys

using namespace ysys;

int YIF_GetConfigNumber(const char* key, int* value) noexcept {
  const ErrnoSaver saver;
  const NoCancellation whole;
  const Setting setting(key);
  if (!setting.isThere()) return ABSENT;
  char text[NUMBER_TEXT_MAX + 1] = "";
  if (setting.length() <= NUMBER_TEXT_MAX && !setting.copyTo(text)) return ABSENT;
  if (readNumber(text, value)) return FOUND;
  return absentAfterReport(key, "is not a 32-bit decimal number");
}

int YIF_GetConfigString(const char* key, char* buffer, unsigned int capacity) noexcept {
  const ErrnoSaver saver;
  const NoCancellation whole;
  const Setting setting(key);
  if (!setting.isThere()) return ABSENT;
  if (setting.length() >= capacity) return absentAfterReport(key, "is too long a text");
  return setting.copyTo(buffer) ? FOUND : ABSENT;
}
