// assertion.cpp: the report of a condition that does not hold.
//
// One line on standard error in one system call, then the end of the process; with YSYS_ASSERT set
// to "continue" the caller goes on instead. The caller has made the test: there is nothing to test
// here. May be called from any task, with any lock held and the heap broken.
#include <stdlib.h>
#include <string.h>

#include "utils/sdk/platform.h"
#include "utils/sdk/ysys.h"
#include "ysys/voice.h"

void YfAssert__(const char* condition, const char* file, unsigned int line) noexcept {
  const ysys::NumberText lineText(line, 10);
  ysys::say({"assertion failed: ", condition, ", ", file, ":", lineText.text(), "\n"});
  const char* choice = getenv("YSYS_ASSERT");
  if (choice == nullptr || strcmp(choice, "continue") != 0) abort();
}

void _assert(const char* condition, const char* file, unsigned int line) noexcept {
  YfAssert__(condition, file, line);
}
