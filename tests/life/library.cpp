// SPDX-License-Identifier: MIT
// A library beside the tested one, with static objects of its own.
#include "life/uses.h"

namespace {

Life::Witness _witness("a library's initialiser", "a library's destructor");

}  // namespace

extern "C" {
[[gnu::visibility("default")]] void lifeUse(const char* moment) { Life::use(moment); }
[[gnu::visibility("default")]] void* lifeAlloc(unsigned size) {
  return Utils::Allocator::theAllocator()->alloc(size);
}
[[gnu::visibility("default")]] unsigned lifeHeld() {
  return Utils::Allocator::theAllocator()->allocatedMemory();
}
[[gnu::visibility("default")]] void lifeLeaveText() {
  const_cast<Utils::String&>(Utils::String::null()) = "left behind";
}
[[gnu::visibility("default")]] const char* lifeText(unsigned code) {
  return Utils::resultToString(code);
}
}
