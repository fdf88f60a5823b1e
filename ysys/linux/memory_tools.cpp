// SPDX-License-Identifier: MIT
// The tools that check memory, recognised at run time.
//
// The sanitizers define functions in every program that is linked with them; the weak references
// below are null in all others. Valgrind answers a request. So one build of the library serves all
// tools, and none of them is needed to build it.
//
// Compiled without the address sanitizer. Thread safety: may be called from any task.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "utils/sdk/platform.h"
#include "ysys/linux/valgrind.h"
#include "ysys/memory_tools.h"
#include "ysys/pages.h"
#include "ysys/settings_source.h"

extern "C" {
[[gnu::weak]] void __asan_poison_memory_region(const volatile void* memory, size_t size);
[[gnu::weak]] void __asan_unpoison_memory_region(const volatile void* memory, size_t size);
[[gnu::weak]] void __asan_load1(uintptr_t address);
[[gnu::weak]] void __lsan_register_root_region(const void* memory, size_t size);
}

namespace ysys {
namespace {

using Request = ValgrindRequest;

struct Tools {
  bool hasSanitizer_;
  bool hasValgrind_;
};

Tools findTools() {
  const char* choice = environmentValue("YSYS_MEMORY_TOOLS");
  if (choice != nullptr && strcmp(choice, "off") == 0) return {false, false};
  return {__asan_poison_memory_region != nullptr && __asan_load1 != nullptr,
          askValgrind(Request::IS_RUNNING) != 0};
}

const Tools& tools() {
  static const Tools found = findTools();
  return found;
}

uintptr_t addressOf(const void* memory) { return reinterpret_cast<uintptr_t>(memory); }

void forbid(void* memory, size_t size) {
  if (tools().hasSanitizer_) __asan_poison_memory_region(memory, size);
}

void allow(void* memory, size_t size) {
  if (tools().hasSanitizer_) __asan_unpoison_memory_region(memory, size);
}

void ask(Request request, const void* memory, size_t second = 0) {
  if (tools().hasValgrind_) askValgrind(request, addressOf(memory), second);
}

}  // namespace

void searchForLeaks(const void* memory, size_t size) {
  if (__lsan_register_root_region != nullptr) __lsan_register_root_region(memory, size);
}

}  // namespace ysys

using namespace ysys;

int YfHasMemoryTool() noexcept { return tools().hasSanitizer_ || tools().hasValgrind_ ? 1 : 0; }

unsigned YfQuarantineBytes() noexcept {
  constexpr unsigned USUAL = 262144;
  constexpr unsigned long MOST = 1ul << 30;
  const char* text = environmentValue("YSYS_QUARANTINE");
  char* end = nullptr;
  const unsigned long number = text != nullptr ? strtoul(text, &end, 10) : USUAL;
  return end == text ? USUAL : static_cast<unsigned>(std::min(number, MOST));
}

void YfMarkChunk(void* memory, size_t size) noexcept {
  forbid(memory, size);
  ask(Request::FORBID_ACCESS, memory, size);
}

void YfUnmarkChunk(void* memory, size_t size) noexcept {
  allow(memory, size);
  ask(Request::MAKE_DEFINED, memory, size);
}

void YfMarkBusy(void* memory, size_t size, int isOutermost) noexcept {
  allow(memory, size);
  ask(isOutermost ? Request::BLOCK_IS_ALLOCATED : Request::MAKE_UNDEFINED, memory, size);
}

void YfMarkFree(void* memory, size_t blockSize, int isOutermost) noexcept {
  forbid(memory, blockSize);
  ask(isOutermost ? Request::BLOCK_IS_FREED : Request::FORBID_ACCESS, memory,
      isOutermost ? 0 : blockSize);
}

void YfReportWrongFree(void* memory) noexcept {
  YfResumeMemoryTool();
  ask(Request::BLOCK_IS_FREED, memory);
  YfPauseMemoryTool();
  if (tools().hasSanitizer_) __asan_load1(addressOf(memory));
}

void YfPauseMemoryTool() noexcept {
  if (tools().hasValgrind_) askValgrind(Request::CHANGE_SILENCE, 1);
}

void YfResumeMemoryTool() noexcept {
  if (tools().hasValgrind_) askValgrind(Request::CHANGE_SILENCE, static_cast<uintptr_t>(-1));
}

void* YfMapPages(size_t size) noexcept { return mapPages(size); }
