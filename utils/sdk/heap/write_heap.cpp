// SPDX-License-Identifier: MIT
// The choice of the form, and the time of a snapshot.
#include <cstring>

#include "utils/sdk/colors.h"
#include "utils/sdk/heap/forms.h"
#include "utils/sdk/memory/sight.h"
#include "utils/sdk/ysys.h"

namespace Utils {

namespace {

struct Form {
  const char* name_;
  const char* extension_;
  void (*write_)(Output&, const Snapshot&);
};

constexpr Form FORMS[] = {{"text", ".txt", writeText},
                          {"json", ".json", writeJson},
                          {"svg", ".svg", writeSvg},
                          {"html", ".html", writeHtml}};

// Static, because a task that has run out of memory may have little stack left.
constinit Snapshot _snapshot = {};

// Null if there is no such form.
const Form* formNamed(const char* name) {
  for (const Form& each : FORMS) {
    if (std::strcmp(name, each.name_) == 0) return &each;
  }
  return nullptr;
}

const Form* formOf(const char* path) {
  const std::size_t length = std::strlen(path);
  for (const Form& each : FORMS) {
    const std::size_t size = std::strlen(each.extension_);
    if (length >= size && std::strcmp(path + length - size, each.extension_) == 0) return &each;
  }
  return FORMS;
}

}  // namespace

int writeHeap(const char* path, const char* form) {
  if (!path || *path == '\0') return static_cast<int>(RESULT_INVALID_ARGUMENT);
  const Form* chosen = form ? formNamed(form) : formOf(path);
  if (!chosen) return static_cast<int>(RESULT_INVALID_ARGUMENT);
  const Sight::Quiet quiet(Sight::isOn_);  // bytes that the program has not written are shown, too
  Output out(path);
  if (!out.isOpen()) return static_cast<int>(RESULT_FILE_WRITE_ERROR);
  _snapshot.take();
  chosen->write_(out, _snapshot);
  return out.end();
}

// The years are counted from 1 March of the year 0 of the calendar, so that a leap day is the last
// day of its year; 719468 days later is the start of 1970.
void putTime(Output& out) {
  const auto seconds = static_cast<unsigned long long>(YIF_CurrentTime());
  const auto second = static_cast<unsigned>(seconds % 86400);
  const auto days = static_cast<unsigned>(seconds / 86400) + 719468;
  const unsigned era = days / 146097, ofEra = days % 146097;
  const unsigned yearOfEra = (ofEra - ofEra / 1460 + ofEra / 36524 - ofEra / 146096) / 365;
  const unsigned day = ofEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned month = (5 * day + 2) / 153;  // 0 is March
  const unsigned year = era * 400 + yearOfEra + (month >= 10 ? 1 : 0);
  out.print("%04u-%02u-%02uT%02u:%02u:%02uZ", year, month < 10 ? month + 3 : month - 9,
            day - (153 * month + 2) / 5 + 1, second / 3600, second / 60 % 60, second % 60);
}

}  // namespace Utils
