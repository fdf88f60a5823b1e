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
// Bytes that one entry of a table of results takes.
[[gnu::visibility("default")]] unsigned lifeEntrySize() {
  Utils::AVLTree<unsigned, const char*> tree;
  const unsigned before = lifeHeld();
  tree.insert(1, "text");
  return lifeHeld() - before;
}
[[gnu::visibility("default")]] void lifeLeaveText() {
  const_cast<Utils::String&>(Utils::String::null()) = "left behind";
}
[[gnu::visibility("default")]] const char* lifeText(unsigned code) {
  return Utils::resultToString(code);
}
}
