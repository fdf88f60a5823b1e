// SPDX-License-Identifier: MIT
// Shows one line in a message box, and says when it was answered.
#include <cstdio>

#include "utils/sdk/log.h"

int main() {
  Utils::Log* log = Utils::Log::theLog();
  log->setLogger(Utils::Info, new Utils::DialogLogger);
  log->print(Utils::Info, "disk", -1, __FILE__, __LINE__, "%s", "<b>100%</b> full: C:\\new %n");
  std::puts("answered");
}
