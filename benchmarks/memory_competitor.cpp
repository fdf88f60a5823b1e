// SPDX-License-Identifier: MIT
// Checks that a program measures the allocator that it is named after.
#include "benchmarks/memory_competitor.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Bench {

namespace {

const char* providerOf(const char* function) {
  Dl_info info;
  void* address = dlsym(RTLD_DEFAULT, function);
  return address && dladdr(address, &info) && info.dli_fname ? info.dli_fname : "nowhere";
}

void require(const char* function, const char* provider) {
  const char* path = providerOf(function);
  const char* name = std::strrchr(path, '/');
  if (std::strstr(name ? name : path, provider)) return;
  std::fprintf(stderr, "%s: %s comes from %s\n", WHO, function, path);
  std::exit(1);
}

}  // namespace

#ifdef BENCH_ARENA
Utils::Allocator* makeArena() {
  constexpr unsigned RESERVATION = 20 << 20;
  static Utils::HostAllocator host;
  Utils::Allocator* arena = new Utils::BENCH_ARENA(&host);
  arena->free(arena->alloc(RESERVATION));
  return arena;
}
#endif

void requireCompetitor() {
  const char* provider = REPLACES_MALLOC ? WHO : "libc.so";
  require("malloc", provider);
  require("free", provider);
}

}  // namespace Bench
