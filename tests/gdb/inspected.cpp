// SPDX-License-Identifier: MIT
// A process for gdb_test.py to look at. Its first argument selects what it prepares before it stops
// in stopHere(); main has the values.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "utils/sdk/alloc.h"
#include "utils/sdk/atree.h"
#include "utils/sdk/block.h"
#include "utils/sdk/colors.h"
#include "utils/sdk/event.h"
#include "utils/sdk/locker.h"
#include "utils/sdk/log.h"
#include "utils/sdk/membank.h"
#include "utils/sdk/object.h"
#include "utils/sdk/result.h"
#include "utils/sdk/string.h"
#include "utils/sdk/time.h"
#include "utils/sdk/uid.h"
#include "utils/sdk/vector.h"
#include "utils/sdk/ysys.h"

using namespace Utils;

namespace {

struct Thing : Object {
  int number_ = 42;
};

struct Listener : ResultListener {
  void errorRaised(unsigned) const override {}
};

struct OwnSink : Logger {
  void print(MessageClass, const char*, std::va_list) override {}
};

extern "C" __attribute__((noinline)) void stopHere() { __asm__ volatile("" ::: "memory"); }

Allocator* memory() { return Allocator::theAllocator(); }

// Random requests of all sizes and colours; half of the blocks stay.
template <class Arena>
void runRandomly(Arena& arena, unsigned seed, unsigned operations) {
  auto random = [engine = std::mt19937(seed)]() mutable { return static_cast<unsigned>(engine()); };
  std::vector<void*> blocks;
  for (unsigned i = 0; i < operations; i++) {
    if (random() % 5 < 2 && !blocks.empty()) {
      std::swap(blocks[random() % blocks.size()], blocks.back());
      arena.free(blocks.back());
      blocks.pop_back();
    } else {
      const unsigned size = random() % 20 == 0 ? random() % 20000 : random() % 600;
      blocks.push_back(arena.alloc(size, random() % 64));
      if (!blocks.back()) std::abort();
      std::memset(blocks.back(), static_cast<int>(random()), size);
    }
  }
}

void makeMillion() {
  for (unsigned i = 0; i < 1000000; i++) (void)memory()->alloc(i % 8 == 0 ? 1000 : 100, i % 64);
}

// The picture is that of the heap at the stop: names that are no UTF-8, gaps, pages of both kinds.
void writeSnapshot(const char* path, unsigned seed) {
  nameColor(1, "caf\u00e9 <\"\\\n\x80>");
  nameColor(2, "\u20ac\xed\xa0\x80");
  void* atThePeak = memory()->alloc(100000, 3);
  for (unsigned i = 0; i < 200; i++) {
    memory()->alloc(131000, i);
    YIF_MemAlloc(16);
  }
  memory()->free(atThePeak);
  runRandomly(*memory(), seed, 20000);
  for (unsigned i = 0; i < 2000; i++) memory()->alloc(500, i);  // more than is free
  writeHeap(path, "json");
}

// Writes past the end of a block, up to the word that is named, or to a freed block.
void damage(const std::string& what) {
  const auto take = [](unsigned size, unsigned color) {
    return static_cast<char*>(memory()->alloc(size, color));
  };
  char* large = take(2000, 5);
  take(3000, 6);
  take(100, 7);
  char* small = take(100, 8);  // directly before the former one: the last in is the first out
  char* freed = take(20, 9);
  if (what == "tail") std::memset(large + 2000, 'x', 4);
  if (what == "head") std::memset(large + 2000, 'x', 8);
  if (what == "small") std::memset(small, 'x', 128);
  if (what == "freed") {
    memory()->free(freed);
    std::memset(freed, 'x', 20);
  }
}

// A task that waits for a lock or an event until the destructor ends its wait.
struct Waiting {
  template <class Wait>
  explicit Waiting(Wait wait)
      : task_([=, this] {
          id_ = YIF_CurrentTaskId();
          wait();
        }) {
    while (!isAsleep()) std::this_thread::yield();
  }
  ~Waiting() { task_.join(); }

  bool isAsleep() const {
    std::ifstream file("/proc/self/task/" + std::to_string(id_) + "/stat");
    std::string line;
    std::getline(file, line);
    return id_ != 0 && line.find(") S ") != std::string::npos;
  }

  std::atomic<unsigned long> id_ = 0;
  std::thread task_;
};

int inspectValues() {
  String text("hello");
  String withNul("a\0b", 3);
  String none;
  SubString part = text(1, 3);
  Vector<String> words;
  Vector<int> noNumbers;
  AVLTree<String, int> counts;
  AVLTree<char, double> tight;
  MemoryColor parser(3);
  for (int i = 0; i < 30; i++) {
    String s("word ");
    s += i;
    words.add(s);
    counts.insert(s, i);
    tight.insert(static_cast<char>('a' + i % 26), i / 4.0);
  }
  parser.reset();
  AVLTree<String, int>::Iter iterator = counts.find("word 7");
  AVLTree<String, int>::Iter invalid = counts.find("nothing");
  auto walk = counts.begin();
  Ref<Thing> thing(new Thing);
  Ref<Thing> second = thing;
  Ref<Thing> empty;
  Time half(-1.5);
  UID uid(1, 2, 0x3a);
  UID null(0, 0, 0);
  YtBLock nothing("nothing");
  YtLightBLock light("light");
  YtHeavyBLock heavy("heavy");
  Mutex mutex;
  CriticalSection section;
  WaitableEvent event(true, true);
  Lock* lock = &section;
  light.lock();
  light.lock();
  heavy.lock();
  mutex.enter();
  mutex.enter();
  WaitableEvent clear(false, false);
  Waiting forMutex([&] {
    mutex.enter();
    mutex.exit();
  });
  Waiting forEvent([&] { clear.wait(); });
  Log* log = Log::theLog();
  log->setLogger(Info, new OwnSink);
  log->getCategory("net", 2, true, 1);
  log->print(Info, "net", 0, __FILE__, __LINE__, "a line");
  Listener listener;
  addResultListener(&listener);
  raiseError(RESULT_FILE_CORRUPT);
  MemoryBank bank;
  (void)bank.alloc(100, 4);
  MemoryAllocator own;
  (void)own.alloc(5000, 5);
  AllocationLimiter limiter(100);
  void* big = memory()->alloc(50000, 7);
  void* small = memory()->alloc(100, 7);
  stopHere();
  const void* used[] = {&part, &walk, &lock, &limiter, big, small, &invalid, &iterator};
  clear.set();
  mutex.exit();
  mutex.exit();
  heavy.unlock();
  light.unlock();
  light.unlock();
  return used[0] == nullptr;
}

}  // namespace

int main(int, char** arguments) {
  const std::string mode = arguments[1];
  if (mode == "values") return inspectValues();
  MemoryBank* bank = new MemoryBank;
  MemoryAllocator* own = new MemoryAllocator;
  if (mode == "random") {
    const auto seed = static_cast<unsigned>(std::atoi(arguments[2]));
    runRandomly(*memory(), seed, 100000);
    runRandomly(*bank, seed, 20000);
    runRandomly(*own, seed, 20000);
  } else if (mode == "written") {
    writeSnapshot(arguments[2], static_cast<unsigned>(std::atoi(arguments[3])));
  } else if (mode == "million") {
    makeMillion();
  } else {
    damage(mode);
  }
  stopHere();
  return own == nullptr || bank == nullptr;
}
