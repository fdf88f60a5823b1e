// SPDX-License-Identifier: MIT
// A bit of everything that the library offers, to be used at any moment of a process.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "utils/sdk/atree.h"
#include "utils/sdk/log.h"
#include "utils/sdk/result.h"
#include "utils/sdk/string.h"
#include "utils/sdk/uid.h"

namespace Life {

inline bool useStrings() {
  Utils::String small("small");
  Utils::String large('x', 300000);
  small += " and more";
  large[299999] = 'y';
  const bool isNull = Utils::String::null().textAt(0) == nullptr;
  return isNull && small == "small and more" && large.index('y') == 299999;
}

inline bool useTrees() {
  Utils::AVLTree<Utils::String, unsigned> tree;
  for (char c = 'a'; c <= 'z'; c++) tree.insert(c, static_cast<unsigned>(c));
  return tree.remove("m") && !tree.find("m").valid() && tree.find("n").value() == 'n';
}

inline bool useResults() {
  return std::strcmp(Utils::resultToString(0x80001234), "Failure #0x80001234") == 0 &&
         Utils::raiseError(0x80040001) == 0x80040001 && Utils::lastError() == 0x80040001;
}

inline bool useIdentifiers() {
  const Utils::UID first, second;
  return first != second && Utils::UID(Utils::UID(first).asText()) == first;
}

inline void say(const char* text) {
  if (write(STDERR_FILENO, text, std::strlen(text)) < 0) std::abort();
}

// Logs a line, raises an error, and reports the result on standard error.
inline void use(const char* moment) {
  Utils::Log::theLog()->print(Utils::Info, "life", -1, __FILE__, __LINE__, "%s", moment);
  if (!useStrings()) say("strings failed\n");
  if (!useTrees()) say("trees failed\n");
  if (!useResults()) say("results failed\n");
  if (!useIdentifiers()) say("identifiers failed\n");
  say("all well\n");
}

// Returns true at the moment at which the process shall use the library.
inline bool isNow(const char* moment) {
  const char* chosen = std::getenv("LIFE");
  return chosen && std::strcmp(chosen, moment) == 0;
}

inline void at(const char* moment) {
  if (isNow(moment)) use(moment);
}

// Uses everything when it comes and when it goes.
struct Witness {
  Witness(const char* birth, const char* end) : end_(end) { at(birth); }
  ~Witness() { at(end_); }

  const char* end_;
};

}  // namespace Life
