// SPDX-License-Identifier: MIT
// A program that uses the library in each way that tests/ways.py tries: exported and inline
// functions, the system layer by way of a light lock, and an operator new that must stay its own.
#include <cstdio>
#include <mutex>
#include <new>

#include "utils/yutils.h"

#if YUTILS_VERSION < YUTILS_VERSION_NUMBER(1, 0, 0)
#error "the version is that of the library"
#endif

int main() {
  Utils::Allocator* memory = Utils::Allocator::theAllocator();
  const unsigned before = memory->allocatedMemory();
  void* own = ::operator new(100);
  const bool isOwn = memory->allocatedMemory() == before;
  ::operator delete(own);

  Utils::YtLightBLock lock("use");
  const std::lock_guard<Utils::YtLightBLock> guard(lock);
  Utils::String text("used ");
  text += (isOwn ? "well" : "with the library's operator new");
  std::puts(text);
}
