// SPDX-License-Identifier: MIT
// A program that knows the library only through one that it loads and unloads. What was allocated
// stays, and each time it is the same allocator.
#include <dlfcn.h>

#include <cstring>

#include "gtest/gtest.h"

namespace {

struct Plugin {
  Plugin() : handle_(dlopen(PLUGIN, RTLD_NOW | RTLD_LOCAL)) {
    if (!handle_) ADD_FAILURE() << dlerror();
  }
  ~Plugin() { dlclose(handle_); }

  template <class Function>
  Function* find(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }

  void* handle_;
};

TEST(Unloading, LeavesTheAllocatorAndItsMemory) {
  void* first = nullptr;
  char* mem = nullptr;
  {
    Plugin plugin;
    first = plugin.find<void*()>("pluginAllocator")();
    mem = static_cast<char*>(plugin.find<void*(unsigned)>("pluginAlloc")(3000));
    std::strcpy(mem, "still here");
  }
  EXPECT_STREQ(mem, "still here");
  {
    Plugin again;
    EXPECT_EQ(again.find<void*()>("pluginAllocator")(), first);
    EXPECT_EQ(again.find<unsigned()>("pluginHeld")(), 3008u);
    again.find<void(void*)>("pluginFree")(mem);
    EXPECT_EQ(again.find<unsigned()>("pluginHeld")(), 0u);
  }
}

}  // namespace
