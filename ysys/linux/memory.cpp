// SPDX-License-Identifier: MIT
// Raw memory for the allocators, from one window of addresses.
//
// The window is reserved without memory and allocated from its lower end. Its pages are made
// accessible a mebibyte at a time, so most requests need no system call. On a 64-bit system, with
// the window at 0x7f0000000000, requests of 4 MiB and of 100 bytes return 0x7f0000000000 and
// 0x7f0000400000, the third one 0x7f0000400070, and 5 MiB of pages are accessible.
//
// Core files leave the window out, except for the pages that are accessible.
//
// Not an allocator: nothing is freed. The first size tried is twice the wanted one; it is reduced
// by an eighth until the system agrees, and then the upper half is unmapped, so that the host keeps
// at least as much of the address space as the window takes: nearly 300 MB under a limit of 600 MB.
// A request above 2^26 bytes bypasses the window. A window that is used up is not replaced: another
// one would take from the host's half.
//
// Thread safety: may be called from any task, also before YIF_MemInit and in the child of a fork.
#include <stddef.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "utils/sdk/ysys.h"
#include "ysys/fork.h"
#include "ysys/inner_lock.h"
#include "ysys/memory_tools.h"
#include "ysys/pages.h"

namespace ysys {
namespace {

constexpr uint64_t ALIGNMENT = 16;
constexpr uint64_t WINDOW_REQUEST_MAX = uint64_t{1} << 26;
constexpr size_t OPEN_STEP = size_t{1} << 20;

// The numbers are offsets from base_, used_ <= open_ <= size_; all are 0 while base_ is null.
struct Window {
  InnerLock mutex_;
  char* base_ = nullptr;
  size_t size_ = 0;
  size_t open_ = 0;
  size_t used_ = 0;
};

constinit Window _window;

size_t pageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

size_t wantedSize() {
  if constexpr (sizeof(void*) == 4) return size_t{1} << 30;
  return static_cast<size_t>((uint64_t{1} << 32) - pageSize());
}

// Returns the next smaller size to try, in whole pages; 0 after one page.
size_t smallerThan(size_t size) { return (size - size / 8) & ~(pageSize() - 1); }

// Requires: _window.mutex_ is held.
void reserveWindow() {
  if (_window.base_ != nullptr) return;
  for (size_t kept = wantedSize(); kept != 0; kept = smallerThan(kept)) {
    void* base =
        mmap(nullptr, 2 * kept, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED) continue;
    _window.base_ = static_cast<char*>(base);
    _window.size_ = kept;
    munmap(_window.base_ + kept, kept);
    madvise(base, kept, MADV_DONTDUMP);
    return;
  }
}

bool openInSteps(size_t missing, size_t step) {
  const size_t steps = (missing + step - 1) / step;
  const size_t length = std::min(steps * step, _window.size_ - _window.open_);
  char* begin = _window.base_ + _window.open_;
  if (mprotect(begin, length, PROT_READ | PROT_WRITE) != 0) return false;
  madvise(begin, length, MADV_DODUMP);
  searchForLeaks(begin, length);
  _window.open_ += length;
  return true;
}

// Tries the needed pages alone if the system refuses whole steps.
bool openUpTo(size_t end) {
  if (end <= _window.open_) return true;
  const size_t missing = end - _window.open_;
  return openInSteps(missing, OPEN_STEP) || openInSteps(missing, pageSize());
}

void* allocate(size_t size) {
  const std::lock_guard<InnerLock> guard(_window.mutex_);
  reserveWindow();
  if (size > _window.size_ - _window.used_) return nullptr;
  if (!openUpTo(_window.used_ + size)) return nullptr;
  void* memory = _window.base_ + _window.used_;
  _window.used_ += size;
  return memory;
}

}  // namespace

void* mapPages(size_t size) {
  void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return mapped == MAP_FAILED ? nullptr : mapped;
}

// If another task was in the middle of a request, the child loses the memory of that request, or
// the window has an address but no size yet and is reserved again.
void repairMemory() {
  if (_window.size_ == 0) _window.base_ = nullptr;
  _window.mutex_.repair();
}

}  // namespace ysys

using namespace ysys;

void YIF_MemInit(unsigned int) noexcept {
  const std::lock_guard<InnerLock> guard(_window.mutex_);
  reserveWindow();
}

void* YIF_MemAlloc(unsigned int size) noexcept {
  const uint64_t atLeastOne = std::max(size, 1u);
  const uint64_t rounded = (atLeastOne + ALIGNMENT - 1) & ~(ALIGNMENT - 1);
  if (rounded > SIZE_MAX) return nullptr;
  const size_t bytes = static_cast<size_t>(rounded);
  if (rounded <= WINDOW_REQUEST_MAX) return allocate(bytes);
  void* mapped = mapPages(bytes);
  if (mapped != nullptr) searchForLeaks(mapped, bytes);
  return mapped;
}
