// SPDX-License-Identifier: MIT
// Uses the library at the moment of its life that the environment variable LIFE names.
#include <dlfcn.h>
#include <sys/wait.h>

#include <thread>

#include "life/uses.h"
#include "utils/sdk/alloc.h"

extern "C" void lifeUse(const char* moment);

namespace {

Life::Witness _witness("the program's initialiser", "the program's destructor");

void useInChild(const char* moment) {
  const pid_t child = fork();
  if (child == 0) {
    Life::use(moment);
    _exit(0);
  }
  int status = 1;
  if (waitpid(child, &status, 0) != child || status != 0) Life::say("the child failed\n");
}

void useInPlugin(const char* moment) {
  void* plugin = dlopen(PLUGIN, RTLD_NOW | RTLD_LOCAL);
  if (!plugin) return Life::say(dlerror());
  reinterpret_cast<void (*)(const char*)>(dlsym(plugin, "lifeUse"))(moment);
  dlclose(plugin);
}

// Takes all blocks of 1000000 bytes, then uses the library with one of them given back.
void useWithoutMemory(const char* moment) {
  Utils::Allocator* memory = Utils::Allocator::theAllocator();
  void* last = memory->alloc(1000000);
  while (void* block = memory->alloc(1000000)) last = block;
  Utils::AllocationLimiter empty(1u << 30);
  Utils::MemoryAllocator arena(&empty);
  if (memory->alloc(1000000) || arena.alloc(10) || arena.alloc(4000)) Life::say("memory is left\n");
  memory->free(last);
  Life::use(moment);
  static_cast<Utils::MemoryAllocator*>(memory)->checkArena();
}

}  // namespace

int main() {
  std::atexit([] { Life::at("an exit handler"); });
  if (Life::isNow("after a first error")) {
    Utils::raiseError(0x80040001);
    Life::use("after a first error");
  }
  if (Life::isNow("memory ran out")) useWithoutMemory("memory ran out");
  if (Life::isNow("a child")) useInChild("a child");
  if (Life::isNow("a child of a process that has used it")) {
    Life::use("its parent");
    useInChild("a child of a process that has used it");
  }
  if (Life::isNow("a second task")) {
    std::thread([] { Life::use("a first task"); }).join();
    std::thread([] { Life::use("a second task"); }).join();
  }
  if (Life::isNow("a plugin, twice")) {
    useInPlugin("a plugin, once");
    useInPlugin("a plugin, twice");
  }
}
