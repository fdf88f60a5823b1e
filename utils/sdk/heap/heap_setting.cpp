// SPDX-License-Identifier: MIT
// The setting YUTILS_HEAP, which writes pictures of the heap at the moments that it names.
//
// It is read when the library is loaded, as the environment variable YUTILS_HEAP or the key
// YUtils.Heap, and is a list of requests, separated by ';' or ',':
//
//   exit:PATH          when the library is unloaded: after the static objects of the program
//   signal:NAME:PATH   after a signal, such as USR2
//   exhausted:PATH     the first time that the process allocator has no memory for a request
//
// The handler of a signal only sets a bit. The picture is written by the task that next takes a
// slow step of the process allocator, or at exit. Example: with exit:a.svg,signal:USR2:h-%p-%n.json
// the second signal to process 1234 writes h-1234-2.json.
//
// Thread safety: the caller serialises, as for the process allocator; the handler may run at any
// time.
#include <cstdio>
#include <cstring>

#include "utils/sdk/base/load_order.h"
#include "utils/sdk/colors.h"
#include "utils/sdk/memory/heap_moments.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/ysys.h"

namespace Utils {

constinit std::atomic<unsigned> pendingHeaps{0};

namespace {

enum Moment { EXIT, SIGNAL, EXHAUSTED };

struct Request {
  Moment moment_;
  const char* path_;
  int signal_;
  unsigned written_;  // how many pictures
};

constexpr unsigned MOST_REQUESTS = 16;
constexpr unsigned LONGEST_PATH = 1024;

constinit char _text[1024] = {};
constinit Request _requests[MOST_REQUESTS] = {};
constinit unsigned _count = 0;

// --- The file names ---

// A path with the number of the process for %p and that of the picture for %n.
struct ExpandedPath {
  ExpandedPath(const char* path, unsigned picture) {
    for (; *path != '\0' && isWhole_; path++) {
      if (*path != '%' || (path[1] != 'p' && path[1] != 'n')) {
        add("%c", *path);
      } else if (*++path == 'p') {
        add("%lu", YfProcessId());
      } else {
        add("%u", picture);
      }
    }
  }

  template <class T>
  void add(const char* format, T value) {
    const int length = std::snprintf(text_ + size_, sizeof text_ - size_, format, value);
    size_ += static_cast<unsigned>(length);
    isWhole_ = size_ < sizeof text_;
  }

  char text_[LONGEST_PATH];
  unsigned size_ = 0;
  bool isWhole_ = true;
};

void write(Request& request) {
  const ExpandedPath path(request.path_, ++request.written_);
  if (!path.isWhole_ || writeHeap(path.text_) != 0)
    std::fprintf(stderr, "yutils: the heap cannot be written to %s\n", request.path_);
}

void writeAll(Moment moment) {
  for (unsigned i = 0; i < _count; i++) {
    if (_requests[i].moment_ == moment) write(_requests[i]);
  }
}

// --- The setting ---

void noteSignal(int signal) {
  for (unsigned i = 0; i < _count; i++) {
    if (_requests[i].moment_ == SIGNAL && _requests[i].signal_ == signal)
      pendingHeaps.fetch_or(1u << i, std::memory_order_relaxed);
  }
  interruptRequests();
}
static_assert(std::atomic<unsigned>::is_always_lock_free && MOST_REQUESTS <= 32);

// Returns the text after the prefix, null if it has another beginning.
char* after(char* text, const char* prefix) {
  const std::size_t size = std::strlen(prefix);
  return std::strncmp(text, prefix, size) == 0 ? text + size : nullptr;
}

// Adds "NAME:PATH".
bool addSignal(char* name) {
  char* colon = std::strchr(name, ':');
  if (!colon || colon[1] == '\0') return false;
  *colon = '\0';
  Request& request = _requests[_count] = {SIGNAL, colon + 1, 0, 0};
  request.signal_ = YfOnSignal(name, noteSignal);
  *colon = ':';
  return request.signal_ != 0;
}

// Adds one request after the last. Returns false if the entry is none.
bool add(char* entry) {
  if (char* name = after(entry, "signal:")) return addSignal(name);
  const char* atExit = after(entry, "exit:");
  const char* path = atExit ? atExit : after(entry, "exhausted:");
  if (!path || *path == '\0') return false;
  _requests[_count] = {atExit ? EXIT : EXHAUSTED, path, 0, 0};
  return true;
}

void reportWrong(const char* entry) {
  std::fprintf(stderr,
               "yutils: YUTILS_HEAP: \"%s\" is not used; expected are at most %u of exit:PATH, "
               "signal:NAME:PATH (such as signal:USR2:heap-%%p-%%n.json) and exhausted:PATH, "
               "separated by ';' or ','\n",
               entry, MOST_REQUESTS);
}

void readSetting() {
  if (YIF_GetConfigString("YUTILS_HEAP", _text, sizeof _text) != 0 &&
      YIF_GetConfigString("YUtils.Heap", _text, sizeof _text) != 0)
    return;
  const char* wrong = nullptr;
  for (char* entry = _text; *entry != '\0';) {
    char* end = entry + std::strcspn(entry, ";,");
    char* next = *end == '\0' ? end : end + 1;
    *end = '\0';
    if (_count < MOST_REQUESTS && (*entry == '\0' || add(entry))) {
      _count += *entry == '\0' ? 0 : 1;
    } else if (!wrong) {
      wrong = entry;
    }
    entry = next;
  }
  if (wrong) reportWrong(wrong);
}

struct HeapSetting {
  HeapSetting() { readSetting(); }
  ~HeapSetting() {
    writePendingHeap();
    writeAll(EXIT);
  }
};

[[gnu::init_priority(LOADED_HEAP_SETTING)]] HeapSetting _setting;

}  // namespace

void writePendingHeap() {
  const unsigned pending = pendingHeaps.exchange(0, std::memory_order_relaxed);
  for (unsigned i = 0; i < _count; i++) {
    if ((pending >> i & 1) != 0) write(_requests[i]);
  }
}

void writeExhaustedHeap() {
  static bool _wasWritten = false;
  if (_wasWritten) return;
  _wasWritten = true;
  writeAll(EXHAUSTED);
}

}  // namespace Utils
